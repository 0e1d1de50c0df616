#pragma once

class QWindow;

namespace tavrel {

/// Keeps a top-level window on every workspace (virtual desktop) of the session, as the recording
/// panel must be. Call it once the native window exists (after `winId()`), before or after it is
/// shown. Does nothing where the window system has no such request (Wayland, offscreen).
void showOnAllWorkspaces(QWindow& window);

} // namespace tavrel
