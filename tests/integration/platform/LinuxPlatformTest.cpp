// The Linux desktop pieces on a private session bus: Debian's D-Bus mock of a file manager, and xfce4-panel's
// status tray as the tray host (on a private Xvfb). Notifications are checked on the real program, in
// UploadEndToEndTest.
#include "TestSupport.h"
#include "platform/Desktop.h"
#include "platform/StatusItem.h"
#include "platform/linux/StatusNotifierItemAdaptor.h"

#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusMetaType>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QDBusVariant>
#include <QSignalSpy>
#include <gtest/gtest.h>

namespace tavrel {
namespace {

using namespace std::chrono_literals;

class LinuxPlatformTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() { test::SessionBusFixture::shared(); }

    void SetUp() override { ASSERT_TRUE(bus().isRunning()); }

    static test::SessionBusFixture& bus() { return test::SessionBusFixture::shared(); }

    /// A second connection, as a tray host or a panel would be: answers come from our event loop, so
    /// the call is asynchronous and waited for with events running.
    static QDBusMessage callFromOutside(const QDBusMessage& call) {
        QDBusConnection probe = QDBusConnection::connectToBus(bus().address(), QStringLiteral("outside"));
        QDBusPendingCall pending = probe.asyncCall(call);
        test::waitUntil([&] { return pending.isFinished(); }, 5s);
        return pending.reply();
    }

    static QVariant property(const QString& service, const QString& name) {
        QDBusMessage get =
            QDBusMessage::createMethodCall(service, QStringLiteral("/StatusNotifierItem"),
                                           QStringLiteral("org.freedesktop.DBus.Properties"), QStringLiteral("Get"));
        get << QStringLiteral("org.kde.StatusNotifierItem") << name;
        const QDBusMessage reply = callFromOutside(get);
        EXPECT_EQ(reply.type(), QDBusMessage::ReplyMessage) << reply.errorMessage().toStdString();
        return reply.arguments().value(0).value<QDBusVariant>().variant();
    }
};

// One file-manager window with every file selected, as escaped file URIs that lead back to the paths.
TEST_F(LinuxPlatformTest, RevealAsksTheFileManagerToShowTheFiles) {
    const QStringList paths{QStringLiteral("/tmp/Réunion 1.m4a"), QStringLiteral("/tmp/b.notes.txt")};
    const int before = static_cast<int>(bus().fileManagerCalls().size());
    makeDesktop()->revealFiles(paths);
    ASSERT_TRUE(bus().waitForFileManagerCalls(before + 1));
    const auto call = bus().fileManagerCalls().back();
    EXPECT_EQ(call.method, QStringLiteral("ShowItems"));
    QStringList shown;
    for (const QString& uri : call.uris)
        shown << QUrl(uri).toLocalFile();
    EXPECT_EQ(shown, paths) << call.uris.join(u' ').toStdString();
    EXPECT_EQ(call.uris.front(), QStringLiteral("file:///tmp/R%C3%A9union%201.m4a"));
}

} // namespace

/// Collects the label signals as a tray host sees them.
class LabelReceiver : public QObject {
    Q_OBJECT
public:
    QStringList labels;
public slots:
    void onNewLabel(const QString& label, const QString&) { labels << label; }
};

namespace {

class StatusItemTest : public LinuxPlatformTest {
protected:
    static void SetUpTestSuite() {
        LinuxPlatformTest::SetUpTestSuite();
        test::XvfbFixture::Options xOptions;
        xOptions.exportEnvironment = false;
        s_xvfb = new test::XvfbFixture(xOptions);
        s_tray = new test::TrayHost();
        if (const auto started = s_xvfb->start(); !started)
            ADD_FAILURE() << started.message();
        else if (const auto host = s_tray->start(test::mergedEnvironment({bus().variables(), s_xvfb->variables()}));
                 !host)
            ADD_FAILURE() << host.message();
    }
    static void TearDownTestSuite() {
        delete s_tray;
        delete s_xvfb;
    }

    /// Our item in the tray host's list (the host may record it with its object path).
    static bool hostLists(const QString& service) {
        for (const QString& item : s_tray->registeredItems()) {
            if (item.startsWith(service))
                return true;
        }
        return false;
    }

    void SetUp() override {
        LinuxPlatformTest::SetUp();
        qDBusRegisterMetaType<SniPixmap>();
        qDBusRegisterMetaType<SniPixmapList>();
        qDBusRegisterMetaType<SniToolTip>();
        QImage image(64, 64, QImage::Format_ARGB32);
        image.fill(QColor(20, 90, 200));
        m_item = makeStatusItem(QIcon(QPixmap::fromImage(image)));
        m_service = QStringLiteral("org.kde.StatusNotifierItem-%1-1").arg(QCoreApplication::applicationPid());
        ASSERT_TRUE(test::waitUntil([&] { return hostLists(m_service); }, 10s)) << s_tray->logs().toStdString();
    }

    void TearDown() override { m_item.reset(); }

    SniPixmapList pixmaps() {
        SniPixmapList list;
        property(m_service, QStringLiteral("IconPixmap")).value<QDBusArgument>() >> list;
        return list;
    }

    static inline test::XvfbFixture* s_xvfb = nullptr;
    static inline test::TrayHost* s_tray = nullptr;
    std::unique_ptr<StatusItem> m_item;
    QString m_service;
};

// Registered with the tray host, the item shows its title as its label and in its tooltip (hosts learn of it
// from the signal, without polling), an upload's progress under the title in the tooltip only, an icon for
// each state, reports where the host was clicked, and leaves the host when destroyed.
TEST_F(StatusItemTest, ShowsTitleIconAndClicksToTheTrayHostUntilDestroyed) {
    EXPECT_TRUE(test::waitUntil([&] { return m_item->isShown(); }, 2s));
    EXPECT_EQ(property(m_service, QStringLiteral("Status")).toString(), QStringLiteral("Active"));

    QDBusConnection probe = QDBusConnection::connectToBus(bus().address(), QStringLiteral("outside"));
    LabelReceiver receiver;
    ASSERT_TRUE(probe.connect(m_service, QStringLiteral("/StatusNotifierItem"),
                              QStringLiteral("org.kde.StatusNotifierItem"), QStringLiteral("XAyatanaNewLabel"),
                              &receiver, SLOT(onNewLabel(QString, QString))));
    const auto toolTip = [&] {
        SniToolTip read;
        property(m_service, QStringLiteral("ToolTip")).value<QDBusArgument>() >> read;
        return read;
    };
    QStringList expected;
    for (const QString& title : {QStringLiteral("🔴0:59"), QStringLiteral("⏳"), QStringLiteral("⬆︎"), QString()}) {
        m_item->setTitle(title);
        EXPECT_EQ(property(m_service, QStringLiteral("XAyatanaLabel")).toString(), title);
        EXPECT_EQ(toolTip().title, QStringLiteral("TaVREL Recorder"));
        EXPECT_EQ(toolTip().description, title);
        expected << title;
    }
    EXPECT_TRUE(test::waitUntil([&] { return receiver.labels.size() >= expected.size(); }, 2s));
    EXPECT_EQ(receiver.labels, expected);
    m_item->setTitle(QStringLiteral("⬆︎"));
    m_item->setToolTipDetail(QStringLiteral("Envoi de « Réunion » : 42 %"));
    EXPECT_EQ(toolTip().description, QStringLiteral("⬆︎\nEnvoi de « Réunion » : 42 %"));
    EXPECT_EQ(property(m_service, QStringLiteral("XAyatanaLabel")).toString(), QStringLiteral("⬆︎"));

    const SniPixmapList idle = pixmaps();
    ASSERT_FALSE(idle.isEmpty());
    for (const SniPixmap& p : idle)
        EXPECT_EQ(p.pixels.size(), qsizetype(p.width) * p.height * 4);
    m_item->setIcon(StatusIcon::recording);
    const SniPixmapList recording = pixmaps();
    m_item->setIcon(StatusIcon::busy);
    const SniPixmapList busy = pixmaps();
    ASSERT_EQ(recording.size(), idle.size());
    ASSERT_EQ(busy.size(), idle.size());
    EXPECT_NE(recording.first().pixels, idle.first().pixels);
    EXPECT_NE(busy.first().pixels, idle.first().pixels);
    EXPECT_NE(busy.first().pixels, recording.first().pixels);
    m_item->setIcon(StatusIcon::idle);
    EXPECT_EQ(pixmaps().first().pixels, idle.first().pixels);

    QSignalSpy clicks(m_item.get(), &StatusItem::clicked);
    QDBusMessage activate =
        QDBusMessage::createMethodCall(m_service, QStringLiteral("/StatusNotifierItem"),
                                       QStringLiteral("org.kde.StatusNotifierItem"), QStringLiteral("Activate"));
    activate << 1200 << 14;
    const QDBusMessage reply = callFromOutside(activate);
    EXPECT_EQ(reply.type(), QDBusMessage::ReplyMessage) << reply.errorMessage().toStdString();
    ASSERT_TRUE(test::waitUntil([&] { return clicks.size() == 1; }, 2s));
    EXPECT_EQ(clicks.at(0).at(0).toPoint(), QPoint(1200, 14));

    m_item.reset();
    EXPECT_TRUE(test::waitUntil([&] { return !hostLists(m_service); }, 5s))
        << s_tray->registeredItems().join(u',').toStdString();
}

} // namespace
} // namespace tavrel

#include "LinuxPlatformTest.moc"
