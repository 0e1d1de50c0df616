#pragma once

#include "core/Error.h"

#include <QByteArray>
#include <QCoro/QCoroTask>
#include <QJsonObject>
#include <QList>
#include <QString>
#include <functional>
#include <optional>

namespace tavrel {

/// The backend's own failures. Transport failures and unreadable files are reported with their own
/// errors (`TransportFailure`, `Error`), not with these.
enum class UploadError { httpError, invalidURL, badResponse };
QString caseName(UploadError error);

/// A failure of the backend client, carrying the status and response text of an `httpError`.
class UploadFailure : public Error {
public:
    static UploadFailure httpError(int statusCode, const QString& responseText);
    static UploadFailure invalidURL();
    static UploadFailure badResponse();

    UploadError code() const noexcept { return m_code; }
    int statusCode() const noexcept { return m_statusCode; }
    const QString& responseText() const noexcept { return m_responseText; }
    QString debugDescription() const override { return caseName(m_code); }

    /// "Erreur serveur <code>[ : <first 200 characters of the text>]", "URL du serveur invalide",
    /// "Réponse inattendue du serveur".
    static QString describe(UploadError code, int statusCode = 0, const QString& responseText = {});

private:
    UploadFailure(UploadError code, int statusCode, QString responseText);

    UploadError m_code;
    int m_statusCode = 0;
    QString m_responseText;
};

/// The HTTP client could not get an answer (refused connection, timeout, TLS failure...). The
/// description is the client's own.
class TransportFailure : public Error {
public:
    TransportFailure(int networkError, const QString& description) : Error(description), m_networkError(networkError) {}
    /// QNetworkReply::NetworkError of the failed request.
    int networkError() const noexcept { return m_networkError; }

private:
    int m_networkError;
};

/// The first `maxCharacters` user-perceived characters (grapheme clusters) of `text`.
QString firstCharacters(const QString& text, int maxCharacters);

/// The client of the transcription backend. Stateless: every call reads the backend address and the
/// token from the settings store afresh, so a change applies to the next request. Calls must be made
/// from a thread that runs a Qt event loop (the main thread in this program).
class UploadService {
public:
    /// A client record exactly as the backend sent it.
    using ClientRecord = QJsonObject;

    struct AsyncUploadResult {
        qint64 id = 0;
        QString jobId;
        QString title;
    };

    struct JobState {
        QString status;
        std::optional<QString> error;
    };

    /// Bytes sent so far and the body's size, while an upload's body goes out.
    using UploadProgress = std::function<void(qint64 sentBytes, qint64 totalBytes)>;

    static constexpr int kRequestTimeoutMs = 60 * 1000;
    static constexpr int kUploadTimeoutMs = 600 * 1000;

    /// The client list; empty whenever the answer is not a JSON array of objects. Throws only for an
    /// invalid URL and transport failures.
    static QCoro::Task<QList<ClientRecord>> fetchClients();

    /// Posts the recording with the user's choices as one multipart form. `clientId` is sent only when
    /// it is at least 1, `notes` only when not empty.
    static QCoro::Task<AsyncUploadResult> uploadAsync(QString fileURL, QString title, std::optional<qint64> clientId,
                                                      QString synthesisType, QString depth, QString notes);
    /// The same, reporting the progress of the body's sending.
    static QCoro::Task<AsyncUploadResult> uploadAsync(QString fileURL, QString title, std::optional<qint64> clientId,
                                                      QString synthesisType, QString depth, QString notes,
                                                      UploadProgress onProgress);

    /// The state of a transcription job.
    static QCoro::Task<JobState> pollJob(QString jobId);

private:
    static void appendField(QByteArray& body, const QByteArray& boundary, const QString& name, const QString& value);
};

} // namespace tavrel
