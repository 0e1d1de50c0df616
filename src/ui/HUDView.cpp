#include "ui/HUDView.h"

#include <QMouseEvent>
#include <QPaintEvent>
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

void HUDView::paintEvent(QPaintEvent* event) {
    // The meters repaint small parts of the card twenty times a second: the card is drawn once into a
    // pixmap and copied from there.
    const qreal ratio = devicePixelRatioF();
    if (m_card.isNull() || m_card.devicePixelRatio() != ratio) {
        m_card = QPixmap((QSizeF(size()) * ratio).toSize());
        m_card.setDevicePixelRatio(ratio);
        m_card.fill(Qt::transparent);
        QPainter card(&m_card);
        card.setRenderHint(QPainter::Antialiasing);
        card.setPen(QPen(kCardEdge, 1.0));
        card.setBrush(kCardColor);
        card.drawRoundedRect(QRectF(rect()).adjusted(0.5, 0.5, -0.5, -0.5), kCornerRadius, kCornerRadius);
    }
    QPainter painter(this);
    const QRect dirty = event->rect();
    painter.drawPixmap(dirty, m_card, QRectF(QPointF(dirty.topLeft()) * ratio, QSizeF(dirty.size()) * ratio));
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
