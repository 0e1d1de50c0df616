#include "audio/pipewire/PipeWireConnection.h"

#include <cerrno>

namespace tavrel {

void PipeWireConnection::onDone(void* data, uint32_t id, int seq) {
    auto* self = static_cast<PipeWireConnection*>(data);
    if (id == PW_ID_CORE && seq == self->m_pendingSeq) {
        self->m_roundTripDone = true;
        self->signal();
    }
}

void PipeWireConnection::onError(void* data, uint32_t id, int, int res, const char*) {
    auto* self = static_cast<PipeWireConnection*>(data);
    // An error on the core itself with EPIPE is the daemon going away; errors of single objects are reported
    // by those objects (a stream's state).
    if (id == PW_ID_CORE && res == -EPIPE) {
        self->m_broken.store(true);
        self->m_roundTripDone = true; // no answer will come
        self->signal();
    }
}

const pw_core_events PipeWireConnection::kCoreEvents{
    .version = PW_VERSION_CORE_EVENTS,
    .done = &PipeWireConnection::onDone,
    .error = &PipeWireConnection::onError,
};

PipeWireConnection::PipeWireConnection(const char* threadName) : m_threadName(threadName) {}

PipeWireConnection::~PipeWireConnection() {
    close();
}

bool PipeWireConnection::open() {
    ensurePipeWireInitialised();
    m_loop.reset(pw_thread_loop_new(m_threadName, nullptr));
    if (m_loop)
        m_context.reset(pw_context_new(pw_thread_loop_get_loop(m_loop.get()), nullptr, 0));
    bool connected = false;
    if (m_context && pw_thread_loop_start(m_loop.get()) == 0) {
        PwLoopLock lock(m_loop.get());
        m_core.reset(pw_context_connect(m_context.get(), nullptr, 0));
        if (m_core) {
            pw_core_add_listener(m_core.get(), &m_coreListener, &kCoreEvents, this);
            connected = true;
        }
    }
    if (!connected)
        close(); // outside the lock
    return connected;
}

void PipeWireConnection::close() {
    if (!m_loop)
        return;
    {
        PwLoopLock lock(m_loop.get());
        if (m_core) {
            spa_hook_remove(&m_coreListener);
            m_core.reset();
        }
    }
    // Stopping joins the loop thread: never with its lock held.
    pw_thread_loop_stop(m_loop.get());
    m_context.reset();
    m_loop.reset();
}

bool PipeWireConnection::waitLocked(const std::function<bool()>& condition, std::chrono::milliseconds timeout) {
    timespec deadline{};
    pw_thread_loop_get_time(m_loop.get(), &deadline, std::chrono::nanoseconds(timeout).count());
    while (!condition()) {
        if (pw_thread_loop_timed_wait_full(m_loop.get(), &deadline) != 0)
            return condition();
    }
    return true;
}

bool PipeWireConnection::roundTrip(std::chrono::milliseconds timeout) {
    if (m_broken.load())
        return false;
    m_roundTripDone = false;
    m_pendingSeq = pw_core_sync(m_core.get(), PW_ID_CORE, 0);
    return waitLocked([this] { return m_roundTripDone; }, timeout) && !m_broken.load();
}

void PipeWireConnection::signal() {
    pw_thread_loop_signal(m_loop.get(), false);
}

} // namespace tavrel
