#pragma once

#include "ui/HUDView.h"
#include "ui/VUMeterView.h"

#include <QLabel>
#include <QObject>
#include <QPointer>
#include <QRect>
#include <QTimer>
#include <QToolButton>
#include <functional>
#include <memory>

class QWindow;

namespace tavrel {

/// The floating panel shown while a recording runs: elapsed time, pulsing dot, stop button, one or two
/// level meters, note button. It takes no focus, stays above other windows and on every workspace, and
/// can be dragged anywhere. It does not know the recorder: it calls the closures below.
class RecordingHUD : public QObject {
    Q_OBJECT
public:
    static constexpr int kPanelWidthPx = 60;
    static constexpr int kPanelHeightPx = 262;
    static constexpr int kScreenMarginPx = 20;
    static constexpr int kTickerIntervalMs = 1000;
    static constexpr int kMeterIntervalMs = 50;

    explicit RecordingHUD(QObject* parent = nullptr);
    ~RecordingHUD() override;

    std::function<void()> onStop;
    std::function<void()> onNote;
    std::function<float()> levelProvider;
    std::function<float()> systemLevelProvider;
    /// Called with the panel's native window before it is first shown, to keep it on every workspace
    /// (the desktop-specific part lives with the platform code). Optional.
    std::function<void(QWindow&)> pinToAllWorkspaces;
    /// Whether the desktop shows transparent window parts; without it the panel has no drawn shadow and
    /// is cut to its rounded shape instead. Optional (unset: transparency is available).
    std::function<bool()> compositingAvailable;

    /// Shows a new panel with one meter, or two when `systemAudio`; does nothing while a panel is shown.
    void show(bool systemAudio);
    /// Stops both timers and removes the panel; harmless when nothing is shown.
    void hide();

    void didStop();
    void didNote();

    /// One tick of the one-second clock and of the meter refresh. The timers call them; tests call them
    /// directly instead of waiting.
    void tickClock();
    void tickMeters();
    /// Marks the microphone's meter (or the system audio's) while that side delivers only digital silence.
    void setMeterWarning(bool systemMeter, bool warning);

    /// Where the panel goes in a screen's available area (top right, 20 px from both edges).
    static QRect panelRect(const QRect& availableArea);

    bool isShown() const { return m_panel != nullptr; }
    qint64 elapsed() const { return m_elapsed; }
    /// The panel's top-level window (larger than the card: it holds the card's shadow). Null when hidden.
    QWidget* panel() const { return m_panel.get(); }
    /// The visible card, 60 x 262. Null when hidden.
    HUDView* view() const { return m_view; }
    /// The card's rectangle on the screen.
    QRect panelFrame() const;
    QLabel* timerLabel() const { return m_timerLabel; }
    VUMeterView* vuMeter() const { return m_vuMeter; }
    VUMeterView* sysMeter() const { return m_sysMeter; }
    QToolButton* stopButton() const { return m_stopButton; }
    QToolButton* noteButton() const { return m_noteButton; }
    QTimer* ticker() const { return m_ticker.get(); }
    QTimer* meterTimer() const { return m_meterTimer.get(); }

private:
    struct DeleteLater {
        void operator()(QObject* object) const;
    };

    void buildPanel(bool systemAudio);
    void startTicker();
    void startMeterTimer();
    QLabel* makeLabel(const QRect& frame);
    QLabel* makeSymbolView(const QString& symbol, qreal pointSize, const QRect& frame, const QColor& tint);

    // The panel is deleted later: hide() usually runs from inside a click on the panel's own stop button.
    std::unique_ptr<QWidget, DeleteLater> m_panel;
    QPointer<HUDView> m_view;
    QPointer<QLabel> m_timerLabel;
    QPointer<VUMeterView> m_vuMeter;
    QPointer<VUMeterView> m_sysMeter;
    QPointer<QToolButton> m_stopButton;
    QPointer<QToolButton> m_noteButton;
    qint64 m_elapsed = 0;
    std::unique_ptr<QTimer> m_ticker;
    std::unique_ptr<QTimer> m_meterTimer;
};

} // namespace tavrel
