#include "SessionBusFixture.h"

#include "Wait.h"

#include <QDBusConnection>
#include <QDBusInterface>
#include <QDBusMessage>
#include <QDBusReply>
#include <QSignalSpy>
#include <QVariantMap>
#include <gtest/gtest.h>

namespace tavrel::test {
namespace {

using namespace std::chrono_literals;

// A connection of the test's own to the fixture's bus; the process-wide sessionBus() would stick to
// the first bus it ever saw.
class BusConnection {
public:
    explicit BusConnection(const QString& address, const QString& name)
        : m_name(name), m_connection(QDBusConnection::connectToBus(address, name)) {}
    ~BusConnection() { QDBusConnection::disconnectFromBus(m_name); }
    QDBusConnection& operator*() { return m_connection; }
    QDBusConnection* operator->() { return &m_connection; }

private:
    QString m_name;
    QDBusConnection m_connection;
};

TEST(SessionBusFixtureTest, NotifyReachesTheFakeServerIntact) {
    SessionBusFixture bus;
    ASSERT_TRUE(bus.start());
    EXPECT_EQ(qEnvironmentVariable("DBUS_SESSION_BUS_ADDRESS"), bus.address());
    BusConnection connection(bus.address(), QStringLiteral("notify-test"));
    ASSERT_TRUE(connection->isConnected());

    QDBusInterface server(QStringLiteral("org.freedesktop.Notifications"),
                          QStringLiteral("/org/freedesktop/Notifications"),
                          QStringLiteral("org.freedesktop.Notifications"), *connection);
    const QString summary = QStringLiteral("Enregistrement terminé");
    const QString body = QStringLiteral("Réunion « équipe » — 12 min\nsecond line & <b>markup</b>");
    QVariantMap hints{{QStringLiteral("urgency"), QVariant::fromValue<uchar>(1)},
                      {QStringLiteral("desktop-entry"), QStringLiteral("tavrel-recorder")}};
    QDBusReply<uint> first =
        server.call(QStringLiteral("Notify"), QStringLiteral("TaVREL Recorder"), 0u, QStringLiteral("tavrel"), summary,
                    body, QStringList{QStringLiteral("open"), QStringLiteral("Ouvrir")}, hints, 5000);
    ASSERT_TRUE(first.isValid()) << first.error().message().toStdString();
    QDBusReply<uint> second = server.call(QStringLiteral("Notify"), QStringLiteral("TaVREL Recorder"), 0u, QString(),
                                          QStringLiteral("Deuxième"), QString(), QStringList(), QVariantMap(), -1);
    ASSERT_TRUE(second.isValid());
    EXPECT_GT(second.value(), first.value());

    ASSERT_TRUE(bus.waitForNotifications(2));
    const auto notifications = bus.notifications();
    ASSERT_EQ(notifications.size(), 2);
    const RecordedNotification& n = notifications.front();
    EXPECT_EQ(n.id, first.value());
    EXPECT_EQ(n.appName, QStringLiteral("TaVREL Recorder"));
    EXPECT_EQ(n.summary, summary);
    EXPECT_EQ(n.body, body);
    EXPECT_EQ(n.actions, (QStringList{QStringLiteral("open"), QStringLiteral("Ouvrir")}));
    EXPECT_EQ(n.hints.value(QStringLiteral("urgency")).toInt(), 1);
    EXPECT_EQ(n.hints.value(QStringLiteral("desktop-entry")).toString(), QStringLiteral("tavrel-recorder"));
    EXPECT_EQ(n.expireTimeout, 5000);

    // A click on the action reaches whoever listens for ActionInvoked (D-Bus signals have no
    // function-pointer form: the interface's meta-object is built from introspection).
    QSignalSpy actions(&server, SIGNAL(ActionInvoked(uint, QString)));
    QSignalSpy closed(&server, SIGNAL(NotificationClosed(uint, uint)));
    ASSERT_TRUE(actions.isValid());
    ASSERT_TRUE(bus.invokeAction(first.value(), QStringLiteral("open")));
    ASSERT_TRUE(waitUntil([&] { return actions.size() == 1 && closed.size() == 1; }, 3s));
    EXPECT_EQ(actions.at(0).at(0).toUInt(), first.value());
    EXPECT_EQ(actions.at(0).at(1).toString(), QStringLiteral("open"));
    EXPECT_EQ(closed.at(0).at(1).toUInt(), 2u);

    bus.clearNotifications();
    EXPECT_TRUE(bus.notifications().isEmpty());
    RecordProperty("busStartupMs", static_cast<int>(bus.startupMs()));
}

TEST(SessionBusFixtureTest, FileManagerLogsShowItemsAndCanLeaveTheBus) {
    SessionBusFixture::Options options;
    options.fileManager = true;
    SessionBusFixture bus(options);
    ASSERT_TRUE(bus.start());
    BusConnection connection(bus.address(), QStringLiteral("file-manager-test"));
    const auto showItems = [&](const QStringList& uris) {
        QDBusMessage call = QDBusMessage::createMethodCall(
            QStringLiteral("org.freedesktop.FileManager1"), QStringLiteral("/org/freedesktop/FileManager1"),
            QStringLiteral("org.freedesktop.FileManager1"), QStringLiteral("ShowItems"));
        call << uris << QString();
        return connection->call(call);
    };
    const QStringList uris{QStringLiteral("file:///tmp/R%C3%A9union%201.m4a"), QStringLiteral("file:///tmp/b.m4a")};
    EXPECT_EQ(showItems(uris).type(), QDBusMessage::ReplyMessage);
    ASSERT_TRUE(bus.waitForFileManagerCalls(1));
    EXPECT_EQ(bus.fileManagerCalls().front().method, QStringLiteral("ShowItems"));
    EXPECT_EQ(bus.fileManagerCalls().front().uris, uris);

    // Without a file manager on the bus the caller gets an error at once (its cue to fall back).
    ASSERT_TRUE(bus.setFileManagerPresent(false));
    const QDBusMessage missing = showItems(uris);
    EXPECT_EQ(missing.type(), QDBusMessage::ErrorMessage);
    EXPECT_EQ(missing.errorName(), QStringLiteral("org.freedesktop.DBus.Error.ServiceUnknown"));
    ASSERT_TRUE(bus.setFileManagerPresent(true));
    EXPECT_EQ(showItems(uris).type(), QDBusMessage::ReplyMessage);
    EXPECT_TRUE(bus.waitForFileManagerCalls(2));
}

TEST(SessionBusFixtureTest, SharedBusServesTheWholeBinary) {
    SessionBusFixture& bus = SessionBusFixture::shared();
    ASSERT_TRUE(bus.isRunning());
    EXPECT_EQ(&bus, &SessionBusFixture::shared());
    EXPECT_EQ(qEnvironmentVariable("DBUS_SESSION_BUS_ADDRESS"), bus.address());
    const QDBusMessage reply = QDBusConnection::sessionBus().call(QDBusMessage::createMethodCall(
        QStringLiteral("org.freedesktop.Notifications"), QStringLiteral("/org/freedesktop/Notifications"),
        QStringLiteral("org.freedesktop.Notifications"), QStringLiteral("GetServerInformation")));
    EXPECT_EQ(reply.type(), QDBusMessage::ReplyMessage) << reply.errorMessage().toStdString();
}

TEST(SessionBusFixtureTest, StatusNotifierWatcherAdvertisesAHostAndRecordsItems) {
    SessionBusFixture::Options options;
    options.statusNotifierWatcher = true;
    SessionBusFixture bus(options);
    ASSERT_TRUE(bus.start());
    BusConnection connection(bus.address(), QStringLiteral("sni-test"));

    // Qt's tray reads the property through introspection; a watcher that hides it means "no tray".
    QDBusInterface watcher(QStringLiteral("org.kde.StatusNotifierWatcher"), QStringLiteral("/StatusNotifierWatcher"),
                           QStringLiteral("org.kde.StatusNotifierWatcher"), *connection);
    ASSERT_TRUE(watcher.isValid()) << watcher.lastError().message().toStdString();
    EXPECT_TRUE(watcher.property("IsStatusNotifierHostRegistered").toBool());

    const QString itemName = QStringLiteral("org.kde.StatusNotifierItem-%1-1").arg(QCoreApplication::applicationPid());
    ASSERT_TRUE(connection->registerService(itemName));
    QDBusReply<void> reply = watcher.call(QStringLiteral("RegisterStatusNotifierItem"), itemName);
    ASSERT_TRUE(reply.isValid()) << reply.error().message().toStdString();
    ASSERT_TRUE(bus.waitForStatusItems(1));
    EXPECT_EQ(bus.registeredStatusItems(), QStringList{itemName + QStringLiteral("/StatusNotifierItem")});
    EXPECT_EQ(watcher.property("RegisteredStatusNotifierItems").toStringList(), bus.registeredStatusItems());

    // An item whose owner leaves the bus is dropped, as a real watcher does.
    connection->unregisterService(itemName);
    EXPECT_TRUE(waitUntil([&] { return bus.registeredStatusItems().isEmpty(); }, 3s));
}

} // namespace
} // namespace tavrel::test
