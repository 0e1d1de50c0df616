#pragma once

#include "net/UploadService.h"

#include <QCoro/QCoroTask>
#include <QObject>
#include <QString>
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

/// Runs `UploadService::uploadAsync` on the network thread ("tavrel-net", its own event loop and access
/// manager), so that reading and sending a long recording costs the calling thread nothing but the
/// progress events; the caller resumes on its own thread with the result, or the exception the upload
/// threw. `onProgress` runs on the caller's thread, at most once per percent, while `progressContext`
/// lives. `abort` (may be null) stops the upload from any thread.
QCoro::Task<UploadService::AsyncUploadResult> uploadInBackground(UploadRequest request, QObject* progressContext,
                                                                 UploadService::UploadProgress onProgress,
                                                                 std::shared_ptr<UploadAbort> abort);

/// The network thread's context object, started on first use and stopped with the application object
/// (its uploads are aborted then). Main thread only.
QObject* networkThreadContext();

} // namespace tavrel
