#include "net/StreamedPost.h"

#include <QNetworkReply>
#include <curl/curl.h>
#include <memory>
#include <mutex>

namespace tavrel {

namespace {

constexpr long kUploadBufferBytes = 512 * 1024;
constexpr std::chrono::milliseconds kConnectTimeoutMs{UploadService::kRequestTimeoutMs};
// An answer is a few hundred bytes; more than this is not read.
constexpr qsizetype kMaxAnswerBytes = 4 * 1024 * 1024;

struct CurlDeleter {
    void operator()(CURL* handle) const { curl_easy_cleanup(handle); }
};
struct CurlListDeleter {
    void operator()(curl_slist* list) const { curl_slist_free_all(list); }
};

struct Transfer {
    MultipartBody& body;
    const UploadService::UploadHooks& hooks;
    QByteArray answer;
};

size_t readBody(char* buffer, size_t size, size_t count, void* userdata) {
    auto* transfer = static_cast<Transfer*>(userdata);
    const qint64 read = transfer->body.read(buffer, static_cast<qint64>(size * count));
    return read < 0 ? CURL_READFUNC_ABORT : static_cast<size_t>(read);
}

size_t writeAnswer(char* data, size_t size, size_t count, void* userdata) {
    auto* transfer = static_cast<Transfer*>(userdata);
    const size_t bytes = size * count;
    if (transfer->answer.size() < kMaxAnswerBytes)
        transfer->answer.append(data, static_cast<qsizetype>(bytes));
    return bytes;
}

int onTransferInfo(void* userdata, curl_off_t, curl_off_t, curl_off_t uploadTotal, curl_off_t uploaded) {
    auto* transfer = static_cast<Transfer*>(userdata);
    if (transfer->hooks.abort && transfer->hooks.abort->isAborted())
        return 1;
    if (transfer->hooks.onProgress && uploadTotal > 0)
        transfer->hooks.onProgress(uploaded, uploadTotal);
    return 0;
}

/// libcurl's failure in the words (and the error codes) the rest of the backend client uses.
TransportFailure failureOf(CURLcode code, const char* message) {
    QNetworkReply::NetworkError error = QNetworkReply::UnknownNetworkError;
    switch (code) {
    case CURLE_COULDNT_CONNECT:
        error = QNetworkReply::ConnectionRefusedError;
        break;
    case CURLE_COULDNT_RESOLVE_HOST:
    case CURLE_COULDNT_RESOLVE_PROXY:
        error = QNetworkReply::HostNotFoundError;
        break;
    case CURLE_OPERATION_TIMEDOUT:
        error = QNetworkReply::TimeoutError;
        break;
    case CURLE_GOT_NOTHING:
    case CURLE_RECV_ERROR:
    case CURLE_SEND_ERROR:
    case CURLE_PARTIAL_FILE:
        error = QNetworkReply::RemoteHostClosedError;
        break;
    case CURLE_SSL_CONNECT_ERROR:
    case CURLE_PEER_FAILED_VERIFICATION:
    case CURLE_SSL_CERTPROBLEM:
    case CURLE_SSL_CIPHER:
    case CURLE_SSL_CACERT_BADFILE:
        error = QNetworkReply::SslHandshakeFailedError;
        break;
    case CURLE_UNSUPPORTED_PROTOCOL:
        error = QNetworkReply::ProtocolUnknownError;
        break;
    case CURLE_ABORTED_BY_CALLBACK:
        error = QNetworkReply::OperationCanceledError;
        break;
    default:
        break;
    }
    const QString text = message && *message ? QString::fromUtf8(message) : QString::fromUtf8(curl_easy_strerror(code));
    return transportFailure(error, text, QStringLiteral("curl %1").arg(static_cast<int>(code)));
}

} // namespace

HttpAnswer postStreamed(const QByteArray& url, const QList<QByteArray>& headers, MultipartBody& body,
                        std::chrono::milliseconds inactivityTimeout, const UploadService::UploadHooks& hooks) {
    static std::once_flag initialized;
    std::call_once(initialized, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });

    const std::unique_ptr<CURL, CurlDeleter> handle(curl_easy_init());
    if (!handle)
        throw transportFailure(QNetworkReply::UnknownNetworkError, QStringLiteral("curl_easy_init"), {});
    std::unique_ptr<curl_slist, CurlListDeleter> headerList;
    for (const QByteArray& header : headers)
        headerList.reset(curl_slist_append(headerList.release(), header.constData()));
    // No "Expect: 100-continue": the body goes at once, as the backend expects it.
    headerList.reset(curl_slist_append(headerList.release(), "Expect:"));

    Transfer transfer{body, hooks, {}};
    char message[CURL_ERROR_SIZE] = {};
    CURL* curl = handle.get();
    curl_easy_setopt(curl, CURLOPT_URL, url.constData());
    curl_easy_setopt(curl, CURLOPT_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(curl, CURLOPT_POST, 1L);
    curl_easy_setopt(curl, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body.size()));
    curl_easy_setopt(curl, CURLOPT_READFUNCTION, &readBody);
    curl_easy_setopt(curl, CURLOPT_READDATA, &transfer);
    curl_easy_setopt(curl, CURLOPT_UPLOAD_BUFFERSIZE, kUploadBufferBytes);
    curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headerList.get());
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, &writeAnswer);
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, &transfer);
    curl_easy_setopt(curl, CURLOPT_NOPROGRESS, 0L);
    curl_easy_setopt(curl, CURLOPT_XFERINFOFUNCTION, &onTransferInfo);
    curl_easy_setopt(curl, CURLOPT_XFERINFODATA, &transfer);
    curl_easy_setopt(curl, CURLOPT_ERRORBUFFER, message);
    curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(kConnectTimeoutMs.count()));
    // Inactivity, not the whole transfer: a long recording on a slow line takes as long as it takes.
    curl_easy_setopt(curl, CURLOPT_LOW_SPEED_LIMIT, 1L);
    curl_easy_setopt(curl, CURLOPT_LOW_SPEED_TIME,
                     static_cast<long>(std::chrono::duration_cast<std::chrono::seconds>(inactivityTimeout).count()));

    const CURLcode result = curl_easy_perform(curl);
    if (body.failure())
        throw *body.failure();
    if (result != CURLE_OK)
        throw failureOf(result, message);
    long status = 0;
    curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &status);
    return HttpAnswer{static_cast<int>(status), std::move(transfer.answer)};
}

} // namespace tavrel
