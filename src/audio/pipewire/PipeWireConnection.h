#pragma once

#include "audio/pipewire/PipeWireHandles.h"

#include <atomic>
#include <chrono>
#include <functional>

namespace tavrel {

/// One connection to the PipeWire daemon, on a thread loop of its own: the loop, the context, the core, its
/// round trips, and whether the daemon went away. Everything made on the core is touched under `lock()`; the
/// callbacks run on the loop thread with the lock held.
///
///     PipeWireConnection connection("fr.tavrel.recorder.tap");
///     if (!connection.open()) ...                     // no daemon
///     { PwLoopLock lock(connection.loop()); ...make proxies, streams...; connection.roundTrip(); ...release them... }
///     connection.close();                             // never with the lock held
class PipeWireConnection {
public:
    static constexpr std::chrono::milliseconds kTimeout{3000};

    explicit PipeWireConnection(const char* threadName);
    ~PipeWireConnection();
    PipeWireConnection(const PipeWireConnection&) = delete;
    PipeWireConnection& operator=(const PipeWireConnection&) = delete;

    /// Starts the loop and connects to the daemon; false when that fails (everything made is released).
    bool open();
    /// Disconnects and stops the loop. Call without the lock, after every proxy and stream made on the core
    /// is gone. Idempotent.
    void close();

    pw_thread_loop* loop() const { return m_loop.get(); }
    pw_core* core() const { return m_core.get(); }

    /// Under the lock: waits until `condition` holds, releasing the lock meanwhile; false on time-out.
    bool waitLocked(const std::function<bool()>& condition, std::chrono::milliseconds timeout = kTimeout);
    /// Under the lock: one round trip, so that every event the daemon sent before has been handled. False
    /// on time-out or when the daemon went away.
    bool roundTrip(std::chrono::milliseconds timeout = kTimeout);
    /// From a callback: wakes `waitLocked`.
    void signal();
    /// The daemon closed the connection (it stopped or restarted). Any thread.
    bool isBroken() const { return m_broken.load(); }

private:
    static const pw_core_events kCoreEvents;
    static void onDone(void* data, uint32_t id, int seq);
    static void onError(void* data, uint32_t id, int seq, int res, const char* message);

    const char* m_threadName;
    PwThreadLoopPtr m_loop; // destroyed last
    PwContextPtr m_context;
    PwCorePtr m_core;
    spa_hook m_coreListener{};
    int m_pendingSeq = -1;
    bool m_roundTripDone = false;
    std::atomic<bool> m_broken{false};
};

} // namespace tavrel
