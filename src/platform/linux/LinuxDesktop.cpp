#include "core/Log.h"
#include "platform/Desktop.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QDesktopServices>
#include <QFileInfo>
#include <QProcess>
#include <QStandardPaths>

namespace tavrel {

namespace {

struct SettingsCommand {
    QString desktop; ///< matched against XDG_CURRENT_DESKTOP; empty: any desktop
    QString program;
    QStringList arguments;
};

// The sound settings of the common desktops first, then the stand-alone mixers.
const QList<SettingsCommand>& soundSettingsCommands() {
    static const QList<SettingsCommand> commands{
        {QStringLiteral("KDE"), QStringLiteral("systemsettings"), {QStringLiteral("kcm_pulseaudio")}},
        {QStringLiteral("GNOME"), QStringLiteral("gnome-control-center"), {QStringLiteral("sound")}},
        {QStringLiteral("XFCE"), QStringLiteral("pavucontrol"), {}},
        {QString(), QStringLiteral("gnome-control-center"), {QStringLiteral("sound")}},
        {QString(), QStringLiteral("systemsettings"), {QStringLiteral("kcm_pulseaudio")}},
        {QString(), QStringLiteral("pavucontrol"), {}},
        {QString(), QStringLiteral("pavucontrol-qt"), {}},
    };
    return commands;
}

class LinuxDesktop final : public Desktop {
public:
    bool openUrl(const QUrl& url) override { return QDesktopServices::openUrl(url); }

    void revealFiles(const QStringList& paths) override {
        if (paths.isEmpty())
            return;
        QStringList uris;
        for (const QString& path : paths)
            uris << QString::fromLatin1(QUrl::fromLocalFile(path).toEncoded()); // file managers want %-escapes
        QDBusMessage call = QDBusMessage::createMethodCall(
            QStringLiteral("org.freedesktop.FileManager1"), QStringLiteral("/org/freedesktop/FileManager1"),
            QStringLiteral("org.freedesktop.FileManager1"), QStringLiteral("ShowItems"));
        call << uris << QString();
        const QString folder = QFileInfo(paths.first()).absolutePath();
        auto* watcher = new QDBusPendingCallWatcher(QDBusConnection::sessionBus().asyncCall(call));
        QObject::connect(watcher, &QDBusPendingCallWatcher::finished, [folder](QDBusPendingCallWatcher* self) {
            if (QDBusPendingReply<>(*self).isError())
                QDesktopServices::openUrl(QUrl::fromLocalFile(folder));
            self->deleteLater();
        });
    }

    void openSoundSettings() override {
        const QString current = qEnvironmentVariable("XDG_CURRENT_DESKTOP");
        for (const SettingsCommand& command : soundSettingsCommands()) {
            if (!command.desktop.isEmpty() && !current.contains(command.desktop, Qt::CaseInsensitive))
                continue;
            if (QStandardPaths::findExecutable(command.program).isEmpty())
                continue;
            if (QProcess::startDetached(command.program, command.arguments))
                return;
        }
        logLine(QStringLiteral("[Desktop] aucun réglage du son trouvé"));
    }
};

} // namespace

std::unique_ptr<Desktop> makeDesktop() {
    return std::make_unique<LinuxDesktop>();
}

} // namespace tavrel
