#pragma once

#include <QProcessEnvironment>
#include <QString>
#include <QStringList>

namespace tavrel {

/// Which window system the program runs on, decided before the application object exists.
///
/// The recording panel must sit at the top right, above other windows and on every workspace; Wayland
/// lets no client place its windows, X11 does. So in a Wayland session with an X server at hand
/// (XWayland) the program runs on X11, however it was started (desktop entry, autostart, D-Bus
/// activation, a link from the browser).
struct DisplayChoice {
    /// Qt platform plugins to ask for, in order ("xcb;wayland": X11 first, Wayland only when the X server
    /// does not answer), or empty to leave Qt's own choice.
    QString platformPlugins;
    /// A Wayland session without an X server: the panel will not be able to place itself.
    bool waylandOnly = false;

    /// What the program says on its standard output when it ends up on Wayland.
    static QString waylandOnlyWarning();

    /// `session`: the desktop's session variables (WAYLAND_DISPLAY, DISPLAY, XDG_SESSION_TYPE and the
    /// user's QT_QPA_PLATFORM). `arguments`: the command line; an explicit "-platform" there is kept.
    static DisplayChoice forSession(const QProcessEnvironment& session, const QStringList& arguments);
};

} // namespace tavrel
