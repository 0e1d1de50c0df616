#include "UploadService.h"

#include "core/ClientResolver.h"
#include "core/SettingsManager.h"

#include <QCoreApplication>
#include <QCoro/QCoroNetworkReply>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QPointer>
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

/// One access manager per thread that talks to the backend (only the main thread in this program).
/// Owned by the application object, or by the thread, so that it goes before Qt's internals do.
QNetworkAccessManager& manager() {
    thread_local QPointer<QNetworkAccessManager> instance;
    if (!instance) {
        instance = new QNetworkAccessManager;
        QCoreApplication* app = QCoreApplication::instance();
        if (app && app->thread() == QThread::currentThread())
            instance->setParent(app);
        else
            QObject::connect(QThread::currentThread(), &QThread::finished, instance.data(), &QObject::deleteLater);
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
    const QUrl url(SettingsManager::shared().backendURL() + path, QUrl::StrictMode);
    if (!url.isValid() || url.scheme().isEmpty() || (isHttpScheme(url) && url.host().isEmpty()))
        throw UploadFailure::invalidURL();
    return url;
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

/// The user reads these: Qt's own texts are English, so the common cases get French ones and the rest
/// keep Qt's text after a French lead.
TransportFailure transportFailure(QNetworkReply::NetworkError error, const QString& qtText) {
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
    case QNetworkReply::OperationCanceledError: // what a transfer timeout reports; we cancel nothing else
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
        text = QStringLiteral("Erreur réseau : ") + qtText;
        break;
    }
    return TransportFailure(static_cast<int>(error), text);
}

Error fileFailure(const QString& path, const QString& qtText) {
    const QFileInfo info(path);
    if (!info.exists())
        return Error(QStringLiteral("Le fichier « %1 » est introuvable.").arg(info.fileName()));
    if (!info.isReadable())
        return Error(QStringLiteral("Le fichier « %1 » n'est pas lisible (accès refusé).").arg(info.fileName()));
    return Error(QStringLiteral("Le fichier « %1 » ne peut pas être lu : %2").arg(info.fileName(), qtText));
}

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

QCoro::Task<Response> send(QNetworkRequest request, QByteArray verb, QByteArray body,
                           UploadService::UploadProgress onProgress = {}) {
    ReplyPtr reply;
    if (verb == "POST")
        reply.reset(manager().post(request, body));
    else
        reply.reset(manager().get(request));
    // The reply holds its own reference to the body; dropping ours keeps a single copy in memory.
    body = QByteArray();
    if (onProgress) {
        QObject::connect(reply.get(), &QNetworkReply::uploadProgress, reply.get(),
                         [onProgress](qint64 sent, qint64 total) {
                             // Qt also reports (0, 0) once the request is done; that is no progress.
                             if (total > 0)
                                 onProgress(sent, total);
                         });
    }
    co_await reply.get();

    const QVariant status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute);
    const QNetworkReply::NetworkError error = reply->error();
    Response response;
    if (isHttpScheme(request.url())) {
        if (isTransportError(error, status.isValid()) || !status.isValid())
            throw transportFailure(error, reply->errorString());
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

/// The whole file appended to `body`, read straight into the buffer so that a large recording is held
/// only once.
void appendFileContents(QByteArray& body, const QString& path) {
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        throw fileFailure(path, file.errorString());
    const qint64 expected = file.size();
    const qsizetype start = body.size();
    body.resize(start + expected);
    const qint64 read = file.read(body.data() + start, expected);
    if (read < 0)
        throw fileFailure(path, file.errorString());
    body.resize(start + read);
    // The file may have grown since its size was taken.
    while (!file.atEnd()) {
        const QByteArray rest = file.read(1 << 20);
        if (rest.isEmpty()) {
            if (file.error() != QFileDevice::NoError)
                throw fileFailure(path, file.errorString());
            break;
        }
        body.append(rest);
    }
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

UploadFailure::UploadFailure(UploadError code, int statusCode, QString responseText)
    : Error(describe(code, statusCode, responseText)), m_code(code), m_statusCode(statusCode),
      m_responseText(std::move(responseText)) {}

UploadFailure UploadFailure::httpError(int statusCode, const QString& responseText) {
    return UploadFailure(UploadError::httpError, statusCode, responseText);
}

UploadFailure UploadFailure::invalidURL() {
    return UploadFailure(UploadError::invalidURL, 0, {});
}

UploadFailure UploadFailure::badResponse() {
    return UploadFailure(UploadError::badResponse, 0, {});
}

// ---------------------------------------------------------------------------------------------------------------
// Requests

QCoro::Task<QList<UploadService::ClientRecord>> UploadService::fetchClients() {
    const QUrl url = requestUrl(QStringLiteral("/clients"));
    const Response response = co_await send(makeRequest(url), QByteArrayLiteral("GET"), {});
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
    co_return co_await uploadAsync(std::move(fileURL), std::move(title), clientId, std::move(synthesisType),
                                   std::move(depth), std::move(notes), UploadProgress{});
}

QCoro::Task<UploadService::AsyncUploadResult> UploadService::uploadAsync(QString fileURL, QString title,
                                                                         std::optional<qint64> clientId,
                                                                         QString synthesisType, QString depth,
                                                                         QString notes, UploadProgress onProgress) {
    const QUrl url = requestUrl(QStringLiteral("/transcriptions/upload-async"));

    const QByteArray boundary =
        QByteArrayLiteral("Boundary-") + QUuid::createUuid().toString(QUuid::WithoutBraces).toUpper().toLatin1();
    QNetworkRequest request = makeRequest(url);
    request.setRawHeader(QByteArrayLiteral("Content-Type"),
                         QByteArrayLiteral("multipart/form-data; boundary=") + boundary);
    request.setTransferTimeout(kUploadTimeoutMs);

    const QString path = localPath(fileURL);
    QByteArray body;
    appendField(body, boundary, QStringLiteral("title"), title);
    appendField(body, boundary, QStringLiteral("synthesis_type"), synthesisType);
    appendField(body, boundary, QStringLiteral("synthesis_depth"), depth);
    if (clientId && *clientId >= 1)
        appendField(body, boundary, QStringLiteral("client_id"), QString::number(*clientId));
    if (!notes.isEmpty())
        appendField(body, boundary, QStringLiteral("notes"), notes);
    body += "--" + boundary + kCRLF;
    body += "Content-Disposition: form-data; name=\"file\"; filename=\"" + QFileInfo(path).fileName().toUtf8() + "\"" +
            kCRLF;
    body += "Content-Type: audio/m4a" + kCRLF + kCRLF;
    appendFileContents(body, path);
    body += kCRLF + "--" + boundary + "--" + kCRLF;

    const Response response =
        co_await send(std::move(request), QByteArrayLiteral("POST"), std::move(body), std::move(onProgress));
    if (!response.isHttp)
        throw UploadFailure::badResponse();
    if (!isSuccess(response.statusCode)) {
        QStringDecoder decoder(QStringDecoder::Utf8, QStringDecoder::Flag::Stateless);
        QString text = decoder.decode(response.body);
        if (decoder.hasError())
            text.clear();
        throw UploadFailure::httpError(response.statusCode, text);
    }

    const QJsonDocument document = QJsonDocument::fromJson(response.body);
    if (!document.isObject())
        throw UploadFailure::badResponse();
    const QJsonObject answer = document.object();
    const std::optional<qint64> id = exactInteger(answer.value(QLatin1String("id")));
    const QJsonValue jobId = answer.value(QLatin1String("job_id"));
    if (!id || !jobId.isString())
        throw UploadFailure::badResponse();
    const QJsonValue answeredTitle = answer.value(QLatin1String("title"));
    co_return AsyncUploadResult{*id, jobId.toString(), answeredTitle.isString() ? answeredTitle.toString() : title};
}

QCoro::Task<UploadService::JobState> UploadService::pollJob(QString jobId) {
    const QUrl url = requestUrl(QStringLiteral("/transcriptions/jobs/") + jobId);
    const Response response = co_await send(makeRequest(url), QByteArrayLiteral("GET"), {});
    if (!response.isHttp)
        throw UploadFailure::badResponse();
    if (!isSuccess(response.statusCode))
        throw UploadFailure::httpError(response.statusCode, QString());

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
