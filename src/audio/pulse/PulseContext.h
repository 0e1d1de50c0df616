#pragma once

// One libpulse connection for the whole process, shared by every audio component.
//
//   auto pulse = PulseContext::instance();          // connects lazily; throws PulseError when no server answers
//   PulseServerInfo info = pulse->serverInfo();     // default sink/source names
//   auto sources = pulse->sources();                // every source, monitors included
//   auto sinks = pulse->sinks();
//   auto playing = pulse->sinkInputs();            // every playback stream and the sink it plays into
//
//   // Server events, on the mainloop thread, for as long as the subscription lives:
//   PulseSubscription sub = pulse->subscribe(PA_SUBSCRIPTION_MASK_SERVER, [](auto event, uint32_t index) { ... });
//
//   // Any other query, synchronously, from a thread that is not the mainloop's:
//   pulse->run([&](pa_context* c, PulseQuery& q) {
//       return pa_context_get_module_info_list(c, &myCallback, &q);   // the callback calls q.finish()
//   });
//
//   // Streams: create and connect them while holding the lock; the callbacks run on the mainloop thread.
//   { PulseContext::Lock lock(*pulse); PaStreamPtr s(pa_stream_new(pulse->context(), ...)); ... }
//   pulse->waitUntil([&] { return pa_stream_get_state(s.get()) != PA_STREAM_CREATING; }, 2s);
//
// `instance()` follows PULSE_SERVER (read when the connection is made) and makes a new connection when the
// previous one has failed or when PULSE_SERVER changed, so that each test can bring its own server. Objects
// that outlive a call (streams) keep the shared pointer so that the mainloop outlives them.

#include "core/Error.h"

#include <QString>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <pulse/pulseaudio.h>
#include <vector>

namespace tavrel {

/// A failure of the audio server: unreachable, refusing, or an operation that failed or timed out.
class PulseError : public Error {
public:
    PulseError(QString description, int paError = 0) : Error(std::move(description)), m_paError(paError) {}
    /// The libpulse error code (PA_ERR_*), 0 when the failure has none (a time-out).
    int paError() const noexcept { return m_paError; }

private:
    int m_paError;
};

struct PaMainloopDeleter {
    void operator()(pa_threaded_mainloop* loop) const;
};
struct PaContextDeleter {
    void operator()(pa_context* context) const; ///< disconnects, then unrefs; call with the mainloop stopped or locked
};
struct PaStreamDeleter {
    void operator()(pa_stream* stream) const; ///< unrefs only; disconnect first, under the lock
};
struct PaOperationDeleter {
    void operator()(pa_operation* operation) const;
};
struct PaProplistDeleter {
    void operator()(pa_proplist* proplist) const;
};
using PaMainloopPtr = std::unique_ptr<pa_threaded_mainloop, PaMainloopDeleter>;
using PaContextPtr = std::unique_ptr<pa_context, PaContextDeleter>;
using PaStreamPtr = std::unique_ptr<pa_stream, PaStreamDeleter>;
using PaOperationPtr = std::unique_ptr<pa_operation, PaOperationDeleter>;
using PaProplistPtr = std::unique_ptr<pa_proplist, PaProplistDeleter>;

/// Completion of one synchronous query; the libpulse callback calls `finish()` (or `fail()`) once done.
class PulseQuery {
public:
    void finish();
    void fail(int paError);
    bool waitFor(std::chrono::milliseconds timeout);
    int paError() const { return m_paError; }

private:
    std::mutex m_mutex;
    std::condition_variable m_done;
    bool m_finished = false;
    int m_paError = 0;
};

struct PulseServerInfo {
    QString serverName;
    QString serverVersion;
    QString defaultSinkName;   ///< empty when the server has no default sink
    QString defaultSourceName; ///< empty when the server has no default source
};

struct PulseDeviceInfo {
    uint32_t index = PA_INVALID_INDEX;
    QString name;
    QString description;
    uint32_t ownerModule = PA_INVALID_INDEX; ///< the module that created the device, PA_INVALID_INDEX if none
    uint32_t sampleRateHz = 0;
    int channels = 0;
    /// Sources: index of the sink this source monitors (PA_INVALID_INDEX for a real source).
    uint32_t monitorOfSink = PA_INVALID_INDEX;
    /// Sinks: name of the sink's monitor source.
    QString monitorSourceName;
    /// Sinks made by a filter (echo cancelling, remapping...): the sink they play into, by name, when the
    /// server says so ("device.master_device").
    QString masterDevice;
    /// PipeWire's "node.link-group": a filter's sink and the playback stream that carries its output share it.
    QString linkGroup;
    bool muted = false;
    bool isMonitor() const { return monitorOfSink != PA_INVALID_INDEX; }
};

/// A playback stream ("sink input") and where it plays.
struct PulseSinkInputInfo {
    uint32_t index = PA_INVALID_INDEX;
    uint32_t sink = PA_INVALID_INDEX;
    QString linkGroup; ///< see PulseDeviceInfo::linkGroup
    bool corked = false;
};

/// A property of a libpulse property list, empty when absent.
QString pulseProperty(const pa_proplist* props, const char* key);

/// The libpulse error code as a sentence for the user and the logs (libpulse's own text is English).
QString pulseErrorText(int paError);

class PulseContext;

/// Keeps an event handler registered with a `PulseContext`; dropping it unregisters the handler. Not to be
/// dropped on the mainloop thread.
class PulseSubscription {
public:
    PulseSubscription() = default;
    PulseSubscription(std::shared_ptr<PulseContext> pulse, int id) : m_pulse(std::move(pulse)), m_id(id) {}
    ~PulseSubscription();
    PulseSubscription(PulseSubscription&& other) noexcept;
    PulseSubscription& operator=(PulseSubscription&& other) noexcept;
    PulseSubscription(const PulseSubscription&) = delete;
    PulseSubscription& operator=(const PulseSubscription&) = delete;

private:
    std::shared_ptr<PulseContext> m_pulse;
    int m_id = 0;
};

class PulseContext : public std::enable_shared_from_this<PulseContext> {
public:
    using EventHandler = std::function<void(pa_subscription_event_type_t event, uint32_t index)>;

    static constexpr std::chrono::milliseconds kDefaultTimeout{3000};

    /// The connected context of this process, made on first use. Throws `PulseError` when no server answers.
    static std::shared_ptr<PulseContext> instance(std::chrono::milliseconds timeout = kDefaultTimeout);

    /// Only `instance()` can make one (the tag is private).
    struct Token {
    private:
        Token() = default;
        friend class PulseContext;
    };
    explicit PulseContext(Token) {}

    ~PulseContext();
    PulseContext(const PulseContext&) = delete;
    PulseContext& operator=(const PulseContext&) = delete;

    pa_threaded_mainloop* mainloop() const { return m_mainloop.get(); }
    pa_context* context() const { return m_context.get(); }
    bool isReady() const;
    /// The server address this connection was made to (PULSE_SERVER at the time), empty for the default.
    const QString& serverAddress() const { return m_serverAddress; }

    /// Holds the mainloop lock (recursive use from the mainloop thread itself is not allowed by libpulse).
    class Lock {
    public:
        explicit Lock(const PulseContext& pulse) : m_loop(pulse.mainloop()) { pa_threaded_mainloop_lock(m_loop); }
        ~Lock() { pa_threaded_mainloop_unlock(m_loop); }
        Lock(const Lock&) = delete;
        Lock& operator=(const Lock&) = delete;

    private:
        pa_threaded_mainloop* m_loop;
    };

    /// Issues one operation under the lock and waits (without the lock) until its callback has called
    /// `query.finish()`. Throws `PulseError` when the operation cannot be issued, fails or times out (the
    /// operation is then cancelled, so the callback never runs later). Not from the mainloop thread.
    void run(const std::function<pa_operation*(pa_context*, PulseQuery&)>& issue,
             std::chrono::milliseconds timeout = kDefaultTimeout);

    /// Waits, polling under the lock, until `condition` (evaluated with the lock held) is true. False on time-out.
    bool waitUntil(const std::function<bool()>& condition, std::chrono::milliseconds timeout = kDefaultTimeout);

    PulseServerInfo serverInfo(std::chrono::milliseconds timeout = kDefaultTimeout);
    /// The server is PipeWire's PulseAudio service (pipewire-pulse), which times record streams differently.
    /// Asked once per connection; throws `PulseError` when the server does not answer. Not from the mainloop
    /// thread.
    bool runsOnPipeWire();
    std::vector<PulseDeviceInfo> sources(std::chrono::milliseconds timeout = kDefaultTimeout);
    std::vector<PulseDeviceInfo> sinks(std::chrono::milliseconds timeout = kDefaultTimeout);
    std::vector<PulseSinkInputInfo> sinkInputs(std::chrono::milliseconds timeout = kDefaultTimeout);
    /// Every item of one libpulse list query: `issue` is e.g. pa_context_get_client_info_list (or a lambda that
    /// binds further arguments), `convert` copies what is needed out of each item on the mainloop thread.
    template <typename Info, typename Item>
    std::vector<Item>
    list(const std::function<pa_operation*(pa_context*, void (*)(pa_context*, const Info*, int, void*), void*)>& issue,
         Item (*convert)(const Info*), std::chrono::milliseconds timeout = kDefaultTimeout) {
        struct Request {
            PulseQuery* query = nullptr;
            Item (*convert)(const Info*);
            std::vector<Item> items;
        } request{nullptr, convert, {}};
        run(
            [&](pa_context* context, PulseQuery& query) {
                request.query = &query;
                return issue(
                    context,
                    [](pa_context* c, const Info* info, int eol, void* userdata) {
                        auto* req = static_cast<Request*>(userdata);
                        if (eol < 0)
                            req->query->fail(pa_context_errno(c));
                        else if (eol > 0)
                            req->query->finish();
                        else if (info)
                            req->items.push_back(req->convert(info));
                    },
                    &request);
            },
            timeout);
        return std::move(request.items);
    }

    /// One source by name ("@DEFAULT_SOURCE@" works); throws `PulseError` with the server's error code.
    PulseDeviceInfo sourceInfo(const QString& name, std::chrono::milliseconds timeout = kDefaultTimeout);

    /// Calls `handler` on the mainloop thread for each server event of the facilities in `mask`, until the
    /// returned subscription is dropped. The handler runs with the lock held: it must only take note and
    /// return (no synchronous query). Throws `PulseError` when the server is gone.
    [[nodiscard]] PulseSubscription subscribe(pa_subscription_mask_t mask, EventHandler handler);

    /// The last error of the context as text.
    QString lastErrorText() const;
    int lastError() const;

private:
    void connect(const QString& serverAddress, std::chrono::milliseconds timeout);
    static void onStateChanged(pa_context* context, void* userdata);
    static void onEvent(pa_context* context, pa_subscription_event_type_t event, uint32_t index, void* userdata);
    friend class PulseSubscription;
    void unsubscribe(int id);
    void updateSubscriptionMask(); // with the lock held

    struct Subscriber {
        int id;
        pa_subscription_mask_t mask;
        EventHandler handler;
    };

    PaMainloopPtr m_mainloop; // destroyed last
    PaContextPtr m_context;
    QString m_serverAddress;
    std::vector<Subscriber> m_subscribers; // under the mainloop lock
    int m_nextSubscriberId = 1;
    unsigned m_subscribedMask = 0;
    std::atomic<int> m_onPipeWire{-1}; // -1 until asked
};

} // namespace tavrel
