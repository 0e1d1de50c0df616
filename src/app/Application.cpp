#include "Application.h"

#include "AppDelegate.h"
#include "CrashHooks.h"
#include "DisplayChoice.h"
#include "LaunchRequest.h"
#include "QuitSignals.h"
#include "RecorderDBusService.h"
#include "audio/files/CaptureRecovery.h"
#include "audio/pulse/AudioRouting.h"
#include "core/Log.h"
#include "core/RecordingFiles.h"
#include "platform/Desktop.h"
#include "platform/LoginItem.h"
#include "platform/Notifier.h"
#include "platform/PowerEvents.h"
#include "platform/StatusItem.h"
#include "ui/AppIcon.h"

#include <QApplication>
#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <cstdio>
#include <vector>

namespace tavrel {

namespace {

/// Decides what to rebuild before it first waits (a recording may start right after), then rebuilds it on a
/// thread of its own.
QCoro::Task<> recoverAtLaunch(std::shared_ptr<QLockFile> lock) {
    auto recovering = recoverRecordingsInBackground(planRecovery(*lock));
    co_await recovering;
}

} // namespace

int runApplication(int argc, char** argv, const AlertPresenterFactory& makeAlerts,
                   const std::function<void(AppServices&)>& adjustServices) {
    installCrashHooks();

    // The window system is chosen on the command line Qt reads, not through QT_QPA_PLATFORM: programs we
    // open (browser, file manager) must not inherit our choice.
    QStringList arguments;
    for (int index = 0; index < argc; ++index)
        arguments << QString::fromLocal8Bit(argv[index]);
    const DisplayChoice display = DisplayChoice::forSession(QProcessEnvironment::systemEnvironment(), arguments);
    QByteArray platformOption("-platform");
    QByteArray platformPlugins = display.platformPlugins.toLatin1();
    std::vector<char*> qtArguments(argv, argv + argc);
    if (!platformPlugins.isEmpty())
        qtArguments.insert(qtArguments.begin() + (argc > 0 ? 1 : 0), {platformOption.data(), platformPlugins.data()});
    qtArguments.push_back(nullptr);
    int qtArgumentCount = static_cast<int>(qtArguments.size()) - 1;

    QApplication app(qtArgumentCount, qtArguments.data());
    if (display.waylandOnly || (!platformPlugins.isEmpty() && QGuiApplication::platformName() != QLatin1String("xcb")))
        logLine(DisplayChoice::waylandOnlyWarning());
    QApplication::setApplicationName(QStringLiteral("TavrelRecorder"));
    QApplication::setApplicationDisplayName(QStringLiteral("TaVREL Recorder"));
    QApplication::setApplicationVersion(AppDelegate::appVersionString());
    QApplication::setDesktopFileName(QStringLiteral("fr.tavrel.Recorder"));
    QApplication::setWindowIcon(appIcon());
    // A tray program: closing the popover or a dialog must not end it.
    QApplication::setQuitOnLastWindowClosed(false);

    const LaunchRequest request = LaunchRequest::fromArguments(QApplication::arguments());

    QDBusConnection bus = QDBusConnection::sessionBus();
    RecorderDBusService service(bus);
    if (!service.publish()) {
        const QString name = QString::fromLatin1(RecorderDBusService::kServiceName);
        if (bus.isConnected() && bus.interface() && bus.interface()->isServiceRegistered(name)) {
            QString error;
            if (RecorderDBusService::forward(bus, request, &error))
                return 0;
            std::fprintf(stderr, "TaVREL Recorder est déjà lancé mais ne répond pas : %s\n", qPrintable(error));
            return 1;
        }
        // Without a session bus the program still records; it just cannot be driven from outside.
        logLine(QStringLiteral("[DBus] bus de session indisponible : une seule instance non garantie"));
    }

    AppServices services;
    services.notifier = makeNotifier();
    services.desktop = makeDesktop();
    services.loginItem = makeLoginItem();
    services.alerts = makeAlerts();
    services.powerEvents = makePowerEvents();
    services.audioBackends = linuxSystemAudioBackends();
    services.deviceWithUID = [](const QString& uid) { return AudioRouting::device(uid); };
    services.destroyDevice = [](const AudioRouting::Device& device) { return AudioRouting::destroy(device); };
    // Held while the program runs: a second instance (no session bus to keep it out) must not take this one's
    // recordings for interrupted ones.
    auto captureLock = std::make_shared<QLockFile>(RecordingFiles::captureLockFile());
    services.recoverInterruptedRecordings = [captureLock] { return recoverAtLaunch(captureLock); };
    if (adjustServices)
        adjustServices(services);
    AppDelegate delegate(std::move(services));
    service.attach(&delegate);
    const QuitSignals quitSignals;
    delegate.applicationDidFinishLaunching();
    if (request.kind != LaunchRequest::Kind::activate)
        service.handle(request);
    return QApplication::exec();
}

} // namespace tavrel
