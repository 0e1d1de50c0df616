// The account link through the real program: the desktop's Open on the running instance, and a second
// launch carrying the link, on a private session bus with a fake notification server.
#include "core/SettingsManager.h"

#include "ManagedProcess.h"
#include "ScopedEnvironment.h"
#include "SessionBusFixture.h"
#include "TempDir.h"
#include "Wait.h"

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QFile>

#include <gtest/gtest.h>

namespace tavrel {
namespace {

using namespace std::chrono_literals;
using test::ManagedProcess;

const QString kService = QStringLiteral("fr.tavrel.Recorder");
const QString kLinkedTitle = QStringLiteral("✅ TaVREL Recorder lié");
const QString kLinkedBody = QStringLiteral("Token et serveur configurés automatiquement.");

class AccountLinkEndToEnd : public ::testing::Test {
protected:
    void SetUp() override {
        test::SessionBusFixture::Options options;
        options.exportEnvironment = false;
        m_bus = std::make_unique<test::SessionBusFixture>(options);
        ASSERT_TRUE(m_bus->start());
        m_connection = std::make_unique<QDBusConnection>(
            QDBusConnection::connectToBus(m_bus->address(), QStringLiteral("calls-link-%1").arg(++s_connections)));
        ASSERT_TRUE(m_connection->isConnected());

        // The program's settings go to the test's own config directory; this process reads them there too.
        m_environment = m_bus->environment();
        m_environment.insert(QStringLiteral("HOME"), m_dir.path());
        m_environment.insert(QStringLiteral("XDG_CONFIG_HOME"), m_dir.filePath(QStringLiteral("config"), true));
        m_environment.insert(QStringLiteral("XDG_DATA_HOME"), m_dir.filePath(QStringLiteral("data"), true));
        m_environment.insert(QStringLiteral("XDG_RUNTIME_DIR"), m_dir.filePath(QStringLiteral("run"), true));
        m_environment.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("offscreen"));
        // No audio server: the program must not reach one of the machine's.
        m_environment.insert(QStringLiteral("PULSE_SERVER"), QStringLiteral("unix:") + m_dir.filePath("no-server"));
        m_ownEnvironment.set("XDG_CONFIG_HOME", m_environment.value(QStringLiteral("XDG_CONFIG_HOME")).toUtf8());
    }

    ::testing::AssertionResult launch(ManagedProcess& process, const QStringList& arguments, const QString& name) {
        ManagedProcess::Options options;
        options.program = QStringLiteral(TAVREL_PROGRAM);
        options.arguments = arguments;
        options.environment = m_environment;
        options.logPath = m_dir.filePath(name + QStringLiteral(".log"));
        if (!process.start(options))
            return ::testing::AssertionFailure() << process.errorString().toStdString();
        return ::testing::AssertionSuccess();
    }

    ::testing::AssertionResult startProgram() {
        if (auto started = launch(m_program, {}, QStringLiteral("program")); !started)
            return started;
        const bool up = test::waitUntil(
            [&] { return m_connection->interface()->isServiceRegistered(kService).value() || !m_program.isRunning(); },
            20s);
        if (!up || !m_program.isRunning())
            return ::testing::AssertionFailure()
                   << "the program did not take its bus name: " << m_program.describe().toStdString();
        return ::testing::AssertionSuccess();
    }

    ::testing::AssertionResult open(const QStringList& links) {
        QDBusMessage call =
            QDBusMessage::createMethodCall(kService, QStringLiteral("/fr/tavrel/Recorder"),
                                           QStringLiteral("org.freedesktop.Application"), QStringLiteral("Open"));
        call << links << QVariantMap();
        const QDBusMessage reply = m_connection->call(call, QDBus::Block, 10000);
        if (reply.type() == QDBusMessage::ErrorMessage)
            return ::testing::AssertionFailure() << reply.errorMessage().toStdString();
        return ::testing::AssertionSuccess();
    }

    int linkedNotifications() const {
        int count = 0;
        for (const test::RecordedNotification& n : m_bus->notifications()) {
            if (n.summary == kLinkedTitle) {
                EXPECT_EQ(n.body, kLinkedBody);
                ++count;
            }
        }
        return count;
    }

    // A link that must be ignored leaves no trace; the proof is a valid link sent after it being the only one
    // that notifies (Open calls are handled in order).
    void expectIgnored(const QString& link) {
        SCOPED_TRACE(link.toStdString());
        const int before = linkedNotifications();
        const QString tokenBefore = SettingsManager::shared().token();
        ASSERT_TRUE(open({link}));
        ASSERT_TRUE(open({QStringLiteral("tavrel://auth?token=%1&backend=marker").arg(tokenBefore)}));
        ASSERT_TRUE(test::waitUntil([&] { return linkedNotifications() == before + 1; }, 5s));
        std::this_thread::sleep_for(100ms);
        EXPECT_EQ(linkedNotifications(), before + 1);
    }

    static inline int s_connections = 0;
    test::TempDir m_dir{QStringLiteral("calls-link")};
    std::unique_ptr<test::SessionBusFixture> m_bus;
    std::unique_ptr<QDBusConnection> m_connection;
    QProcessEnvironment m_environment;
    test::ScopedEnvironment m_ownEnvironment;
    ManagedProcess m_program;
};

TEST_F(AccountLinkEndToEnd, openOnTheRunningProgramStoresBothSettingsAndNotifiesOnce) {
    ASSERT_TRUE(startProgram());
    ASSERT_TRUE(open({QStringLiteral("tavrel://auth?token=abc%2B1&backend=https%3A%2F%2Fexample.org%2Fbackend")}));
    ASSERT_TRUE(m_bus->waitForNotifications(1)) << m_program.describe().toStdString();
    std::this_thread::sleep_for(200ms);
    EXPECT_EQ(linkedNotifications(), 1);
    EXPECT_EQ(SettingsManager::shared().token(), QStringLiteral("abc+1"));
    EXPECT_EQ(SettingsManager::shared().backendURL(), QStringLiteral("https://example.org/backend"));
    EXPECT_TRUE(QFile::exists(SettingsManager::filePath()));
}

TEST_F(AccountLinkEndToEnd, secondLaunchWithTheLinkHandsItToTheRunningProgram) {
    ASSERT_TRUE(startProgram());
    ManagedProcess second;
    ASSERT_TRUE(launch(second, {QStringLiteral("tavrel://auth?token=t2&backend=http%3A%2F%2F127.0.0.1%3A9%2Fbackend")},
                       QStringLiteral("second")));
    const std::optional<int> exitCode = second.wait(15s);
    ASSERT_TRUE(exitCode.has_value()) << second.describe().toStdString();
    EXPECT_EQ(*exitCode, 0) << second.describe().toStdString();
    ASSERT_TRUE(test::waitUntil([&] { return linkedNotifications() == 1; }, 5s)) << m_program.describe().toStdString();
    EXPECT_EQ(SettingsManager::shared().token(), QStringLiteral("t2"));
    EXPECT_EQ(SettingsManager::shared().backendURL(), QStringLiteral("http://127.0.0.1:9/backend"));
    EXPECT_TRUE(m_program.isRunning());

    // The hand-over keeps the link's text as it was: a scheme in capitals is still not ours.
    ManagedProcess third;
    ASSERT_TRUE(launch(third, {QStringLiteral("TAVREL://auth?token=t3&backend=b3")}, QStringLiteral("third")));
    ASSERT_EQ(third.wait(15s), std::optional<int>(0)) << third.describe().toStdString();
    expectIgnored(QStringLiteral("tavrel://auth?token")); // flushes the running program's queue
    EXPECT_EQ(linkedNotifications(), 2);
}

TEST_F(AccountLinkEndToEnd, launchByTheLinkStoresItAtStart) {
    ASSERT_TRUE(launch(m_program, {QStringLiteral("tavrel://auth?token=&backend=")}, QStringLiteral("first")));
    ASSERT_TRUE(test::waitUntil([&] { return linkedNotifications() == 1; }, 20s)) << m_program.describe().toStdString();
    // Empty values are stored as empty texts: the backend does not fall back to its default.
    EXPECT_EQ(SettingsManager::shared().token(), QString());
    EXPECT_EQ(SettingsManager::shared().backendURL(), QString());
    EXPECT_NE(SettingsManager::defaultBackendURL(), QString());
}

TEST_F(AccountLinkEndToEnd, malformedOrForeignLinksChangeNothing) {
    ASSERT_TRUE(startProgram());
    for (const QString& link :
         {QStringLiteral("TAVREL://auth?token=x&backend=y"), QStringLiteral("tavrel://AUTH?token=x&backend=y"),
          QStringLiteral("tavrel://login?token=x&backend=y"), QStringLiteral("tavrel://auth?token=x"),
          QStringLiteral("tavrel://auth?token=%ZZ&backend=y")})
        expectIgnored(link);
    EXPECT_EQ(SettingsManager::shared().backendURL(), QStringLiteral("marker"));
    EXPECT_TRUE(m_program.isRunning());
}

} // namespace
} // namespace tavrel
