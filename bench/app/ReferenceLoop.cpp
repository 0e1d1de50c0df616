// The reference of the shell's CPU figures: a bare Qt widget event loop, idle or repainting a panel-sized
// widget at 20 Hz like the recording panel's meters.
//   bench_app_reference idle|meter
#include <QApplication>
#include <QPainter>
#include <QTimer>
#include <QWidget>

namespace {

class Meter : public QWidget {
public:
    void paintEvent(QPaintEvent*) override {
        QPainter painter(this);
        painter.fillRect(rect(), QColor(30, 30, 30));
        m_level = m_level > 0.9 ? 0.1 : m_level + 0.05;
        painter.fillRect(QRectF(8, height() * (1 - m_level), width() - 16, height() * m_level), QColor(60, 200, 90));
    }

private:
    double m_level = 0;
};

} // namespace

int main(int argc, char** argv) {
    QApplication app(argc, argv);
    QApplication::setQuitOnLastWindowClosed(false);
    const bool meter = argc > 1 && QByteArray(argv[1]) == "meter";
    Meter widget;
    QTimer timer;
    if (meter) {
        widget.resize(60, 262);
        widget.setWindowFlags(Qt::Tool | Qt::FramelessWindowHint | Qt::WindowStaysOnTopHint);
        widget.show();
        QObject::connect(&timer, &QTimer::timeout, &widget, qOverload<>(&QWidget::update));
        timer.start(50);
    }
    return QApplication::exec();
}
