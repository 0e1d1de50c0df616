#include "net/BackgroundUpload.h"

#include <QCoreApplication>
#include <QCoro/QCoroFuture>
#include <QFuture>
#include <QPointer>
#include <QPromise>
#include <QThread>
#include <mutex>
#include <set>

namespace tavrel {

namespace {

/// Owns the network thread for the application's lifetime: when the application object goes, the uploads
/// still running are aborted and the thread is stopped before Qt's internals are.
class NetworkThread : public QObject {
public:
    explicit NetworkThread(QObject* application) : QObject(application) {
        m_thread.setObjectName(QStringLiteral("tavrel-net"));
        m_context = new QObject;
        m_context->moveToThread(&m_thread);
        QObject::connect(&m_thread, &QThread::finished, m_context, &QObject::deleteLater);
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
    }

    QObject* context() const { return m_context; }

    void track(const std::shared_ptr<UploadAbort>& abort) {
        std::lock_guard lock(m_mutex);
        m_running.insert(abort);
    }
    void forget(const std::shared_ptr<UploadAbort>& abort) {
        std::lock_guard lock(m_mutex);
        m_running.erase(abort);
    }

private:
    QThread m_thread;
    QObject* m_context = nullptr;
    std::mutex m_mutex;
    std::set<std::shared_ptr<UploadAbort>> m_running;
};

QPointer<NetworkThread> g_networkThread;

NetworkThread& networkThread() {
    if (!g_networkThread)
        g_networkThread = new NetworkThread(QCoreApplication::instance());
    return *g_networkThread;
}

/// What the two threads share of one upload. The promise is finished on the network thread; the caller
/// reads the outcome once its future has resumed it.
struct UploadState {
    std::optional<UploadService::AsyncUploadResult> result;
    std::exception_ptr error;
    QPromise<void> promise;
};

/// Receives progress on the caller's thread. Shared with the network thread's callback and deleted on
/// its own thread, whichever thread drops it last.
class ProgressRelay : public QObject {
public:
    ProgressRelay(QObject* context, UploadService::UploadProgress onProgress)
        : m_context(context), m_onProgress(std::move(onProgress)) {}
    void deliver(qint64 sent, qint64 total) {
        if (m_context && m_onProgress)
            m_onProgress(sent, total);
    }

private:
    QPointer<QObject> m_context;
    UploadService::UploadProgress m_onProgress;
};

QCoro::Task<> runUpload(std::shared_ptr<UploadState> state, UploadRequest request, UploadService::UploadHooks hooks) {
    try {
        state->result =
            co_await UploadService::uploadAsync(request.fileURL, request.title, request.clientId, request.synthesisType,
                                                request.depth, request.notes, std::move(hooks));
    } catch (...) {
        state->error = std::current_exception();
    }
    state->promise.finish();
}

} // namespace

QObject* networkThreadContext() {
    return networkThread().context();
}

QCoro::Task<UploadService::AsyncUploadResult> uploadInBackground(UploadRequest request, QObject* progressContext,
                                                                 UploadService::UploadProgress onProgress,
                                                                 std::shared_ptr<UploadAbort> abort) {
    if (!abort)
        abort = std::make_shared<UploadAbort>();
    NetworkThread& thread = networkThread();
    thread.track(abort);

    UploadService::UploadHooks hooks;
    hooks.abort = abort;
    if (onProgress) {
        std::shared_ptr<ProgressRelay> relay(new ProgressRelay(progressContext, std::move(onProgress)),
                                             [](ProgressRelay* r) { r->deleteLater(); });
        // Qt reports every chunk; the caller hears of whole percents only.
        hooks.onProgress = [relay, lastPercent = -1](qint64 sent, qint64 total) mutable {
            const int percent = static_cast<int>(sent * 100 / total);
            if (percent == lastPercent)
                return;
            lastPercent = percent;
            QMetaObject::invokeMethod(
                relay.get(), [relay, sent, total] { relay->deliver(sent, total); }, Qt::QueuedConnection);
        };
    }

    auto state = std::make_shared<UploadState>();
    state->promise.start();
    QFuture<void> done = state->promise.future();
    QMetaObject::invokeMethod(
        thread.context(),
        [state, request = std::move(request), hooks = std::move(hooks)]() mutable {
            // A named coroutine with its inputs by value: it outlives this call.
            runUpload(state, std::move(request), std::move(hooks));
        },
        Qt::QueuedConnection);
    co_await done;

    if (g_networkThread)
        g_networkThread->forget(abort);
    if (state->error)
        std::rethrow_exception(state->error);
    co_return std::move(*state->result);
}

} // namespace tavrel
