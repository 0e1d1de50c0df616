#pragma once

#include <QWidget>

class QPropertyAnimation;

namespace tavrel {

/// The panel's red recording dot: its opacity pulses from 1.0 to 0.15 over 0.9 s and back, forever.
class PulsingDot : public QWidget {
    Q_OBJECT
    Q_PROPERTY(qreal dotOpacity READ dotOpacity WRITE setDotOpacity)
public:
    static constexpr int kHalfPeriodMs = 900;
    static constexpr qreal kBrightOpacity = 1.0;
    static constexpr qreal kDimOpacity = 0.15;

    explicit PulsingDot(QWidget* parent = nullptr);

    qreal dotOpacity() const { return m_dotOpacity; }
    void setDotOpacity(qreal opacity);
    /// Null until the dot is first shown; the same animation afterwards (it is started once).
    QPropertyAnimation* pulse() const { return m_pulse; }

protected:
    void showEvent(QShowEvent* event) override;
    void paintEvent(QPaintEvent* event) override;

private:
    qreal m_dotOpacity = kBrightOpacity;
    QPropertyAnimation* m_pulse = nullptr;
};

} // namespace tavrel
