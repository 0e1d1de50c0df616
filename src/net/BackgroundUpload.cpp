#include "net/BackgroundUpload.h"

#include <QCoreApplication>
#include <QCoro/QCoroFuture>
#include <QFuture>
#include <QNetworkReply>
#include <QPointer>
#include <QPromise>
#include <QThread>
#include <deque>
#include <functional>
#include <mutex>
#include <set>

namespace tavrel {

namespace {

class NetworkThread;

/// Lives on the network thread; woken (by name, carrying nothing) to start the uploads handed over.
class NetworkContext : public QObject {
    Q_OBJECT
public:
    explicit NetworkContext(NetworkThread& owner) : m_owner(owner) {}

public slots:
    void startPending();

private:
    NetworkThread& m_owner;
};

/// Owns the network thread for the application's lifetime: when the application object goes, the uploads
/// still running are aborted and the thread is stopped before Qt's internals are. Uploads are handed over
/// under a mutex (a hand-over that ThreadSanitizer sees), then the thread is woken.
class NetworkThread : public QObject {
public:
    explicit NetworkThread(QObject* application) : QObject(application) {
        m_thread.setObjectName(QStringLiteral("tavrel-net"));
        m_context = new NetworkContext(*this);
        m_context->moveToThread(&m_thread);
        m_thread.start();
    }

    ~NetworkThread() override {
        {
            std::lock_guard lock(m_mutex);
            for (const std::shared_ptr<UploadAbort>& abort : m_running)
                abort->abort();
        }
        m_thread.quit();
        m_thread.wait();
        // Its thread has ended: nothing else can touch it now.
        delete m_context;
    }

    QObject* context() const { return m_context; }

    void start(std::function<void()> upload, const std::shared_ptr<UploadAbort>& abort) {
        {
            std::lock_guard lock(m_mutex);
            m_pending.push_back(std::move(upload));
            m_running.insert(abort);
        }
        QMetaObject::invokeMethod(m_context, "startPending", Qt::QueuedConnection);
    }
    void forget(const std::shared_ptr<UploadAbort>& abort) {
        std::lock_guard lock(m_mutex);
        m_running.erase(abort);
    }
    std::deque<std::function<void()>> takePending() {
        std::lock_guard lock(m_mutex);
        return std::exchange(m_pending, {});
    }

private:
    QThread m_thread;
    NetworkContext* m_context = nullptr;
    std::mutex m_mutex;
    std::deque<std::function<void()>> m_pending;
    std::set<std::shared_ptr<UploadAbort>> m_running;
};

void NetworkContext::startPending() {
    for (std::function<void()>& start : m_owner.takePending())
        start();
}

QPointer<NetworkThread> g_networkThread;

NetworkThread& networkThread() {
    if (!g_networkThread)
        g_networkThread = new NetworkThread(QCoreApplication::instance());
    return *g_networkThread;
}

/// What the two threads share of one upload: the outcome, written on the network thread and read by the
/// caller under the mutex once the promise has resumed it.
struct UploadState {
    std::mutex mutex;
    std::optional<UploadService::AsyncUploadResult> result;
    std::exception_ptr error;
    QPromise<void> done;
};

QCoro::Task<> runUpload(std::shared_ptr<UploadState> state, UploadRequest request, UploadService::UploadHooks hooks) {
    std::optional<UploadService::AsyncUploadResult> result;
    std::exception_ptr error;
    try {
        result =
            co_await UploadService::uploadAsync(request.fileURL, request.title, request.clientId, request.synthesisType,
                                                request.depth, request.notes, std::move(hooks));
    } catch (...) {
        error = std::current_exception();
    }
    {
        std::lock_guard lock(state->mutex);
        state->result = std::move(result);
        state->error = error;
    }
    state->done.finish();
}

} // namespace

QObject* networkThreadContext() {
    return networkThread().context();
}

QCoro::Task<UploadService::AsyncUploadResult>
uploadInBackground(UploadRequest request, std::shared_ptr<BodyProgress> progress, std::shared_ptr<UploadAbort> abort) {
    if (!abort)
        abort = std::make_shared<UploadAbort>();
    UploadService::UploadHooks hooks;
    hooks.abort = abort;
    if (progress) {
        hooks.onProgress = [progress](qint64 sent, qint64 total) {
            progress->totalBytes = total;
            progress->sentBytes = sent;
        };
    }

    auto state = std::make_shared<UploadState>();
    state->done.start();
    const QFuture<void> done = state->done.future();
    networkThread().start(
        [state, request = std::move(request), hooks = std::move(hooks)]() mutable {
            // A named coroutine with its inputs by value: it outlives this call.
            auto upload = runUpload(state, std::move(request), std::move(hooks));
        },
        abort);
    co_await done;

    if (g_networkThread)
        g_networkThread->forget(abort);
    std::lock_guard lock(state->mutex);
    if (state->error)
        std::rethrow_exception(state->error);
    if (!state->result)
        throw TransportFailure(QNetworkReply::OperationCanceledError, QStringLiteral("Envoi interrompu."));
    co_return std::move(*state->result);
}

} // namespace tavrel

#include "BackgroundUpload.moc"
