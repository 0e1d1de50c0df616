#include "platform/WindowPinning.h"

namespace tavrel {

// Tests have no workspaces to pin to.
void showOnAllWorkspaces(QWindow&) {}

} // namespace tavrel
