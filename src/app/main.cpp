// Process entry: crash hooks, the tray application, one running instance on the session bus.
#include "AlertPresenterChoice.h"
#include "AppDelegate.h"
#include "CrashHooks.h"
#include "LaunchRequest.h"
#include "RecorderDBusService.h"
#include "audio/files/M4aWriter.h"
#include "audio/pulse/AudioRouting.h"
#include "core/Log.h"
#include "platform/Desktop.h"
#include "platform/LoginItem.h"
#include "platform/Notifier.h"
#include "platform/StatusItem.h"
#include "ui/AppIcon.h"

#include <QApplication>
#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <cstdio>

int main(int argc, char** argv) {
    tavrel::installCrashHooks();

    QApplication app(argc, argv);
    QApplication::setApplicationName(QStringLiteral("TavrelRecorder"));
    QApplication::setApplicationDisplayName(QStringLiteral("TaVREL Recorder"));
    QApplication::setApplicationVersion(tavrel::AppDelegate::appVersionString());
    QApplication::setDesktopFileName(QStringLiteral("fr.tavrel.Recorder"));
    QApplication::setWindowIcon(tavrel::appIcon());
    // A tray program: closing the popover or a dialog must not end it.
    QApplication::setQuitOnLastWindowClosed(false);

    const tavrel::LaunchRequest request = tavrel::LaunchRequest::fromArguments(QApplication::arguments());

    QDBusConnection bus = QDBusConnection::sessionBus();
    tavrel::RecorderDBusService service(bus);
    if (!service.publish()) {
        const QString name = QString::fromLatin1(tavrel::RecorderDBusService::kServiceName);
        if (bus.isConnected() && bus.interface() && bus.interface()->isServiceRegistered(name)) {
            QString error;
            if (tavrel::RecorderDBusService::forward(bus, request, &error))
                return 0;
            std::fprintf(stderr, "TaVREL Recorder est déjà lancé mais ne répond pas : %s\n", qPrintable(error));
            return 1;
        }
        // Without a session bus the program still records; it just cannot be driven from outside.
        tavrel::logLine(QStringLiteral("[DBus] bus de session indisponible : une seule instance non garantie"));
    }

    tavrel::AppServices services;
    services.notifier = tavrel::makeNotifier();
    services.desktop = tavrel::makeDesktop();
    services.loginItem = tavrel::makeLoginItem();
    services.alerts = tavrel::makeAlertPresenter();
    services.audioBackends = tavrel::linuxSystemAudioBackends();
    services.deviceWithUID = [](const QString& uid) { return tavrel::AudioRouting::device(uid); };
    services.destroyDevice = [](const tavrel::AudioRouting::Device& device) {
        return tavrel::AudioRouting::destroy(device);
    };
    services.recoverInterruptedRecording = [](const QString& path) { tavrel::recoverInterruptedRecording(path); };
    tavrel::AppDelegate delegate(std::move(services));
    service.attach(&delegate);
    delegate.applicationDidFinishLaunching();
    if (request.kind != tavrel::LaunchRequest::Kind::activate)
        service.handle(request);
    return QApplication::exec();
}
