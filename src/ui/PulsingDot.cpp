#include "ui/PulsingDot.h"

#include <QPainter>
#include <QPropertyAnimation>
#include <cmath>

namespace tavrel {

namespace {
// macOS's system red in the light appearance.
const QColor kSystemRed = QColor::fromRgbF(1.0f, 0.231f, 0.188f);
} // namespace

PulsingDot::PulsingDot(QWidget* parent) : QWidget(parent) {
    setAttribute(Qt::WA_TransparentForMouseEvents);
}

void PulsingDot::setDotOpacity(qreal opacity) {
    // The animation runs at the display's frame rate; steps of 1/32 are invisible on an 8 px dot and
    // halve the repaints of the panel.
    constexpr qreal kSteps = 32.0;
    const bool visible = std::lround(opacity * kSteps) != std::lround(m_dotOpacity * kSteps);
    m_dotOpacity = opacity;
    if (visible)
        update();
}

void PulsingDot::showEvent(QShowEvent* event) {
    QWidget::showEvent(event);
    if (m_pulse)
        return;
    // One animation for the dot's life: out and back (autoreverse) as key values of a double-length run.
    m_pulse = new QPropertyAnimation(this, "dotOpacity", this);
    m_pulse->setDuration(2 * kHalfPeriodMs);
    m_pulse->setKeyValueAt(0.0, kBrightOpacity);
    m_pulse->setKeyValueAt(0.5, kDimOpacity);
    m_pulse->setKeyValueAt(1.0, kBrightOpacity);
    m_pulse->setLoopCount(-1);
    m_pulse->start();
}

void PulsingDot::paintEvent(QPaintEvent*) {
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    painter.setPen(Qt::NoPen);
    painter.setOpacity(m_dotOpacity);
    painter.setBrush(kSystemRed);
    painter.drawEllipse(QRectF(rect()));
}

} // namespace tavrel
