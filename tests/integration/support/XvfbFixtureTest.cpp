#include "XvfbFixture.h"

#include "Command.h"
#include "ScopedEnvironment.h"
#include "SessionBusFixture.h"
#include "TempDir.h"
#include "Wait.h"

#include <gtest/gtest.h>

namespace tavrel::test {
namespace {

using namespace std::chrono_literals;

TEST(XvfbFixtureTest, DisplayAnswersAndScreenshotsHaveItsSize) {
    XvfbFixture xvfb;
    ASSERT_TRUE(xvfb.start());
    RecordProperty("startupMs", static_cast<int>(xvfb.startupMs()));
    EXPECT_EQ(qEnvironmentVariable("DISPLAY"), xvfb.display());
    const CommandResult info = runCommand(QStringLiteral("xdpyinfo"), {}, xvfb.environment(), 10s);
    ASSERT_TRUE(info.ok()) << info.describe().toStdString();
    EXPECT_TRUE(info.standardOutput.contains("dimensions:    1280x800 pixels"))
        << info.standardOutput.left(2000).toStdString();

    TempDir dir(QStringLiteral("tavrel-x-test"));
    const QString png = dir.filePath(QStringLiteral("root.png"));
    ASSERT_TRUE(xvfb.screenshot(png));
    const CommandResult identify =
        runCommand(QStringLiteral("identify"), {QStringLiteral("-format"), QStringLiteral("%w %h"), png});
    EXPECT_EQ(QString::fromUtf8(identify.standardOutput).trimmed(), QStringLiteral("1280 800"));
}

// Two X servers at once pick different displays: parallel test binaries never collide.
TEST(XvfbFixtureTest, ServersStartedTogetherGetDistinctDisplays) {
    XvfbFixture::Options options;
    options.exportEnvironment = false;
    XvfbFixture first(options);
    XvfbFixture second(options);
    ASSERT_TRUE(first.start());
    ASSERT_TRUE(second.start());
    EXPECT_NE(first.display(), second.display());
}

// Qt's tray code only believes in a tray host when the watcher's introspection lists the property;
// a real Qt program under Xvfb proves the fake watcher passes that check.
TEST(XvfbFixtureTest, QtTrayIconRegistersWithTheFakeWatcher) {
    SessionBusFixture::Options busOptions;
    busOptions.statusNotifierWatcher = true;
    SessionBusFixture bus(busOptions);
    ASSERT_TRUE(bus.start());
    XvfbFixture xvfb;
    ASSERT_TRUE(xvfb.start());

    ManagedProcess probe;
    ManagedProcess::Options options;
    options.program = QStringLiteral(TAVREL_TRAY_PROBE);
    options.environment = mergedEnvironment({bus.variables(), xvfb.variables()});
    options.captureStdout = true;
    ASSERT_TRUE(probe.start(options)) << probe.errorString().toStdString();
    const auto available = probe.readStdoutLine(10s);
    ASSERT_TRUE(available.has_value()) << probe.describe().toStdString();
    EXPECT_EQ(*available, QByteArray("available=yes"));
    ASSERT_TRUE(bus.waitForStatusItems(1));
    // Qt registers its object path; the watcher reports it on the sender's unique name.
    EXPECT_TRUE(bus.registeredStatusItems().front().endsWith(QStringLiteral("/StatusNotifierItem")))
        << bus.registeredStatusItems().join(", ").toStdString();

    probe.stop();
    EXPECT_TRUE(waitUntil([&] { return bus.registeredStatusItems().isEmpty(); }, 3s));
}

} // namespace
} // namespace tavrel::test
