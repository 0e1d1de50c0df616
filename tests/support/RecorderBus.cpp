#include "RecorderBus.h"

#include <QDBusMessage>
#include <QDBusVariant>

namespace tavrel::test {

namespace {
const QString kService = QStringLiteral("fr.tavrel.Recorder");
const QString kPath = QStringLiteral("/fr/tavrel/Recorder");
} // namespace

QVariant recorderProperty(QDBusConnection bus, const QString& name) {
    QDBusMessage get = QDBusMessage::createMethodCall(
        kService, kPath, QStringLiteral("org.freedesktop.DBus.Properties"), QStringLiteral("Get"));
    get << QStringLiteral("fr.tavrel.Recorder") << name;
    const QDBusMessage reply = bus.call(get, QDBus::Block, 2000);
    if (reply.type() != QDBusMessage::ReplyMessage)
        return {};
    return reply.arguments().value(0).value<QDBusVariant>().variant();
}

::testing::AssertionResult recorderAction(QDBusConnection bus, const QString& name, const QVariantList& parameter) {
    QDBusMessage call = QDBusMessage::createMethodCall(kService, kPath, QStringLiteral("org.freedesktop.Application"),
                                                       QStringLiteral("ActivateAction"));
    QVariantList wrapped;
    for (const QVariant& value : parameter)
        wrapped << QVariant::fromValue(QDBusVariant(value));
    call << name << QVariant::fromValue(wrapped) << QVariantMap();
    const QDBusMessage reply = bus.call(call, QDBus::Block, 5000);
    if (reply.type() != QDBusMessage::ReplyMessage)
        return ::testing::AssertionFailure() << name.toStdString() << ": " << reply.errorMessage().toStdString();
    return ::testing::AssertionSuccess();
}

} // namespace tavrel::test
