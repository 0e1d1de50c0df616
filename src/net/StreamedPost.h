#pragma once

#include "net/MultipartBody.h"
#include "net/UploadService.h"

#include <QByteArray>
#include <QList>
#include <chrono>

namespace tavrel {

/// What the server answered.
struct HttpAnswer {
    int statusCode = 0;
    QByteArray body;
};

/// POSTs `body` to `url` with `headers` ("Name: value") through libcurl, reading the body as the connection
/// takes it in large pieces. Blocks until the answer is in: for a thread of its own. Gives up after
/// `inactivityTimeout` without any byte going either way. `hooks.onProgress` is called on this thread;
/// `hooks.abort` stops the transfer within about a second. Throws `TransportFailure` when no complete answer
/// came (its technical cause is libcurl's own message), or the body's file error when the recording could
/// not be read to its end.
HttpAnswer postStreamed(const QByteArray& url, const QList<QByteArray>& headers, MultipartBody& body,
                        std::chrono::milliseconds inactivityTimeout, const UploadService::UploadHooks& hooks);

} // namespace tavrel
