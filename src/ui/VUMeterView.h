#pragma once

#include <QColor>
#include <QRectF>
#include <QWidget>

namespace tavrel {

/// Narrow vertical level meter: a bar that rises with the level in three colour bands, and a 2 px peak
/// line that holds the highest recent level for 15 updates and then sinks. Geometry is kept in the
/// meter's own bottom-up coordinates (origin at the bottom-left corner, y upward), as the accessors
/// report it; painting flips it.
class VUMeterView : public QWidget {
    Q_OBJECT
public:
    static constexpr int kWidthPx = 14;
    static constexpr int kHeightPx = 42;

    explicit VUMeterView(QWidget* parent = nullptr);

    /// One level update (expected 0...1, not clamped: a level above 1 draws a bar taller than the meter).
    void setLevel(double level);
    /// Marks the meter (a red outline) while its side delivers nothing at all although its device is in use.
    void setWarning(bool warning);
    bool warning() const { return m_warning; }

    double peak() const { return m_peak; }
    qint64 peakHoldCount() const { return m_peakHoldCount; }
    QRectF barRect() const { return m_barRect; }
    QRectF peakRect() const { return m_peakRect; }
    double peakOpacity() const { return m_peakOpacity; }
    QColor barColor() const { return m_barColor; }

    /// Colour of the bar for a level.
    static QColor colorForLevel(double level);

protected:
    void paintEvent(QPaintEvent* event) override;

private:
    QRect toWidgetRect(const QRectF& bottomUp) const;

    QRectF m_barRect;
    QRectF m_peakRect;
    QColor m_barColor;
    double m_peakOpacity = 0.0;
    double m_peak = 0.0;
    qint64 m_peakHoldCount = 0;
    bool m_warning = false;
};

} // namespace tavrel
