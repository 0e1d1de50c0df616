#pragma once

#include "net/UploadService.h"

#include <QCoro/QCoroTask>
#include <QObject>
#include <QString>
#include <atomic>
#include <memory>
#include <optional>

namespace tavrel {

/// What an upload sends: the recording and the user's choices.
struct UploadRequest {
    QString fileURL;
    QString title;
    std::optional<qint64> clientId;
    QString synthesisType;
    QString depth;
    QString notes;
};

/// How far an upload running on the network thread has gone; readable from any thread.
struct BodyProgress {
    std::atomic<qint64> sentBytes{0};
    std::atomic<qint64> totalBytes{0}; ///< 0 until the body's size is known
};

/// Runs `UploadService::uploadAsync` on the network thread ("tavrel-net", its own event loop and access
/// manager), so that reading and sending a long recording costs the calling thread nothing; the caller
/// resumes on its own thread with the result, or the exception the upload threw. `progress` (may be null)
/// is kept up to date for the caller to read when it likes; `abort` (may be null) stops the upload from
/// any thread.
QCoro::Task<UploadService::AsyncUploadResult>
uploadInBackground(UploadRequest request, std::shared_ptr<BodyProgress> progress, std::shared_ptr<UploadAbort> abort);

/// The network thread's context object, started on first use and stopped with the application object
/// (its uploads are aborted then). Main thread only.
QObject* networkThreadContext();

} // namespace tavrel
