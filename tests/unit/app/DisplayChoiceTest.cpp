#include "app/DisplayChoice.h"

#include <gtest/gtest.h>

namespace tavrel {
namespace {

// The window system, from the session's variables and the command line. Only a Wayland session with an
// X server moves the program to X11; what the user or a test chose on purpose is kept.
TEST(DisplayChoiceTest, RunsOnXWaylandOnlyInAWaylandSessionWithAnXServer) {
    struct Case {
        const char* name;
        QStringList variables; // NAME=value
        QStringList arguments;
        QString plugins;
        bool waylandOnly;
    };
    const QString xcb = QStringLiteral("xcb;wayland");
    const QStringList both{QStringLiteral("WAYLAND_DISPLAY=wayland-0"), QStringLiteral("DISPLAY=:0")};
    const Case cases[] = {
        {"x11_session", {QStringLiteral("DISPLAY=:0"), QStringLiteral("XDG_SESSION_TYPE=x11")}, {}, {}, false},
        {"wayland_with_xwayland", both, {}, xcb, false},
        {"session_type_only",
         {QStringLiteral("XDG_SESSION_TYPE=wayland"), QStringLiteral("DISPLAY=:1")},
         {},
         xcb,
         false},
        {"user_forces_wayland", both + QStringList{QStringLiteral("QT_QPA_PLATFORM=wayland")}, {}, xcb, false},
        {"wayland_list", both + QStringList{QStringLiteral("QT_QPA_PLATFORM=wayland-egl;xcb")}, {}, xcb, false},
        {"offscreen_kept", both + QStringList{QStringLiteral("QT_QPA_PLATFORM=offscreen")}, {}, {}, false},
        {"explicit_argument_kept", both, {QStringLiteral("-platform"), QStringLiteral("wayland")}, {}, false},
        {"no_x_server", {QStringLiteral("WAYLAND_DISPLAY=wayland-0")}, {}, {}, true},
        {"nothing", {}, {}, {}, false},
    };
    for (const Case& c : cases) {
        QProcessEnvironment session;
        for (const QString& variable : c.variables)
            session.insert(variable.section(u'=', 0, 0), variable.section(u'=', 1));
        const DisplayChoice choice =
            DisplayChoice::forSession(session, QStringList{QStringLiteral("tavrel-recorder")} + c.arguments);
        EXPECT_EQ(choice.platformPlugins, c.plugins) << c.name;
        EXPECT_EQ(choice.waylandOnly, c.waylandOnly) << c.name;
    }
}

} // namespace
} // namespace tavrel
