#include "platform/Notifier.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QVariantMap>

namespace tavrel {

namespace {

/// org.freedesktop.Notifications on the session bus. Calls are sent without waiting for the answer:
/// a missing notification server must not stall the main thread, and a failure is not reported.
class LinuxNotifier final : public Notifier {
public:
    void notify(const QString& title, const QString& body) override {
        QDBusMessage call = QDBusMessage::createMethodCall(
            QStringLiteral("org.freedesktop.Notifications"), QStringLiteral("/org/freedesktop/Notifications"),
            QStringLiteral("org.freedesktop.Notifications"), QStringLiteral("Notify"));
        const QVariantMap hints{
            {QStringLiteral("sound-name"), QStringLiteral("message-new-instant")},
            {QStringLiteral("desktop-entry"), QStringLiteral("fr.tavrel.Recorder")},
        };
        // replaces_id 0: every notification is a new one, even with the same title and body.
        call << QStringLiteral("TaVREL Recorder") << quint32(0) << QStringLiteral("tavrel-icon") << title << body
             << QStringList() << hints << qint32(-1);
        QDBusConnection::sessionBus().send(call);
    }
};

} // namespace

std::unique_ptr<Notifier> makeNotifier() {
    return std::make_unique<LinuxNotifier>();
}

} // namespace tavrel
