#include "AppDelegate.h"

#include "core/CallMonitor.h"
#include "core/Log.h"
#include "platform/Desktop.h"
#include "platform/LoginItem.h"
#include "platform/Notifier.h"
#include "platform/PowerEvents.h"
#include "platform/StatusItem.h"
#include "platform/WindowPinning.h"
#include "ui/AppIcon.h"
#include "ui/CircleButton.h"
#include "ui/HUDView.h"
#include "ui/MainPopoverController.h"
#include "ui/RecordingHUD.h"
#include "ui/VUMeterView.h"

#include <QApplication>
#include <QCursor>
#include <QDateTime>
#include <QDir>
#include <QGuiApplication>
#include <QScreen>

namespace tavrel {

namespace {

const QString kStaleRoutingDeviceUID = QStringLiteral("fr.tavrel.recorder.autoroute");
constexpr QSize kPopoverSize(300, 148);
constexpr int kPopoverGapPx = 4;
// A click on the tray item while the popup is open first closes the popup (a click outside it), then
// reaches the item: within this delay the click only closes.
constexpr qint64 kReopenGuardMs = 300;
constexpr std::chrono::milliseconds kUploadProgressIntervalMs{500};

/// Where the popup goes: centred on the click, under it when the tray is at the top of the screen and
/// above it when the tray is at the bottom, kept inside the screen.
QRect popoverRect(QPoint click) {
    const QScreen* screen = QGuiApplication::screenAt(click);
    if (!screen)
        screen = QGuiApplication::primaryScreen();
    const QRect area = screen ? screen->availableGeometry() : QRect(QPoint(0, 0), kPopoverSize * 4);
    QRect rect(QPoint(0, 0), kPopoverSize);
    const bool below = click.y() < area.center().y();
    rect.moveTopLeft(QPoint(click.x() - kPopoverSize.width() / 2,
                            below ? click.y() + kPopoverGapPx : click.y() - kPopoverGapPx - kPopoverSize.height()));
    rect.moveLeft(qBound(area.left(), rect.left(), qMax(area.left(), area.right() - rect.width() + 1)));
    rect.moveTop(qBound(area.top(), rect.top(), qMax(area.top(), area.bottom() - rect.height() + 1)));
    return rect;
}

} // namespace

AppDelegate::AppDelegate(AppServices services, QObject* parent)
    : QObject(parent), m_services(std::move(services)), m_recorder(m_services.audioBackends),
      m_hud(std::make_unique<RecordingHUD>()), m_fileWorker(std::make_unique<WorkerThread>("tavrel-files")) {
    if (m_services.alerts) {
        // An alert blocks the program: a popover left open under it must not act meanwhile.
        const QPointer<AppDelegate> weak(this);
        m_services.alerts->onAlertUp = [weak] {
            if (weak)
                weak->closePopover();
        };
    }
    m_uploadProgressTimer.setInterval(kUploadProgressIntervalMs);
    connect(&m_uploadProgressTimer, &QTimer::timeout, this, &AppDelegate::refreshUploadProgress);
    if (m_services.powerEvents)
        connect(m_services.powerEvents.get(), &PowerEvents::resumed, this, &AppDelegate::onResumedFromSleep);
}

AppDelegate::~AppDelegate() {
    if (m_popover)
        delete m_popover.data();
}

void AppDelegate::applicationDidFinishLaunching() {
    removeStaleRoutingDevice();
    // Desktop notifications need no authorization: there is nothing to ask for here.

    if (!m_services.statusItem)
        m_services.statusItem = makeStatusItem(appIcon());
    connect(m_services.statusItem.get(), &StatusItem::clicked, this, [this](QPoint globalPos) {
        m_lastClickPos = globalPos;
        togglePopover();
    });
    refreshStatusIcon();

    const QPointer<AppDelegate> weak(this);
    m_hud->onStop = [weak] {
        if (weak)
            weak->stopRecording();
    };
    m_hud->onNote = [weak] {
        if (weak)
            weak->promptNote();
    };
    m_hud->levelProvider = [weak] { return weak ? weak->m_recorder.currentMicLevel() : 0.0F; };
    m_hud->systemLevelProvider = [weak] { return weak ? weak->m_recorder.currentSystemLevel() : 0.0F; };
    m_hud->pinToAllWorkspaces = [](QWindow& window) { showOnAllWorkspaces(window); };
    m_hud->compositingAvailable = [] { return isCompositingAvailable(); };

    // Rebuild what a crash interrupted before the pending check offers it for upload.
    recoverThenCheckPending();

    setupCallMonitor();
    resumeFollowedJobs();
}

void AppDelegate::removeStaleRoutingDevice() {
    if (!m_services.deviceWithUID)
        return;
    const std::optional<AudioRouting::Device> device = m_services.deviceWithUID(kStaleRoutingDeviceUID);
    if (device && m_services.destroyDevice)
        m_services.destroyDevice(*device);
}

QCoro::Task<> AppDelegate::recoverThenCheckPending() {
    const QPointer<AppDelegate> self(this);
    const auto launchedAt = std::chrono::steady_clock::now();
    if (m_services.recoverInterruptedRecordings) {
        try {
            auto recovering = m_services.recoverInterruptedRecordings();
            co_await recovering;
        } catch (const std::exception& error) {
            logLine(QStringLiteral("[AudioRecorder] Reprise des enregistrements interrompue : ") +
                    QString::fromUtf8(error.what()));
        }
    }
    if (!self)
        co_return;
    const auto elapsed =
        std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - launchedAt);
    QTimer::singleShot(std::max(m_services.pendingCheckDelayMs - elapsed, std::chrono::milliseconds(0)), this, [self] {
        if (self)
            self->checkPendingRecordings();
    });
}

void AppDelegate::closePopover() {
    if (!m_popover)
        return;
    // Closed on purpose: not a click outside that the reopen guard must absorb.
    disconnect(m_popover, &QObject::destroyed, this, nullptr);
    m_popover->close();
}

MainPopoverController* AppDelegate::popoverController() const {
    return m_popoverController.data();
}

bool AppDelegate::isPopoverShown() const {
    return m_popover && m_popover->isVisible();
}

bool AppDelegate::raiseAlertIfUp() {
    if (m_services.alerts && m_services.alerts->isAlertUp()) {
        m_services.alerts->raiseAlert();
        return true;
    }
    // A modal dialog that did not come through the presenter blocks the program just as well.
    if (QWidget* modal = QApplication::activeModalWidget()) {
        modal->raise();
        modal->activateWindow();
        return true;
    }
    return false;
}

void AppDelegate::showPopover() {
    if (raiseAlertIfUp() || isPopoverShown())
        return;
    m_lastClickPos = QCursor::pos();
    togglePopover();
}

void AppDelegate::togglePopover() {
    if (isPopoverShown()) {
        closePopover();
        return;
    }
    if (raiseAlertIfUp())
        return;
    const qint64 nowMs = QDateTime::currentMSecsSinceEpoch();
    if (m_popoverClosedAtMs != 0 && nowMs - m_popoverClosedAtMs < kReopenGuardMs) {
        m_popoverClosedAtMs = 0;
        return;
    }

    // A frameless popup closes by itself when the user clicks elsewhere; deleting it on close drops the
    // controller with it, as a new one is made at every opening.
    auto* controller = new MainPopoverController(appVersionString());
    controller->setWindowFlags(Qt::Popup | Qt::FramelessWindowHint);
    controller->setAttribute(Qt::WA_DeleteOnClose);
    controller->setFixedSize(kPopoverSize);
    controller->setIsRecording(m_isRecording);
    controller->setIsPaused(m_isPaused);
    QWidget* popover = controller;

    const QPointer<AppDelegate> weak(this);
    controller->onStartStop = [weak] {
        if (!weak || weak->raiseAlertIfUp() || weak->m_sessionTask != SessionTask::none)
            return;
        weak->closePopover();
        if (!weak->m_isRecording)
            weak->startRecording();
        else
            weak->stopRecording();
    };
    controller->onSettings = [weak] {
        if (!weak || weak->raiseAlertIfUp())
            return;
        weak->closePopover();
        weak->openSettings();
    };
    controller->onPause = [weak] {
        if (weak && !weak->raiseAlertIfUp())
            weak->togglePause();
    };
    controller->onQuit = [weak] {
        // Under an alert the alert comes first; otherwise quitting asks while an upload runs.
        if (!weak || weak->raiseAlertIfUp())
            return;
        weak->closePopover();
        weak->requestQuit();
    };
    controller->openURL = [weak](const QUrl& url) {
        if (weak && weak->m_services.desktop)
            weak->m_services.desktop->openUrl(url);
    };
    connect(popover, &QObject::destroyed, this, [weak] {
        if (weak)
            weak->m_popoverClosedAtMs = QDateTime::currentMSecsSinceEpoch();
    });

    if (m_popover)
        m_popover->deleteLater();
    m_popover = popover;
    m_popoverController = controller;
    m_popoverClosedAtMs = 0;
    showSessionTask();

    popover->setGeometry(popoverRect(m_lastClickPos.isNull() ? QCursor::pos() : m_lastClickPos));
    popover->show();
    popover->raise();
    popover->activateWindow();
}

void AppDelegate::notify(const QString& title, const QString& body) {
    if (m_services.notifier)
        m_services.notifier->notify(title, body);
}

QString AppDelegate::appVersionString() {
    const QString version = QStringLiteral(TAVREL_VERSION);
    return version.isEmpty() ? QStringLiteral("?") : version;
}

void AppDelegate::setStatusTitle(const QString& title) {
    if (m_services.statusItem)
        m_services.statusItem->setTitle(title);
    refreshStatusIcon();
    if (title == m_statusTitle)
        return;
    m_statusTitle = title;
    emit statusTitleChanged(title);
}

void AppDelegate::refreshStatusIcon() {
    if (!m_services.statusItem)
        return;
    if (m_isRecording)
        m_services.statusItem->setIcon(StatusIcon::recording);
    else if (m_activeJobs > 0 || m_sessionTask != SessionTask::none)
        m_services.statusItem->setIcon(StatusIcon::busy);
    else
        m_services.statusItem->setIcon(StatusIcon::idle);
}

QDateTime AppDelegate::now() const {
    return m_services.now ? m_services.now() : QDateTime::currentDateTime();
}

} // namespace tavrel
