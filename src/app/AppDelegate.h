#pragma once

#include "app/DialogQueue.h"
#include "audio/AudioRecorder.h"
#include "audio/pulse/AudioRouting.h"
#include "core/FollowedJobs.h"
#include "core/MicInputQuery.h"
#include "core/WorkerThread.h"
#include "ui/Alert.h"

#include <QCoro/QCoroTask>
#include <QDateTime>
#include <QObject>
#include <QPoint>
#include <QPointer>
#include <QStringList>
#include <QTimer>
#include <QUrl>
#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

namespace tavrel {

class CallMonitor;
class Desktop;
class LoginItem;
class MainPopoverController;
class Notifier;
class PowerEvents;
class RecordingHUD;
class StatusItem;
class UploadAbort;

/// Everything the application delegate needs from the desktop, passed in so that tests can run it
/// with fakes.
struct AppServices {
    std::unique_ptr<Notifier> notifier;
    std::unique_ptr<Desktop> desktop;
    std::unique_ptr<LoginItem> loginItem;
    std::unique_ptr<AlertPresenter> alerts;
    std::unique_ptr<StatusItem> statusItem; ///< none: made at launch from the desktop's tray
    SystemAudioBackends audioBackends;
    /// Wait before each poll of a transcription job.
    std::chrono::milliseconds jobPollIntervalMs{20000};
    /// Delay between launch and the check for unsent recordings.
    std::chrono::milliseconds pendingCheckDelayMs{1500};
    /// Who captures the microphone, for the call monitor. None: the audio server's record streams.
    std::unique_ptr<MicInputQuery> micInputQuery;
    /// The audio server's device lookup by UID and its removal, for the routing device a crash may have
    /// left behind. Empty: there is nothing to look up.
    std::function<std::optional<AudioRouting::Device>(const QString& uid)> deviceWithUID;
    std::function<bool(const AudioRouting::Device& device)> destroyDevice;
    /// Rebuilds the recordings that a crash interrupted; the pending check waits for it. Called once at launch
    /// on the main thread, it decides there what it will look at (a recording may start right after) and does
    /// the work elsewhere. Empty: nothing is rebuilt.
    std::function<QCoro::Task<>()> recoverInterruptedRecordings;
    /// The status item's clock. Empty: the system clock.
    std::function<QDateTime()> now;
    /// Wake-ups from suspend: uploads under way are sent again at once. None: not followed.
    std::unique_ptr<PowerEvents> powerEvents;
    /// Ends the program once the user has agreed. Empty: QCoreApplication::quit.
    std::function<void()> quit;
};

/// The hub of the program: owns every long-lived object, runs the recording session, the uploads and
/// the account link. Every field is touched on the main thread only.
class AppDelegate : public QObject {
    Q_OBJECT
public:
    explicit AppDelegate(AppServices services, QObject* parent = nullptr);
    ~AppDelegate() override;

    // --- start-up (AppDelegate.cpp) ---
    void applicationDidFinishLaunching();
    void togglePopover();
    /// Opens the popover unless it is shown (the desktop's Activate).
    void showPopover();
    bool isPopoverShown() const;
    void notify(const QString& title, const QString& body);
    static QString appVersionString();

    /// When an alert waits for the user, brings it back to the front and returns true: what the user asks
    /// from the tray, the popover or the desktop meanwhile is not done (the alert blocks the program).
    bool raiseAlertIfUp();

    // --- session controller (AppDelegateSession.cpp) ---
    /// Starts a session. While a start runs it does nothing more; while a stop runs the start waits for it.
    void startRecording();
    /// Stops the session. While a stop runs it does nothing more; while a start runs the stop waits for it.
    void stopRecording();
    void togglePause();
    void promptNote();
    /// Adds a note as the note prompt would (the D-Bus "add-note" action).
    void addNote(const QString& text);

    // --- settings (AppDelegateSettings.cpp) ---
    void openSettings();

    // --- account link (AppDelegateLink.cpp) ---
    /// The desktop opened links of our scheme (a launch by link, or Open on the running instance).
    void application(const QList<QUrl>& urls);
    /// The same with the links' text as handed over. Prefer it: a QUrl folds the scheme and host to lower
    /// case and re-encodes stray "%", which the link's rules must see as they came.
    void application(const QStringList& links);

    // --- uploads (AppDelegateUpload.cpp) ---
    QCoro::Task<> uploadFile(QString fileURL, QString title, qint64 clientId, QString synthesisType, QString depth,
                             QString notes);
    QCoro::Task<> pollJobUntilDone(QString jobId, QString title);
    void setBusyIndicator(bool busy, const QString& symbol);
    void showUploadDialog(const QString& fileURL);
    void checkPendingRecordings();
    /// Follows again the jobs a previous run left unfinished (kept on disk by `FollowedJobs`).
    void resumeFollowedJobs();
    /// Quits, after asking when an upload is under way (its recording would stay to be sent later).
    void requestQuit();
    /// Uploads whose body is being sent right now.
    int uploadsInFlight() const { return static_cast<int>(m_uploads.size()); }

    // --- state, read by the D-Bus face and tests ---
    bool isRecording() const { return m_isRecording; }
    bool isPaused() const { return m_isPaused; }
    /// The recorder is starting or stopping: the popover shows it and its round button waits.
    bool isStarting() const { return m_sessionTask == SessionTask::starting; }
    bool isStopping() const { return m_sessionTask == SessionTask::stopping; }
    int activeJobs() const { return m_activeJobs; }
    QString statusTitle() const { return m_statusTitle; }
    AudioRecorder& recorder() { return m_recorder; }
    RecordingHUD& hud() { return *m_hud; }
    CallMonitor* callMonitor() const { return m_callMonitor.get(); }
    MainPopoverController* popoverController() const;
    StatusItem* statusItem() const { return m_services.statusItem.get(); }
    /// One tick of the status item's clock (its timer calls it every second).
    void updateStatusClock();

signals:
    void recordingStateChanged();
    void activeJobsChanged();
    void statusTitleChanged(const QString& title);
    /// A recording has been stopped and the file is final (before the upload dialog opens).
    void recordingFinished(const QString& fileURL);

private:
    void setupCallMonitor();
    void warnIfSystemAudioMissing();
    void startTimer();
    void stopTimer();
    void setLaunchAtLogin(bool enabled);
    void setStatusTitle(const QString& title);
    void refreshStatusIcon();
    void closePopover();
    void removeStaleRoutingDevice();
    QCoro::Task<> recoverThenCheckPending();
    QDateTime now() const;
    QCoro::Task<> runStart();
    QCoro::Task<> runStop();
    void showSessionTask();
    QCoro::Task<> runUploadDialog(QString fileURL, DialogQueue::Place place);
    QCoro::Task<> runPendingCheck();
    QCoro::Task<QString> describeRecording(QString path);
    /// Runs `work` (file writes that wait for the disk) on the file thread; false when the delegate went away.
    QCoro::Task<bool> onFileThread(std::function<void()> work);
    QCoro::Task<> followJob(FollowedJob job);
    QCoro::Task<> showUploadFailure(QString fileURL, QString title, qint64 clientId, QString synthesisType,
                                    QString depth, QString notes, std::exception_ptr failure);
    void onResumedFromSleep();
    void refreshUploadProgress();

    /// An upload whose body is going out, as the tray's tooltip and a wake-up see it.
    struct RunningUpload {
        QString title;
        std::shared_ptr<std::atomic<int>> percent; ///< written by the upload's thread
        std::shared_ptr<UploadAbort> abort;
        bool sendAgain = false; ///< stopped on purpose by a wake-up: sent again, not reported
    };

    AppServices m_services;
    AudioRecorder m_recorder;
    std::unique_ptr<QTimer> m_timer;
    std::optional<QDateTime> m_startTime;
    bool m_isRecording = false;
    bool m_isPaused = false;
    enum class SessionTask { none, starting, stopping };
    SessionTask m_sessionTask = SessionTask::none;
    /// Asked for while the other task ran; done when it ends.
    bool m_stopWhenStarted = false;
    bool m_startWhenStopped = false;
    std::unique_ptr<RecordingHUD> m_hud;
    QPointer<QWidget> m_popover;
    QPointer<MainPopoverController> m_popoverController;
    std::unique_ptr<CallMonitor> m_callMonitor;
    bool m_autoStartedRecording = false;
    int m_activeJobs = 0;
    std::vector<std::shared_ptr<RunningUpload>> m_uploads;
    QTimer m_uploadProgressTimer; ///< refreshes the tooltip's progress while uploads run
    DialogQueue m_dialogs;
    /// Reads recordings' headers for the dialogs' titles, keeps the followed jobs, removes the recordings sent.
    std::unique_ptr<WorkerThread> m_fileWorker;
    QString m_statusTitle;
    QPoint m_lastClickPos;
    qint64 m_popoverClosedAtMs = 0;
};

} // namespace tavrel
