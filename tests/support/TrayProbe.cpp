// A minimal tray program for checking the fake StatusNotifierWatcher against Qt's own tray code:
// prints whether Qt sees a tray, shows an icon, and stays until killed.
#include <QApplication>
#include <QIcon>
#include <QPixmap>
#include <QSystemTrayIcon>
#include <QTextStream>

int main(int argc, char** argv) {
    QApplication app(argc, argv);
    QTextStream out(stdout);
    out << "available=" << (QSystemTrayIcon::isSystemTrayAvailable() ? "yes" : "no") << Qt::endl;
    QPixmap pixmap(22, 22);
    pixmap.fill(Qt::red);
    QSystemTrayIcon icon{QIcon(pixmap)};
    icon.setToolTip(QStringLiteral("Sonde"));
    icon.show();
    out << "shown" << Qt::endl;
    return app.exec();
}
