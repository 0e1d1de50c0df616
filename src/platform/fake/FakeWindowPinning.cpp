#include "platform/WindowPinning.h"

namespace tavrel {

// Tests have no workspaces to pin to.
void showOnAllWorkspaces(QWindow&) {}

bool isCompositingAvailable() {
    return true;
}

} // namespace tavrel
