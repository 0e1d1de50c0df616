#include "ui/HUDView.h"

#include <QMouseEvent>
#include <QPainter>
#include <QWindow>

namespace tavrel {

namespace {
constexpr qreal kCornerRadius = 20.0;
const QColor kCardColor = QColor::fromRgbF(0.96f, 0.96f, 0.96f, 0.97f);
const QColor kCardEdge = QColor::fromRgbF(0.0f, 0.0f, 0.0f, 0.08f);
} // namespace

HUDView::HUDView(QWidget* parent) : QWidget(parent) {
    setFixedSize(kWidthPx, kHeightPx);
}

void HUDView::paintEvent(QPaintEvent*) {
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    painter.setPen(QPen(kCardEdge, 1.0));
    painter.setBrush(kCardColor);
    painter.drawRoundedRect(QRectF(rect()).adjusted(0.5, 0.5, -0.5, -0.5), kCornerRadius, kCornerRadius);
}

void HUDView::mousePressEvent(QMouseEvent* event) {
    if (event->button() != Qt::LeftButton) {
        QWidget::mousePressEvent(event);
        return;
    }
    event->accept();
    // The window manager moves the window itself where it can (X11 _NET_WM_MOVERESIZE, Wayland);
    // elsewhere the window follows the cursor.
    QWindow* handle = window()->windowHandle();
    if (handle && handle->startSystemMove())
        return;
    m_dragging = true;
    m_grabOffset = event->globalPosition().toPoint() - window()->frameGeometry().topLeft();
}

void HUDView::mouseMoveEvent(QMouseEvent* event) {
    if (!m_dragging) {
        QWidget::mouseMoveEvent(event);
        return;
    }
    window()->move(event->globalPosition().toPoint() - m_grabOffset);
    event->accept();
}

void HUDView::mouseReleaseEvent(QMouseEvent* event) {
    m_dragging = false;
    QWidget::mouseReleaseEvent(event);
}

} // namespace tavrel
