#include "audio/pipewire/PipeWireHandles.h"

#include <mutex>

namespace tavrel {

void ensurePipeWireInitialised() {
    static std::once_flag once;
    std::call_once(once, [] { pw_init(nullptr, nullptr); });
}

bool pipeWireAnswers() {
    ensurePipeWireInitialised();
    PwMainLoopPtr loop(pw_main_loop_new(nullptr));
    if (!loop)
        return false;
    PwContextPtr context(pw_context_new(pw_main_loop_get_loop(loop.get()), nullptr, 0));
    if (!context)
        return false;
    // Connecting is synchronous on the socket: it fails at once when no daemon listens.
    PwCorePtr core(pw_context_connect(context.get(), nullptr, 0));
    return core != nullptr;
}

} // namespace tavrel
