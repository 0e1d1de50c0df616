#include "app/DisplayChoice.h"

namespace tavrel {

DisplayChoice DisplayChoice::forSession(const QProcessEnvironment& session, const QStringList& arguments) {
    DisplayChoice choice;
    for (const QString& argument : arguments) {
        if (argument == QLatin1String("-platform") || argument == QLatin1String("--platform"))
            return choice;
    }
    const bool wayland = !session.value(QStringLiteral("WAYLAND_DISPLAY")).isEmpty() ||
                         session.value(QStringLiteral("XDG_SESSION_TYPE")) == QLatin1String("wayland");
    if (!wayland)
        return choice;
    // Another plugin chosen on purpose (offscreen, vnc, xcb) is left alone; a Wayland one is what we avoid.
    const QString requested = session.value(QStringLiteral("QT_QPA_PLATFORM")).trimmed();
    if (!requested.isEmpty() && !requested.startsWith(QLatin1String("wayland")))
        return choice;
    if (session.value(QStringLiteral("DISPLAY")).isEmpty())
        choice.waylandOnly = true;
    else
        choice.platformPlugins = QStringLiteral("xcb;wayland");
    return choice;
}

QString DisplayChoice::waylandOnlyWarning() {
    return QStringLiteral("[Display] session Wayland sans serveur X (XWayland) : le panneau d'enregistrement ne "
                          "pourra se placer ni en haut à droite, ni au-dessus des autres fenêtres, ni sur tous les "
                          "bureaux");
}

} // namespace tavrel
