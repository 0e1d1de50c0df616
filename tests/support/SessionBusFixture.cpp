#include "SessionBusFixture.h"

#include "Wait.h"

#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <memory>

namespace tavrel::test {

namespace {

QList<QJsonObject> readJsonLines(const QString& path) {
    QList<QJsonObject> records;
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return records;
    while (!file.atEnd()) {
        const QByteArray line = file.readLine().trimmed();
        if (line.isEmpty())
            continue;
        const QJsonDocument doc = QJsonDocument::fromJson(line);
        if (doc.isObject())
            records << doc.object();
    }
    return records;
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
        options.statusNotifierWatcher = true;
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

    if (m_options.notificationServer || m_options.statusNotifierWatcher || m_options.fileManager) {
        env.insert(QStringLiteral("DBUS_SESSION_BUS_ADDRESS"), m_address);
        env.insert(QStringLiteral("PYTHONDONTWRITEBYTECODE"), QStringLiteral("1"));
        ManagedProcess::Options services;
        // The system interpreter: it is the one that sees python3-dbus.
        services.program = QStringLiteral("/usr/bin/python3");
        services.arguments = {QStringLiteral(TAVREL_TEST_SUPPORT_DIR "/fake_desktop_services.py"),
                              QStringLiteral("--notifications-log"),
                              m_dir.filePath(QStringLiteral("notifications.jsonl"))};
        if (m_options.statusNotifierWatcher)
            services.arguments << QStringLiteral("--watcher-log") << m_dir.filePath(QStringLiteral("watcher.jsonl"));
        if (m_options.fileManager)
            services.arguments << QStringLiteral("--file-manager-log")
                               << m_dir.filePath(QStringLiteral("file-manager.jsonl"));
        services.environment = env;
        services.logPath = m_dir.filePath(QStringLiteral("services.log"));
        services.captureStdout = true;
        if (!m_services.start(services)) {
            stop();
            return ::testing::AssertionFailure() << m_services.errorString().toStdString();
        }
        const auto ready = m_services.readStdoutLine(m_options.startTimeout);
        if (!ready || ready->trimmed() != "ready") {
            const std::string why = m_services.describe().toStdString();
            stop();
            return ::testing::AssertionFailure() << "fake desktop services did not come up within "
                                                 << m_options.startTimeout.count() << " ms: " << why;
        }
    }
    m_running = true;
    return ::testing::AssertionSuccess();
}

void SessionBusFixture::stop() {
    m_services.stop();
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

QList<RecordedNotification> SessionBusFixture::notifications() const {
    QList<RecordedNotification> result;
    const QList<QJsonObject> records = readJsonLines(m_dir.filePath(QStringLiteral("notifications.jsonl")));
    for (qsizetype i = m_notificationsSkipped; i < records.size(); ++i) {
        const QJsonObject& r = records[i];
        RecordedNotification n;
        n.id = static_cast<uint>(r.value(QStringLiteral("id")).toInteger());
        n.appName = r.value(QStringLiteral("app_name")).toString();
        n.replacesId = static_cast<uint>(r.value(QStringLiteral("replaces_id")).toInteger());
        n.appIcon = r.value(QStringLiteral("app_icon")).toString();
        n.summary = r.value(QStringLiteral("summary")).toString();
        n.body = r.value(QStringLiteral("body")).toString();
        for (const auto& action : r.value(QStringLiteral("actions")).toArray())
            n.actions << action.toString();
        n.hints = r.value(QStringLiteral("hints")).toObject();
        n.expireTimeout = r.value(QStringLiteral("expire_timeout")).toInt();
        result << n;
    }
    return result;
}

void SessionBusFixture::clearNotifications() {
    m_notificationsSkipped += static_cast<int>(notifications().size());
}

::testing::AssertionResult SessionBusFixture::waitForNotifications(int count, std::chrono::milliseconds timeout) {
    if (waitUntil([&] { return notifications().size() >= count; }, timeout))
        return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "expected " << count << " notification(s) within " << timeout.count()
                                         << " ms, got " << notifications().size() << "\n"
                                         << logs().toStdString();
}

QStringList SessionBusFixture::registeredStatusItems() const {
    QStringList items;
    for (const QJsonObject& record : readJsonLines(m_dir.filePath(QStringLiteral("watcher.jsonl")))) {
        const QString item = record.value(QStringLiteral("item")).toString();
        if (record.value(QStringLiteral("event")).toString() == QStringLiteral("registered")) {
            if (!items.contains(item))
                items << item;
        } else {
            items.removeAll(item);
        }
    }
    return items;
}

::testing::AssertionResult SessionBusFixture::waitForStatusItems(int count, std::chrono::milliseconds timeout) {
    if (!m_options.statusNotifierWatcher)
        return ::testing::AssertionFailure()
               << "the fixture runs no StatusNotifierWatcher (Options::statusNotifierWatcher)";
    if (waitUntil([&] { return registeredStatusItems().size() >= count; }, timeout))
        return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "expected " << count << " status item(s) within " << timeout.count()
                                         << " ms, got " << registeredStatusItems().size() << "\n"
                                         << logs().toStdString();
}

QList<SessionBusFixture::FileManagerCall> SessionBusFixture::fileManagerCalls() const {
    QList<FileManagerCall> calls;
    for (const QJsonObject& record : readJsonLines(m_dir.filePath(QStringLiteral("file-manager.jsonl")))) {
        FileManagerCall call;
        call.method = record.value(QStringLiteral("method")).toString();
        for (const auto& uri : record.value(QStringLiteral("uris")).toArray())
            call.uris << uri.toString();
        calls << call;
    }
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
    return QStringLiteral("--- dbus-daemon ---\n%1\n--- fake desktop services ---\n%2")
        .arg(fileTail(m_dir.filePath(QStringLiteral("dbus-daemon.log"))),
             fileTail(m_dir.filePath(QStringLiteral("services.log"))));
}

} // namespace tavrel::test
