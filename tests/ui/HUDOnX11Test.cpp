// The recording panel on a real X server under a window manager (openbox): at the top right, above other
// windows and on every workspace, as the window manager keeps it. The test process itself runs offscreen,
// so it starts a copy of itself on a private Xvfb that runs the part marked "child" and reports through its
// exit status.
#include "Command.h"
#include "DesktopHosts.h"
#include "Wait.h"
#include "XvfbFixture.h"
#include "platform/WindowPinning.h"
#include "ui/RecordingHUD.h"

#include <QCoreApplication>
#include <QGuiApplication>
#include <QScreen>
#include <QWidget>
#include <QWindow>
#include <algorithm>
#include <array>
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

void sendToRoot(xcb_connection_t* connection, xcb_window_t window, const char* type, std::array<uint32_t, 5> data) {
    const xcb_window_t root = xcb_setup_roots_iterator(xcb_get_setup(connection)).data->root;
    xcb_client_message_event_t event{};
    event.response_type = XCB_CLIENT_MESSAGE;
    event.format = 32;
    event.window = window;
    event.type = atom(connection, type);
    std::copy(data.begin(), data.end(), event.data.data32);
    xcb_send_event(connection, 0, root, XCB_EVENT_MASK_SUBSTRUCTURE_REDIRECT | XCB_EVENT_MASK_SUBSTRUCTURE_NOTIFY,
                   reinterpret_cast<const char*>(&event));
    xcb_flush(connection);
}

bool isViewable(xcb_connection_t* connection, xcb_window_t window) {
    std::unique_ptr<xcb_get_window_attributes_reply_t, FreeDeleter> reply(
        xcb_get_window_attributes_reply(connection, xcb_get_window_attributes(connection, window), nullptr));
    return reply && reply->map_state == XCB_MAP_STATE_VIEWABLE;
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
    const xcb_window_t root = xcb_setup_roots_iterator(xcb_get_setup(connection)).data->root;
    auto listed = [&](const char* list) {
        const std::vector<uint32_t> windows = property(connection, root, list);
        return std::find(windows.begin(), windows.end(), window) - windows.begin();
    };
    auto hasState = [&](const char* state) {
        const std::vector<uint32_t> states = property(connection, window, "_NET_WM_STATE");
        return std::find(states.begin(), states.end(), atom(connection, state)) != states.end();
    };
    // The window manager has taken the panel in and states what it keeps: above the others, on all desktops
    // (window managers that scroll their desktops also say sticky; openbox does not).
    ASSERT_TRUE(tavrel::test::waitUntil(
        [&] {
            return listed("_NET_CLIENT_LIST") <
                       static_cast<long>(property(connection, root, "_NET_CLIENT_LIST").size()) &&
                   hasState("_NET_WM_STATE_ABOVE");
        },
        std::chrono::seconds(10)))
        << "above " << hasState("_NET_WM_STATE_ABOVE");
    EXPECT_EQ(property(connection, window, "_NET_WM_DESKTOP"), std::vector<uint32_t>{0xFFFFFFFF});
    EXPECT_TRUE(hud.panel()->isVisible());
    const Qt::WindowFlags wanted =
        Qt::Tool | Qt::FramelessWindowHint | Qt::WindowStaysOnTopHint | Qt::WindowDoesNotAcceptFocus;
    EXPECT_EQ(hud.panel()->windowFlags() & wanted, wanted);
    EXPECT_TRUE(hud.panel()->testAttribute(Qt::WA_ShowWithoutActivating));
    // Without compositing the window is the card itself, cut to its rounded shape: no black shadow area.
    EXPECT_FALSE(hud.panel()->testAttribute(Qt::WA_TranslucentBackground));
    EXPECT_EQ(hud.panel()->size(), QSize(60, 262));
    EXPECT_TRUE(hud.panel()->mask().contains(QPoint(30, 131)));
    EXPECT_FALSE(hud.panel()->mask().contains(QPoint(1, 1))) << "rounded corner";
    // Where the window manager put it, in screen coordinates; Qt learns of the move from a later event.
    const QRect expected = tavrel::RecordingHUD::panelRect(QGuiApplication::primaryScreen()->availableGeometry());
    auto placedAt = [&] {
        std::unique_ptr<xcb_translate_coordinates_reply_t, FreeDeleter> placed(xcb_translate_coordinates_reply(
            connection, xcb_translate_coordinates(connection, window, root, 0, 0), nullptr));
        return placed ? QPoint(placed->dst_x, placed->dst_y) : QPoint(-1, -1);
    };
    EXPECT_TRUE(
        tavrel::test::waitUntil([&] { return placedAt() == expected.topLeft() && hud.panel()->geometry() == expected; },
                                std::chrono::seconds(10)))
        << "placed at " << placedAt().x() << "," << placedAt().y() << ", Qt has " << hud.panel()->geometry().x() << ","
        << hud.panel()->geometry().y() << ", expected " << expected.x() << "," << expected.y();

    // A window opened later, over the panel's corner, stays below it.
    QWidget other;
    other.setGeometry(expected.adjusted(-200, 0, 0, 200));
    other.show();
    other.activateWindow();
    const auto otherWindow = static_cast<xcb_window_t>(other.winId());
    auto stackIndex = [&](xcb_window_t of) {
        const std::vector<uint32_t> stacking = property(connection, root, "_NET_CLIENT_LIST_STACKING");
        return std::find(stacking.begin(), stacking.end(), of) - stacking.begin();
    };
    ASSERT_TRUE(tavrel::test::waitUntil(
        [&] {
            return stackIndex(otherWindow) <
                   static_cast<long>(property(connection, root, "_NET_CLIENT_LIST_STACKING").size());
        },
        std::chrono::seconds(10)));
    EXPECT_GT(stackIndex(window), stackIndex(otherWindow)) << "the panel is not above the newer window";

    // On another workspace the newer window goes, the panel stays.
    sendToRoot(connection, root, "_NET_CURRENT_DESKTOP", {1, XCB_CURRENT_TIME, 0, 0, 0});
    ASSERT_TRUE(tavrel::test::waitUntil(
        [&] { return property(connection, root, "_NET_CURRENT_DESKTOP") == std::vector<uint32_t>{1}; },
        std::chrono::seconds(10)));
    EXPECT_TRUE(tavrel::test::waitUntil([&] { return !isViewable(connection, otherWindow); }, std::chrono::seconds(5)));
    EXPECT_TRUE(isViewable(connection, window));
}

TEST(HUDOnX11, PanelIsOnEveryWorkspace) {
    if (!qEnvironmentVariableIsEmpty(kChildVariable))
        GTEST_SKIP();
    tavrel::test::XvfbFixture xvfb;
    ASSERT_TRUE(xvfb.start());
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(xvfb.variables());
    // No session bus: libdbus must not start one of its own for the child.
    environment.insert(QStringLiteral("DBUS_SESSION_BUS_ADDRESS"), QStringLiteral("unix:path=/nonexistent"));
    tavrel::test::WindowManager openbox;
    ASSERT_TRUE(openbox.start(environment));
    environment.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("xcb"));
    environment.insert(QString::fromLatin1(kChildVariable), QStringLiteral("1"));
    const tavrel::test::CommandResult child = tavrel::test::runCommand(
        QCoreApplication::applicationFilePath(), {QStringLiteral("--gtest_filter=HUDOnX11.Child")}, environment,
        std::chrono::seconds(60));
    EXPECT_TRUE(child.ok()) << child.describe().toStdString() << "\n" << child.standardOutput.toStdString();
    EXPECT_TRUE(child.standardOutput.contains("[  PASSED  ] 1 test")) << child.standardOutput.toStdString();
}

} // namespace
