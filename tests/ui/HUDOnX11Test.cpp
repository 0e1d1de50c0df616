// The recording panel on a real X server: it must be on every workspace and above other windows.
// The test process itself runs offscreen, so it starts a copy of itself on a private Xvfb that runs
// the part marked "child" and reports through its exit status.
#include "Command.h"
#include "XvfbFixture.h"
#include "platform/WindowPinning.h"
#include "ui/RecordingHUD.h"

#include <QCoreApplication>
#include <QGuiApplication>
#include <QScreen>
#include <QWindow>
#include <cstdlib>
#include <gtest/gtest.h>
#include <memory>
#include <xcb/xcb.h>

namespace {

constexpr char kChildVariable[] = "TAVREL_HUD_X11_CHILD";

struct FreeDeleter {
    void operator()(void* pointer) const { std::free(pointer); }
};

xcb_atom_t atom(xcb_connection_t* connection, const char* name) {
    std::unique_ptr<xcb_intern_atom_reply_t, FreeDeleter> reply(xcb_intern_atom_reply(
        connection, xcb_intern_atom(connection, 0, static_cast<uint16_t>(strlen(name)), name), nullptr));
    return reply ? reply->atom : 0;
}

std::vector<uint32_t> property(xcb_connection_t* connection, xcb_window_t window, const char* name) {
    std::unique_ptr<xcb_get_property_reply_t, FreeDeleter> reply(xcb_get_property_reply(
        connection, xcb_get_property(connection, 0, window, atom(connection, name), XCB_GET_PROPERTY_TYPE_ANY, 0, 64),
        nullptr));
    if (!reply || reply->format != 32)
        return {};
    const auto* values = static_cast<const uint32_t*>(xcb_get_property_value(reply.get()));
    return {values, values + xcb_get_property_value_length(reply.get()) / 4};
}

TEST(HUDOnX11, Child) {
    if (qEnvironmentVariableIsEmpty(kChildVariable))
        GTEST_SKIP() << "runs inside PanelIsOnEveryWorkspace";
    ASSERT_EQ(QGuiApplication::platformName(), QStringLiteral("xcb"));
    auto* x11 = qGuiApp->nativeInterface<QNativeInterface::QX11Application>();
    ASSERT_NE(x11, nullptr);

    tavrel::RecordingHUD hud;
    hud.pinToAllWorkspaces = [](QWindow& window) { tavrel::showOnAllWorkspaces(window); };
    hud.compositingAvailable = [] { return tavrel::isCompositingAvailable(); };
    EXPECT_FALSE(tavrel::isCompositingAvailable()) << "Xvfb runs no compositing manager";
    hud.show(true);
    QCoreApplication::processEvents();
    xcb_connection_t* connection = x11->connection();
    const auto window = static_cast<xcb_window_t>(hud.panel()->winId());

    EXPECT_EQ(property(connection, window, "_NET_WM_DESKTOP"), std::vector<uint32_t>{0xFFFFFFFF});
    const std::vector<uint32_t> states = property(connection, window, "_NET_WM_STATE");
    // Qt's own stay-on-top state is kept beside ours.
    for (const char* state : {"_NET_WM_STATE_STICKY", "_NET_WM_STATE_ABOVE"})
        EXPECT_NE(std::find(states.begin(), states.end(), atom(connection, state)), states.end()) << state;
    EXPECT_TRUE(hud.panel()->isVisible());
    EXPECT_FALSE(hud.panel()->mask().isEmpty()) << "cut to the card's shape: no black shadow area";
    EXPECT_EQ(hud.panel()->geometry(),
              tavrel::RecordingHUD::panelRect(QGuiApplication::primaryScreen()->availableGeometry()));
}

TEST(HUDOnX11, PanelIsOnEveryWorkspace) {
    if (!qEnvironmentVariableIsEmpty(kChildVariable))
        GTEST_SKIP();
    tavrel::test::XvfbFixture xvfb;
    ASSERT_TRUE(xvfb.start());
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(xvfb.variables());
    environment.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("xcb"));
    environment.insert(QString::fromLatin1(kChildVariable), QStringLiteral("1"));
    // No session bus: libdbus must not start one of its own for the child.
    environment.insert(QStringLiteral("DBUS_SESSION_BUS_ADDRESS"), QStringLiteral("unix:path=/nonexistent"));
    const tavrel::test::CommandResult child = tavrel::test::runCommand(
        QCoreApplication::applicationFilePath(), {QStringLiteral("--gtest_filter=HUDOnX11.Child")}, environment,
        std::chrono::seconds(60));
    EXPECT_TRUE(child.ok()) << child.describe().toStdString() << "\n" << child.standardOutput.toStdString();
    EXPECT_TRUE(child.standardOutput.contains("[  PASSED  ] 1 test")) << child.standardOutput.toStdString();
}

} // namespace
