#include "SessionBusFixture.h"

#include "Wait.h"

#include <QDBusArgument>
#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDBusVariant>
#include <memory>

namespace tavrel::test {

namespace {

const QString kMockInterface = QStringLiteral("org.freedesktop.DBus.Mock");
const QString kNotifications = QStringLiteral("org.freedesktop.Notifications");
const QString kFileManager = QStringLiteral("org.freedesktop.FileManager1");

/// A value as a test reads it: containers demarshalled, variants unwrapped.
QVariant plain(const QVariant& value) {
    if (value.canConvert<QDBusVariant>())
        return plain(value.value<QDBusVariant>().variant());
    if (!value.canConvert<QDBusArgument>())
        return value;
    const QDBusArgument argument = value.value<QDBusArgument>();
    if (argument.currentType() == QDBusArgument::MapType) {
        QVariantMap map;
        argument.beginMap();
        while (!argument.atEnd()) {
            QString key;
            QVariant item;
            argument.beginMapEntry();
            argument >> key >> item;
            argument.endMapEntry();
            map.insert(key, plain(item));
        }
        argument.endMap();
        return map;
    }
    if (argument.currentType() == QDBusArgument::ArrayType) {
        QVariantList list;
        argument.beginArray();
        while (!argument.atEnd()) {
            QVariant item;
            argument >> item;
            list << plain(item);
        }
        argument.endArray();
        return list;
    }
    return value;
}

} // namespace

SessionBusFixture::SessionBusFixture(Options options) : m_options(options), m_dir(QStringLiteral("tavrel-bus")) {}

SessionBusFixture::SessionBusFixture() : SessionBusFixture(Options{}) {}

SessionBusFixture::~SessionBusFixture() {
    stop();
}

SessionBusFixture& SessionBusFixture::shared() {
    static std::unique_ptr<SessionBusFixture> instance;
    if (!instance) {
        Options options;
        options.fileManager = true;
        instance = std::make_unique<SessionBusFixture>(options);
        const auto started = instance->start();
        if (!started)
            ADD_FAILURE() << started.message();
    }
    return *instance;
}

::testing::AssertionResult SessionBusFixture::start() {
    if (!m_dir.isValid())
        return ::testing::AssertionFailure() << "cannot create a temporary directory";
    const QString socket = m_dir.filePath(QStringLiteral("bus"));

    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.remove(QStringLiteral("DISPLAY"));
    env.remove(QStringLiteral("DBUS_SESSION_BUS_ADDRESS"));
    ManagedProcess::Options busOptions;
    busOptions.program = QStringLiteral("dbus-daemon");
    busOptions.arguments = {QStringLiteral("--session"), QStringLiteral("--nofork"), QStringLiteral("--nopidfile"),
                            QStringLiteral("--address=unix:path=") + socket, QStringLiteral("--print-address=1")};
    busOptions.environment = env;
    busOptions.logPath = m_dir.filePath(QStringLiteral("dbus-daemon.log"));
    busOptions.captureStdout = true;
    if (!m_daemon.start(busOptions))
        return ::testing::AssertionFailure() << m_daemon.errorString().toStdString();
    // dbus-daemon prints its address once it listens.
    const auto address = m_daemon.readStdoutLine(m_options.startTimeout);
    if (!address || address->trimmed().isEmpty()) {
        const std::string why = m_daemon.describe().toStdString();
        stop();
        return ::testing::AssertionFailure()
               << "dbus-daemon did not come up within " << m_options.startTimeout.count() << " ms: " << why;
    }
    m_address = QString::fromUtf8(address->trimmed());
    if (m_options.exportEnvironment)
        m_exported.set("DBUS_SESSION_BUS_ADDRESS", m_address.toUtf8());

    env.insert(QStringLiteral("DBUS_SESSION_BUS_ADDRESS"), m_address);
    env.insert(QStringLiteral("PYTHONDONTWRITEBYTECODE"), QStringLiteral("1"));
    auto startMock = [&](ManagedProcess& process, const QStringList& arguments, const QString& name,
                         const QString& log) -> ::testing::AssertionResult {
        ManagedProcess::Options options;
        // The system interpreter: it is the one that sees python3-dbusmock.
        options.program = QStringLiteral("/usr/bin/python3");
        options.arguments = QStringList{QStringLiteral("-m"), QStringLiteral("dbusmock")} + arguments;
        options.environment = env;
        options.logPath = m_dir.filePath(log);
        if (!process.start(options))
            return ::testing::AssertionFailure() << process.errorString().toStdString();
        const bool owned = waitUntil(
            [&] {
                QDBusConnection bus = QDBusConnection::connectToBus(m_address, QStringLiteral("bus-fixture"));
                return !process.isRunning() || (bus.interface() && bus.interface()->isServiceRegistered(name));
            },
            m_options.startTimeout, std::chrono::milliseconds(50));
        QDBusConnection::disconnectFromBus(QStringLiteral("bus-fixture"));
        if (owned && process.isRunning())
            return ::testing::AssertionSuccess();
        return ::testing::AssertionFailure()
               << "python3-dbusmock did not take " << name.toStdString() << ": " << process.describe().toStdString();
    };
    if (m_options.notificationServer) {
        if (auto started =
                startMock(m_notificationServer, {QStringLiteral("--template"), QStringLiteral("notification_daemon")},
                          kNotifications, QStringLiteral("notifications.log"));
            !started) {
            stop();
            return started;
        }
    }
    if (m_options.fileManager) {
        const QString path = QStringLiteral("/org/freedesktop/FileManager1");
        if (auto started = startMock(m_fileManager, {kFileManager, path, kFileManager}, kFileManager,
                                     QStringLiteral("file-manager.log"));
            !started) {
            stop();
            return started;
        }
        QDBusConnection bus = QDBusConnection::connectToBus(m_address, QStringLiteral("bus-fixture"));
        QDBusMessage addMethod =
            QDBusMessage::createMethodCall(kFileManager, path, kMockInterface, QStringLiteral("AddMethod"));
        addMethod << kFileManager << QStringLiteral("ShowItems") << QStringLiteral("ass") << QString() << QString();
        const QDBusMessage reply = bus.call(addMethod, QDBus::Block, 5000);
        QDBusConnection::disconnectFromBus(QStringLiteral("bus-fixture"));
        if (reply.type() != QDBusMessage::ReplyMessage) {
            stop();
            return ::testing::AssertionFailure() << "FileManager1 mock: " << reply.errorMessage().toStdString();
        }
    }
    m_running = true;
    return ::testing::AssertionSuccess();
}

void SessionBusFixture::stop() {
    m_notificationServer.stop();
    m_fileManager.stop();
    m_daemon.stop();
    m_exported.restore();
    m_running = false;
}

QProcessEnvironment SessionBusFixture::variables() const {
    QProcessEnvironment vars;
    vars.insert(QStringLiteral("DBUS_SESSION_BUS_ADDRESS"), m_address);
    return vars;
}

QProcessEnvironment SessionBusFixture::environment() const {
    return mergedEnvironment({variables()});
}

QList<std::pair<QString, QVariantList>> SessionBusFixture::mockCalls(const QString& service,
                                                                     const QString& path) const {
    QList<std::pair<QString, QVariantList>> calls;
    const QString connectionName = QStringLiteral("bus-fixture-calls");
    {
        QDBusConnection bus = QDBusConnection::connectToBus(m_address, connectionName);
        const QDBusMessage reply =
            bus.call(QDBusMessage::createMethodCall(service, path, kMockInterface, QStringLiteral("GetCalls")),
                     QDBus::Block, 5000);
        if (reply.type() == QDBusMessage::ReplyMessage) {
            // a(tsav): time, method, arguments
            const QDBusArgument argument = reply.arguments().value(0).value<QDBusArgument>();
            argument.beginArray();
            while (!argument.atEnd()) {
                qulonglong time = 0;
                QString method;
                argument.beginStructure();
                argument >> time >> method;
                QVariantList arguments;
                argument.beginArray();
                while (!argument.atEnd()) {
                    QDBusVariant value;
                    argument >> value;
                    arguments << plain(value.variant());
                }
                argument.endArray();
                argument.endStructure();
                calls.append({method, arguments});
            }
            argument.endArray();
        }
    }
    QDBusConnection::disconnectFromBus(connectionName);
    return calls;
}

QList<RecordedNotification> SessionBusFixture::notifications() const {
    QList<RecordedNotification> result;
    for (const auto& [method, arguments] :
         mockCalls(kNotifications, QStringLiteral("/org/freedesktop/Notifications"))) {
        if (method != QStringLiteral("Notify") || arguments.size() != 8)
            continue;
        RecordedNotification n;
        n.appName = arguments[0].toString();
        n.replacesId = arguments[1].toUInt();
        n.appIcon = arguments[2].toString();
        n.summary = arguments[3].toString();
        n.body = arguments[4].toString();
        n.actions = arguments[5].toStringList();
        n.hints = arguments[6].toMap();
        n.expireTimeout = arguments[7].toInt();
        result << n;
    }
    return result;
}

QList<SessionBusFixture::FileManagerCall> SessionBusFixture::fileManagerCalls() const {
    QList<FileManagerCall> calls;
    for (const auto& [method, arguments] : mockCalls(kFileManager, QStringLiteral("/org/freedesktop/FileManager1")))
        calls.append({method, arguments.value(0).toStringList()});
    return calls;
}

::testing::AssertionResult SessionBusFixture::waitForFileManagerCalls(int count, std::chrono::milliseconds timeout) {
    if (!m_options.fileManager)
        return ::testing::AssertionFailure() << "the fixture runs no file manager (Options::fileManager)";
    if (waitUntil([&] { return fileManagerCalls().size() >= count; }, timeout))
        return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "expected " << count << " file manager call(s) within " << timeout.count()
                                         << " ms, got " << fileManagerCalls().size() << "\n"
                                         << logs().toStdString();
}

QString SessionBusFixture::logs() const {
    return QStringLiteral("--- dbus-daemon ---\n%1\n--- notification server ---\n%2\n--- file manager ---\n%3")
        .arg(fileTail(m_dir.filePath(QStringLiteral("dbus-daemon.log"))),
             fileTail(m_dir.filePath(QStringLiteral("notifications.log"))),
             fileTail(m_dir.filePath(QStringLiteral("file-manager.log"))));
}

} // namespace tavrel::test
