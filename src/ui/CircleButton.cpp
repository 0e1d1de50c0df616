#include "ui/CircleButton.h"

#include "ui/SymbolIcon.h"

#include <QMouseEvent>
#include <QPainter>

namespace tavrel {

CircleButton::CircleButton(QWidget* parent) : QWidget(parent), m_color(QColor::fromRgbF(1.0f, 0.231f, 0.188f)) {
    setCursor(Qt::PointingHandCursor);
}

void CircleButton::setColor(const QColor& color) {
    m_color = color;
    update();
}

void CircleButton::setIcon(const QString& symbol) {
    m_symbol = symbol;
    m_icon = SymbolIcon::pixmap(symbol, kIconPointSize, Qt::white, devicePixelRatioF());
    update();
}

void CircleButton::paintEvent(QPaintEvent*) {
    QPainter painter(this);
    painter.setRenderHints(QPainter::Antialiasing | QPainter::SmoothPixmapTransform);
    painter.setOpacity(m_opacity);
    painter.setPen(Qt::NoPen);
    painter.setBrush(m_color);
    painter.drawEllipse(QRectF(rect()));
    if (!m_icon.isNull()) {
        const QRectF iconBox((width() - kIconEdgePx) / 2.0, (height() - kIconEdgePx) / 2.0, kIconEdgePx, kIconEdgePx);
        // Scaled down only, centred in its 16 x 16 box.
        QSizeF size = m_icon.deviceIndependentSize();
        if (size.width() > kIconEdgePx || size.height() > kIconEdgePx)
            size.scale(kIconEdgePx, kIconEdgePx, Qt::KeepAspectRatio);
        const QRectF target(iconBox.center() - QPointF(size.width() / 2, size.height() / 2), size);
        painter.drawPixmap(target, m_icon, QRectF(m_icon.rect()));
    }
}

void CircleButton::mousePressEvent(QMouseEvent* event) {
    if (event->button() != Qt::LeftButton) {
        event->ignore();
        return;
    }
    // Accepted, so that the click never also reaches the row around the button.
    event->accept();
    m_opacity = kPressedOpacity;
    update();
}

void CircleButton::mouseReleaseEvent(QMouseEvent* event) {
    if (event->button() != Qt::LeftButton) {
        event->ignore();
        return;
    }
    event->accept();
    m_opacity = 1.0;
    update();
    if (rect().contains(event->position().toPoint()) && onTap)
        onTap();
}

} // namespace tavrel
