#pragma once

#include "ui/CircleButton.h"

#include <QFrame>
#include <QLabel>
#include <QPointer>
#include <QString>
#include <QToolButton>
#include <QUrl>
#include <QWidget>
#include <functional>

namespace tavrel {

/// Content of the tray item's popover (300 x 148): logo, name and version with the history and settings
/// buttons; the round start/stop button with its caption; the pause/resume and quit buttons. It shows
/// the state it is given and reports clicks through its closures; it never touches the recorder.
class MainPopoverController : public QWidget {
    Q_OBJECT
public:
    static constexpr int kWidthPx = 300;
    static constexpr int kHeightPx = 148;

    /// `versionString` is shown after "Recorder v".
    explicit MainPopoverController(const QString& versionString, QWidget* parent = nullptr);

    std::function<void()> onStartStop;
    std::function<void()> onPause;
    std::function<void()> onSettings;
    /// Called by the quit button; when unset the application quits at once.
    std::function<void()> onQuit;
    /// The stored web application URL, read at each click of the history button; when unset the
    /// setting `webURL` is read from the settings store.
    std::function<QString()> webURLProvider;
    /// Opens a URL in the user's browser (the desktop's handler); when unset QDesktopServices is used.
    std::function<void(const QUrl&)> openURL;

    bool isRecording() const { return m_isRecording; }
    bool isPaused() const { return m_isPaused; }
    /// The new value shows after the current main-thread work ends (the update is queued).
    void setIsRecording(bool recording);
    void setIsPaused(bool paused);
    /// A start or a stop under way: while the caption is not empty it replaces the round button's, and the
    /// round button, its row and the pause button do nothing. Applies at once, so that a second click
    /// already queued finds the row disabled.
    void setBusyCaption(const QString& caption);
    QString busyCaption() const { return m_busyCaption; }

    void didTapStartRow();
    void didTapPause();
    void didTapSettings();
    void didTapHistory();
    void didTapQuit();

    // What the user sees, for tests and screenshots.
    CircleButton* circleButton() const { return m_circleButton; }
    QLabel* actionLabel() const { return m_actionLabel; }
    QWidget* startRow() const { return m_startRow; }
    QToolButton* pauseButton() const { return m_pauseBtn; }
    QFrame* pauseContainer() const { return m_pauseContainer; }
    qreal pauseContainerOpacity() const;
    QString pauseSymbol() const { return m_pauseSymbol; }
    QToolButton* quitButton() const { return m_quitBtn; }
    QToolButton* historyButton() const { return m_historyBtn; }
    QToolButton* settingsButton() const { return m_settingsBtn; }

private:
    void buildUI(const QString& versionString);
    QToolButton* makeHeaderButton(const QString& symbol, void (MainPopoverController::*action)());
    std::pair<QFrame*, QToolButton*> makeSecondaryButton(const QString& symbol, const QString& title,
                                                         void (MainPopoverController::*action)());
    QWidget* makeSeparator();
    void updateStartStop();
    void updatePauseButton();
    void styleSecondaryButton(QToolButton* button, const QString& symbol, qreal opacity);

    bool m_isRecording = false;
    bool m_isPaused = false;
    QString m_busyCaption;
    QPointer<CircleButton> m_circleButton;
    QPointer<QLabel> m_actionLabel;
    QPointer<QWidget> m_startRow;
    QPointer<QToolButton> m_pauseBtn;
    QPointer<QFrame> m_pauseContainer;
    qreal m_pauseOpacity = 1.0;
    QString m_pauseSymbol;
    QPointer<QToolButton> m_quitBtn;
    QPointer<QToolButton> m_historyBtn;
    QPointer<QToolButton> m_settingsBtn;
};

} // namespace tavrel
