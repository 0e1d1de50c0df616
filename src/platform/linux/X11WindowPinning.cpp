#include "platform/WindowPinning.h"

#include <QGuiApplication>
#include <QWindow>
#include <array>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <xcb/xcb.h>

namespace tavrel {

namespace {

// EWMH: "all desktops" value of _NET_WM_DESKTOP, and the _NET_WM_STATE client-message action "add".
constexpr uint32_t kAllDesktops = 0xFFFFFFFF;
constexpr uint32_t kStateAdd = 1;
// Source indication of client messages: a normal application.
constexpr uint32_t kSourceApplication = 1;

struct FreeDeleter {
    void operator()(void* pointer) const { std::free(pointer); }
};

xcb_atom_t internAtom(xcb_connection_t* connection, const char* name) {
    const xcb_intern_atom_cookie_t cookie =
        xcb_intern_atom(connection, 0, static_cast<uint16_t>(std::strlen(name)), name);
    std::unique_ptr<xcb_intern_atom_reply_t, FreeDeleter> reply(xcb_intern_atom_reply(connection, cookie, nullptr));
    return reply ? reply->atom : static_cast<xcb_atom_t>(XCB_ATOM_NONE);
}

void sendToRoot(xcb_connection_t* connection, xcb_window_t root, xcb_window_t window, xcb_atom_t type,
                const std::array<uint32_t, 5>& data) {
    xcb_client_message_event_t event{};
    event.response_type = XCB_CLIENT_MESSAGE;
    event.format = 32;
    event.window = window;
    event.type = type;
    for (size_t index = 0; index < data.size(); ++index)
        event.data.data32[index] = data[index];
    xcb_send_event(connection, 0, root, XCB_EVENT_MASK_SUBSTRUCTURE_REDIRECT | XCB_EVENT_MASK_SUBSTRUCTURE_NOTIFY,
                   reinterpret_cast<const char*>(&event));
}

} // namespace

void showOnAllWorkspaces(QWindow& window) {
    auto* x11 = qGuiApp ? qGuiApp->nativeInterface<QNativeInterface::QX11Application>() : nullptr;
    if (!x11 || !x11->connection())
        return;
    xcb_connection_t* connection = x11->connection();
    const auto id = static_cast<xcb_window_t>(window.winId());
    const xcb_atom_t desktop = internAtom(connection, "_NET_WM_DESKTOP");
    const xcb_atom_t state = internAtom(connection, "_NET_WM_STATE");
    const xcb_atom_t sticky = internAtom(connection, "_NET_WM_STATE_STICKY");
    if (desktop == XCB_ATOM_NONE || state == XCB_ATOM_NONE || sticky == XCB_ATOM_NONE)
        return;

    if (!window.isVisible()) {
        // Before mapping, the window manager reads these properties; Qt keeps atoms it finds in
        // _NET_WM_STATE when it adds its own (stays-on-top) at show time.
        xcb_change_property(connection, XCB_PROP_MODE_REPLACE, id, desktop, XCB_ATOM_CARDINAL, 32, 1, &kAllDesktops);
        xcb_change_property(connection, XCB_PROP_MODE_APPEND, id, state, XCB_ATOM_ATOM, 32, 1, &sticky);
    } else {
        // A mapped window belongs to the window manager: ask it.
        const xcb_window_t root = xcb_setup_roots_iterator(xcb_get_setup(connection)).data->root;
        sendToRoot(connection, root, id, desktop, {kAllDesktops, kSourceApplication, 0, 0, 0});
        sendToRoot(connection, root, id, state, {kStateAdd, sticky, 0, kSourceApplication, 0});
    }
    xcb_flush(connection);
}

bool isCompositingAvailable() {
    auto* x11 = qGuiApp ? qGuiApp->nativeInterface<QNativeInterface::QX11Application>() : nullptr;
    if (!x11 || !x11->connection())
        return true; // Wayland compositors always composite; offscreen keeps alpha
    xcb_connection_t* connection = x11->connection();
    // EWMH: a compositing manager owns the selection _NET_WM_CM_S<screen number>.
    const xcb_atom_t selection = internAtom(connection, "_NET_WM_CM_S0");
    if (selection == XCB_ATOM_NONE)
        return false;
    std::unique_ptr<xcb_get_selection_owner_reply_t, FreeDeleter> reply(
        xcb_get_selection_owner_reply(connection, xcb_get_selection_owner(connection, selection), nullptr));
    return reply && reply->owner != XCB_WINDOW_NONE;
}

} // namespace tavrel
