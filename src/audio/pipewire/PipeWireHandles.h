#pragma once

// Owning handles for the libpipewire objects of the tap, and the check that a PipeWire daemon answers.

#include <memory>
#include <pipewire/pipewire.h>

namespace tavrel {

/// pw_init once per process (libpipewire's own set-up; harmless to call again).
void ensurePipeWireInitialised();

/// True when a PipeWire daemon accepts a connection (PIPEWIRE_RUNTIME_DIR / XDG_RUNTIME_DIR are read now).
bool pipeWireAnswers();

struct PwThreadLoopDeleter {
    void operator()(pw_thread_loop* loop) const { pw_thread_loop_destroy(loop); }
};
struct PwMainLoopDeleter {
    void operator()(pw_main_loop* loop) const { pw_main_loop_destroy(loop); }
};
struct PwContextDeleter {
    void operator()(pw_context* context) const { pw_context_destroy(context); }
};
struct PwCoreDeleter {
    void operator()(pw_core* core) const { pw_core_disconnect(core); }
};
struct PwStreamDeleter {
    void operator()(pw_stream* stream) const { pw_stream_destroy(stream); }
};
struct PwProxyDeleter {
    void operator()(pw_proxy* proxy) const { pw_proxy_destroy(proxy); }
};
struct PwPropertiesDeleter {
    void operator()(pw_properties* properties) const { pw_properties_free(properties); }
};

using PwThreadLoopPtr = std::unique_ptr<pw_thread_loop, PwThreadLoopDeleter>;
using PwMainLoopPtr = std::unique_ptr<pw_main_loop, PwMainLoopDeleter>;
using PwContextPtr = std::unique_ptr<pw_context, PwContextDeleter>;
using PwCorePtr = std::unique_ptr<pw_core, PwCoreDeleter>;
using PwStreamPtr = std::unique_ptr<pw_stream, PwStreamDeleter>;
using PwProxyPtr = std::unique_ptr<pw_proxy, PwProxyDeleter>;
using PwPropertiesPtr = std::unique_ptr<pw_properties, PwPropertiesDeleter>;

/// Holds a thread loop's lock for a scope (libpipewire's objects are touched only under it).
class PwLoopLock {
public:
    explicit PwLoopLock(pw_thread_loop* loop) : m_loop(loop) { pw_thread_loop_lock(m_loop); }
    ~PwLoopLock() { pw_thread_loop_unlock(m_loop); }
    PwLoopLock(const PwLoopLock&) = delete;
    PwLoopLock& operator=(const PwLoopLock&) = delete;

private:
    pw_thread_loop* m_loop;
};

} // namespace tavrel
