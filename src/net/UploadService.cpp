#include "UploadService.h"

#include "core/ClientResolver.h"
#include "core/SettingsManager.h"
#include "core/WorkerThread.h"
#include "net/MultipartBody.h"
#include "net/StreamedPost.h"

#include <QCoreApplication>
#include <QCoro/QCoroNetworkReply>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QMetaEnum>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QPointer>
#include <QSslError>
#include <QStringDecoder>
#include <QTextBoundaryFinder>
#include <QThread>
#include <QUrl>
#include <QUuid>
#include <memory>

namespace tavrel {

namespace {

constexpr int kMaxErrorTextCharacters = 200;
const QByteArray kCRLF = QByteArrayLiteral("\r\n");

/// One access manager per thread that talks to the backend (the main thread and the network thread). The
/// main thread's belongs to the application object, so that it goes before Qt's internals do; another
/// thread's goes when that thread ends, on that thread.
QNetworkAccessManager& manager() {
    thread_local QPointer<QNetworkAccessManager> instance;
    thread_local std::unique_ptr<QNetworkAccessManager> ownedByThread;
    if (!instance) {
        auto* created = new QNetworkAccessManager;
        QCoreApplication* app = QCoreApplication::instance();
        if (app && app->thread() == QThread::currentThread())
            created->setParent(app);
        else
            ownedByThread.reset(created);
        instance = created;
    }
    return *instance;
}

struct ReplyDeleter {
    void operator()(QNetworkReply* reply) const { reply->deleteLater(); }
};
using ReplyPtr = std::unique_ptr<QNetworkReply, ReplyDeleter>;

bool isHttpScheme(const QUrl& url) {
    return url.scheme() == QLatin1String("http") || url.scheme() == QLatin1String("https");
}

/// Base URL + path, concatenated as they stand and parsed strictly.
QUrl requestUrl(const QString& path) {
    const QString text = SettingsManager::shared().backendURL() + path;
    const QUrl url(text, QUrl::StrictMode);
    if (!url.isValid() || url.scheme().isEmpty() || (isHttpScheme(url) && url.host().isEmpty()))
        throw UploadFailure::invalidURL(text);
    return url;
}

/// `text` with the access token masked: an answer or an error text may quote the request's headers.
QString withoutToken(QString text) {
    const QString token = SettingsManager::shared().token();
    if (!token.isEmpty())
        text.replace(token, QStringLiteral("«jeton masqué»"));
    return text;
}

/// "HTTP <status>" and the first characters of the body, as the details of a failure show them.
QString httpCause(int statusCode, const QByteArray& body) {
    QString cause = QStringLiteral("HTTP ") + QString::number(statusCode);
    const QString text = QString::fromUtf8(body).trimmed();
    if (!text.isEmpty())
        cause += QStringLiteral(" : ") + firstCharacters(text, kMaxErrorTextCharacters);
    return withoutToken(cause);
}

QNetworkRequest makeRequest(const QUrl& url) {
    QNetworkRequest request(url);
    request.setTransferTimeout(UploadService::kRequestTimeoutMs);
    request.setRawHeader(QByteArrayLiteral("Authorization"),
                         QByteArrayLiteral("Bearer ") + SettingsManager::shared().token().toUtf8());
    return request;
}

/// What came back: an HTTP response (status and body), or the body of some other kind of URL.
struct Response {
    bool isHttp = false;
    int statusCode = 0;
    QByteArray body;
    /// Failure of a non-HTTP URL.
    QNetworkReply::NetworkError otherError = QNetworkReply::NoError;
    QString otherErrorString;
};

/// No complete answer arrived: the connection failed, broke or timed out. Errors that Qt derives from an
/// HTTP status (content and server errors, 400 included) come with the status and the body, which the
/// operations judge themselves.
bool isTransportError(QNetworkReply::NetworkError error, bool hasStatus) {
    if (error == QNetworkReply::NoError)
        return false;
    if (!hasStatus)
        return true;
    return static_cast<int>(error) < 100;
}

/// Sends one GET request and waits for the whole answer.
QCoro::Task<Response> get(QNetworkRequest request) {
    ReplyPtr reply(manager().get(request));
    // The certificate's faults are only told by this signal; the final error just says the handshake failed.
    auto tlsErrors = std::make_shared<QStringList>();
    QObject::connect(reply.get(), &QNetworkReply::sslErrors, reply.get(), [tlsErrors](const QList<QSslError>& errors) {
        for (const QSslError& error : errors)
            tlsErrors->append(error.errorString());
    });
    co_await reply.get();

    const QVariant status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute);
    const QNetworkReply::NetworkError error = reply->error();
    Response response;
    if (isHttpScheme(request.url())) {
        if (isTransportError(error, status.isValid()) || !status.isValid()) {
            throw transportFailure(
                error, reply->errorString(),
                tlsErrors->isEmpty() ? QString() : QStringLiteral("TLS : ") + tlsErrors->join(QStringLiteral(" ; ")));
        }
        response.isHttp = true;
        response.statusCode = status.toInt();
    } else if (error == QNetworkReply::ProtocolUnknownError) {
        throw transportFailure(error, reply->errorString());
    } else {
        // file:, data: and the like answer without any HTTP status; the caller decides what that means.
        response.otherError = error;
        response.otherErrorString = reply->errorString();
    }
    response.body = reply->readAll();
    // A connection closed before the announced end may still come back without an error: a cut answer
    // must not pass for the backend's word.
    const QVariant announced = reply->header(QNetworkRequest::ContentLengthHeader);
    if (response.isHttp && announced.isValid() && reply->rawHeader("Content-Encoding").isEmpty() &&
        response.body.size() < announced.toLongLong()) {
        throw transportFailure(QNetworkReply::RemoteHostClosedError,
                               QStringLiteral("Réponse tronquée : %1 octets reçus sur %2 annoncés")
                                   .arg(response.body.size())
                                   .arg(announced.toLongLong()));
    }
    co_return response;
}

bool isSuccess(int statusCode) {
    return statusCode >= 200 && statusCode <= 299;
}

QString localPath(const QString& fileURL) {
    const QUrl url(fileURL);
    if (url.isLocalFile())
        return url.toLocalFile();
    return fileURL;
}

} // namespace

// ---------------------------------------------------------------------------------------------------------------
// Errors

QString caseName(UploadError error) {
    switch (error) {
    case UploadError::httpError:
        return QStringLiteral("httpError");
    case UploadError::invalidURL:
        return QStringLiteral("invalidURL");
    case UploadError::badResponse:
        return QStringLiteral("badResponse");
    }
    return {};
}

QString firstCharacters(const QString& text, int maxCharacters) {
    QTextBoundaryFinder finder(QTextBoundaryFinder::Grapheme, text);
    int count = 0;
    while (count < maxCharacters) {
        if (finder.toNextBoundary() < 0)
            return text;
        ++count;
    }
    return text.left(finder.position());
}

// The user reads these: the HTTP clients' own texts are English, so the common cases get French ones and
// the rest keep the client's text after a French lead.
TransportFailure transportFailure(int networkError, const QString& clientText, const QString& more) {
    const auto error = static_cast<QNetworkReply::NetworkError>(networkError);
    QString text;
    switch (error) {
    case QNetworkReply::ConnectionRefusedError:
        text = QStringLiteral("Connexion refusée par le serveur.");
        break;
    case QNetworkReply::RemoteHostClosedError:
        text = QStringLiteral("Le serveur a fermé la connexion avant de répondre.");
        break;
    case QNetworkReply::HostNotFoundError:
        text = QStringLiteral("Serveur introuvable.");
        break;
    case QNetworkReply::TimeoutError:
    case QNetworkReply::OperationCanceledError: // what Qt's transfer timeout reports
        text = QStringLiteral("Le serveur ne répond pas (délai dépassé).");
        break;
    case QNetworkReply::SslHandshakeFailedError:
        text = QStringLiteral("La connexion sécurisée au serveur a échoué (certificat ou TLS).");
        break;
    case QNetworkReply::TemporaryNetworkFailureError:
    case QNetworkReply::NetworkSessionFailedError:
        text = QStringLiteral("Le réseau est indisponible.");
        break;
    case QNetworkReply::TooManyRedirectsError:
    case QNetworkReply::InsecureRedirectError:
        text = QStringLiteral("Le serveur redirige la requête de façon incorrecte.");
        break;
    case QNetworkReply::ProtocolUnknownError:
        text = QStringLiteral("Adresse du serveur non prise en charge.");
        break;
    default:
        text = QStringLiteral("Erreur réseau : ") + clientText;
        break;
    }
    QStringList labels;
    if (const char* name = QMetaEnum::fromType<QNetworkReply::NetworkError>().valueToKey(error))
        labels << QLatin1String(name);
    if (!more.isEmpty())
        labels << more;
    const QString cause = labels.isEmpty() ? clientText : clientText + QStringLiteral(" (%1)").arg(labels.join(u", "));
    return TransportFailure(networkError, withoutToken(text), withoutToken(cause));
}

QString UploadFailure::describe(UploadError code, int statusCode, const QString& responseText) {
    switch (code) {
    case UploadError::httpError: {
        QString text = QStringLiteral("Erreur serveur ") + QString::number(statusCode);
        if (!responseText.isEmpty())
            text += QStringLiteral(" : ") + firstCharacters(responseText, kMaxErrorTextCharacters);
        return text;
    }
    case UploadError::invalidURL:
        return QStringLiteral("URL du serveur invalide");
    case UploadError::badResponse:
        return QStringLiteral("Réponse inattendue du serveur");
    }
    return {};
}

UploadFailure::UploadFailure(UploadError code, int statusCode, QString responseText, QString technicalCause)
    : Error(describe(code, statusCode, responseText), std::move(technicalCause)), m_code(code),
      m_statusCode(statusCode), m_responseText(std::move(responseText)) {}

UploadFailure UploadFailure::httpError(int statusCode, const QString& responseText) {
    return httpError(statusCode, responseText, responseText.toUtf8());
}

UploadFailure UploadFailure::httpError(int statusCode, const QString& responseText, const QByteArray& body) {
    // What the server answered may quote the request back, its token included.
    return UploadFailure(UploadError::httpError, statusCode, withoutToken(responseText), httpCause(statusCode, body));
}

UploadFailure UploadFailure::invalidURL() {
    return UploadFailure(UploadError::invalidURL, 0, {}, {});
}

UploadFailure UploadFailure::invalidURL(const QString& url) {
    return UploadFailure(UploadError::invalidURL, 0, {}, QStringLiteral("URL : « %1 »").arg(withoutToken(url)));
}

UploadFailure UploadFailure::badResponse() {
    return UploadFailure(UploadError::badResponse, 0, {}, {});
}

UploadFailure UploadFailure::badResponse(int statusCode, const QByteArray& body) {
    return UploadFailure(UploadError::badResponse, statusCode, {}, httpCause(statusCode, body));
}

// ---------------------------------------------------------------------------------------------------------------
// Requests

QCoro::Task<QList<UploadService::ClientRecord>> UploadService::fetchClients() {
    const QUrl url = requestUrl(QStringLiteral("/clients"));
    const Response response = co_await get(makeRequest(url));
    if (response.otherError != QNetworkReply::NoError)
        throw transportFailure(response.otherError, response.otherErrorString);

    // Whatever the status, only an array made entirely of objects is a client list.
    QList<ClientRecord> clients;
    const QJsonDocument document = QJsonDocument::fromJson(response.body);
    if (!document.isArray())
        co_return clients;
    const QJsonArray array = document.array();
    clients.reserve(array.size());
    for (const QJsonValue& element : array) {
        if (!element.isObject())
            co_return QList<ClientRecord>{};
        clients.append(element.toObject());
    }
    co_return clients;
}

QCoro::Task<UploadService::AsyncUploadResult> UploadService::uploadAsync(QString fileURL, QString title,
                                                                         std::optional<qint64> clientId,
                                                                         QString synthesisType, QString depth,
                                                                         QString notes) {
    // Named: GCC 12 destroys an aggregate temporary of a co_await expression twice.
    const UploadHooks noHooks;
    co_return co_await uploadAsync(std::move(fileURL), std::move(title), clientId, std::move(synthesisType),
                                   std::move(depth), std::move(notes), noHooks);
}

QCoro::Task<UploadService::AsyncUploadResult> UploadService::uploadAsync(QString fileURL, QString title,
                                                                         std::optional<qint64> clientId,
                                                                         QString synthesisType, QString depth,
                                                                         QString notes, UploadHooks hooks) {
    const QUrl url = requestUrl(QStringLiteral("/transcriptions/upload-async"));

    const QByteArray boundary =
        QByteArrayLiteral("Boundary-") + QUuid::createUuid().toString(QUuid::WithoutBraces).toUpper().toLatin1();
    const QList<QByteArray> headers{QByteArrayLiteral("Authorization: Bearer ") +
                                        SettingsManager::shared().token().toUtf8(),
                                    QByteArrayLiteral("Content-Type: multipart/form-data; boundary=") + boundary};

    const QString path = localPath(fileURL);
    QByteArray head;
    appendField(head, boundary, QStringLiteral("title"), title);
    appendField(head, boundary, QStringLiteral("synthesis_type"), synthesisType);
    appendField(head, boundary, QStringLiteral("synthesis_depth"), depth);
    if (clientId && *clientId >= 1)
        appendField(head, boundary, QStringLiteral("client_id"), QString::number(*clientId));
    if (!notes.isEmpty())
        appendField(head, boundary, QStringLiteral("notes"), notes);
    head += "--" + boundary + kCRLF;
    head += "Content-Disposition: form-data; name=\"file\"; filename=\"" + QFileInfo(path).fileName().toUtf8() + "\"" +
            kCRLF;
    head += "Content-Type: audio/m4a" + kCRLF + kCRLF;
    // The file's bytes go between the two, read from disk as they are sent. Opened here: an unreadable
    // recording fails before anything is sent.
    const auto body = std::make_shared<MultipartBody>(std::move(head), path, kCRLF + "--" + boundary + "--" + kCRLF);

    // A thread of its own for the transfer: a long recording takes as long as it takes, in large pieces,
    // without holding the caller's thread or any other upload.
    WorkerThread sender("tavrel-upload");
    const QByteArray target = url.toEncoded();
    const auto post = [target, headers, body, hooks] {
        return postStreamed(target, headers, *body, std::chrono::milliseconds(kUploadTimeoutMs), hooks);
    };
    const HttpAnswer response = co_await sender.run(post);
    if (!isSuccess(response.statusCode)) {
        QStringDecoder decoder(QStringDecoder::Utf8, QStringDecoder::Flag::Stateless);
        QString text = decoder.decode(response.body);
        if (decoder.hasError())
            text.clear();
        throw UploadFailure::httpError(response.statusCode, text, response.body);
    }

    const QJsonDocument document = QJsonDocument::fromJson(response.body);
    if (!document.isObject())
        throw UploadFailure::badResponse(response.statusCode, response.body);
    const QJsonObject answer = document.object();
    const std::optional<qint64> id = exactInteger(answer.value(QLatin1String("id")));
    const QJsonValue jobId = answer.value(QLatin1String("job_id"));
    if (!id || !jobId.isString())
        throw UploadFailure::badResponse(response.statusCode, response.body);
    const QJsonValue answeredTitle = answer.value(QLatin1String("title"));
    co_return AsyncUploadResult{*id, jobId.toString(), answeredTitle.isString() ? answeredTitle.toString() : title};
}

QCoro::Task<UploadService::JobState> UploadService::pollJob(QString jobId) {
    const QUrl url = requestUrl(QStringLiteral("/transcriptions/jobs/") + jobId);
    const Response response = co_await get(makeRequest(url));
    if (!response.isHttp)
        throw UploadFailure::badResponse();
    // The answer's text is not part of a poll's error, but its details keep it.
    if (!isSuccess(response.statusCode))
        throw UploadFailure::httpError(response.statusCode, QString(), response.body);

    const QJsonObject answer = QJsonDocument::fromJson(response.body).object();
    JobState state;
    const QJsonValue status = answer.value(QLatin1String("status"));
    state.status = status.isString() ? status.toString() : QStringLiteral("unknown");
    const QJsonValue error = answer.value(QLatin1String("error"));
    if (error.isString())
        state.error = error.toString();
    co_return state;
}

void UploadService::appendField(QByteArray& body, const QByteArray& boundary, const QString& name,
                                const QString& value) {
    body += "--" + boundary + kCRLF;
    body += "Content-Disposition: form-data; name=\"" + name.toUtf8() + "\"" + kCRLF + kCRLF;
    body += value.toUtf8() + kCRLF;
}

} // namespace tavrel
