#pragma once

class QWindow;

namespace tavrel {

/// Keeps a top-level window on every workspace (virtual desktop) of the session, as the recording
/// panel must be. Call it once the native window exists (after `winId()`), before or after it is
/// shown. Does nothing where the window system has no such request (Wayland, offscreen).
void showOnAllWorkspaces(QWindow& window);

/// Whether windows with transparent parts (rounded corners, drawn shadows) show as such: false on an
/// X11 screen with no compositing manager, where transparent pixels would show black.
bool isCompositingAvailable();

} // namespace tavrel
