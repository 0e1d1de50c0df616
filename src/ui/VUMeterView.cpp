#include "ui/VUMeterView.h"

#include <QPainter>
#include <QPainterPath>
#include <algorithm>

namespace tavrel {

namespace {

constexpr double kSecondBandFrom = 0.6;
constexpr double kThirdBandFrom = 0.85;
constexpr double kPeakLineHeight = 2.0;
constexpr double kPeakOpacity = 0.8;
constexpr qint64 kPeakSinkFromUpdate = 16;
constexpr double kPeakSinkPerUpdate = 0.03;
constexpr double kPeakHiddenBelow = 0.02;
constexpr double kCornerRadius = 4.0;

const QColor kFirstBand = QColor::fromRgbF(0.39f, 0.59f, 1.0f);
const QColor kSecondBand = QColor::fromRgbF(0.2f, 0.78f, 0.5f);
const QColor kThirdBand = QColor::fromRgbF(0.95f, 0.3f, 0.25f);
const QColor kTrack = QColor::fromRgbF(0.0f, 0.0f, 0.0f, 0.08f);
const QColor kPeakLine = QColor::fromRgbF(1.0f / 3, 1.0f / 3, 1.0f / 3);
constexpr double kWarningOutlinePx = 1.5;

} // namespace

VUMeterView::VUMeterView(QWidget* parent) : QWidget(parent), m_barColor(kFirstBand) {
    setFixedSize(kWidthPx, kHeightPx);
    setAttribute(Qt::WA_TransparentForMouseEvents);
    m_barRect = QRectF(0, 0, width(), 0);
    m_peakRect = QRectF(0, 0, width(), kPeakLineHeight);
}

QColor VUMeterView::colorForLevel(double level) {
    if (level >= 0.0 && level < kSecondBandFrom)
        return kFirstBand;
    if (level >= kSecondBandFrom && level < kThirdBandFrom)
        return kSecondBand;
    return kThirdBand;
}

void VUMeterView::setLevel(double level) {
    const double heightPx = height();
    const double widthPx = width();
    const QRect oldBar = toWidgetRect(m_barRect);
    const QRect oldPeak = toWidgetRect(m_peakRect);
    const QColor oldColor = m_barColor;
    const double oldOpacity = m_peakOpacity;

    m_barColor = colorForLevel(level);
    m_barRect = QRectF(0, 0, widthPx, level * heightPx);

    if (m_peak <= level) {
        m_peak = level;
        m_peakHoldCount = 0;
        m_peakRect = QRectF(0, level * heightPx - kPeakLineHeight, widthPx, kPeakLineHeight);
        m_peakOpacity = kPeakOpacity;
    } else {
        ++m_peakHoldCount;
        if (m_peakHoldCount >= kPeakSinkFromUpdate) {
            m_peak = std::max(m_peak - kPeakSinkPerUpdate, 0.0);
            m_peakRect = QRectF(0, m_peak * heightPx - kPeakLineHeight, widthPx, kPeakLineHeight);
            if (m_peak < kPeakHiddenBelow)
                m_peakOpacity = 0.0;
        }
    }

    // Twenty updates a second per meter: repaint only when a pixel can change (silence repaints nothing).
    const bool barChanged = toWidgetRect(m_barRect) != oldBar || (m_barColor != oldColor && !oldBar.isEmpty());
    const bool peakChanged = toWidgetRect(m_peakRect) != oldPeak || m_peakOpacity != oldOpacity;
    if (barChanged || peakChanged)
        update();
}

void VUMeterView::setWarning(bool warning) {
    if (warning == m_warning)
        return;
    m_warning = warning;
    update();
}

QRect VUMeterView::toWidgetRect(const QRectF& bottomUp) const {
    const QRectF flipped(bottomUp.x(), height() - bottomUp.y() - bottomUp.height(), bottomUp.width(),
                         bottomUp.height());
    return flipped.toAlignedRect().intersected(rect());
}

void VUMeterView::paintEvent(QPaintEvent*) {
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    painter.setPen(Qt::NoPen);

    const QRectF bounds = rect();
    painter.setBrush(kTrack);
    painter.drawRoundedRect(bounds, kCornerRadius, kCornerRadius);

    const double barHeight = std::min(m_barRect.height(), bounds.height());
    if (barHeight > 0.0) {
        const QRectF bar(0, bounds.height() - barHeight, bounds.width(), barHeight);
        const double radius = std::min(kCornerRadius, barHeight / 2.0);
        painter.setBrush(m_barColor);
        painter.drawRoundedRect(bar, radius, radius);
    }

    if (m_peakOpacity > 0.0) {
        const QRectF line(m_peakRect.x(), bounds.height() - m_peakRect.y() - m_peakRect.height(), m_peakRect.width(),
                          m_peakRect.height());
        painter.setOpacity(m_peakOpacity);
        painter.setClipRect(bounds);
        painter.fillRect(line, kPeakLine);
    }

    if (m_warning) {
        const double inset = kWarningOutlinePx / 2.0;
        painter.setOpacity(1.0);
        painter.setClipping(false);
        painter.setBrush(Qt::NoBrush);
        painter.setPen(QPen(kThirdBand, kWarningOutlinePx));
        painter.drawRoundedRect(bounds.adjusted(inset, inset, -inset, -inset), kCornerRadius, kCornerRadius);
    }
}

} // namespace tavrel
