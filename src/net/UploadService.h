#pragma once

#include "core/Error.h"

#include <QByteArray>
#include <QCoro/QCoroTask>
#include <QJsonObject>
#include <QList>
#include <QString>
#include <atomic>
#include <functional>
#include <memory>
#include <optional>

namespace tavrel {

/// The backend's own failures. Transport failures and unreadable files are reported with their own
/// errors (`TransportFailure`, `Error`), not with these.
enum class UploadError { httpError, invalidURL, badResponse };
QString caseName(UploadError error);

/// A failure of the backend client, carrying the status and response text of an `httpError`. Its
/// technical cause is "HTTP <status>" and the first 200 characters of the answer's body.
class UploadFailure : public Error {
public:
    static UploadFailure httpError(int statusCode, const QString& responseText);
    static UploadFailure invalidURL();
    static UploadFailure badResponse();
    /// The same with what the backend answered, for the details: `body` is the raw answer.
    static UploadFailure httpError(int statusCode, const QString& responseText, const QByteArray& body);
    static UploadFailure invalidURL(const QString& url);
    static UploadFailure badResponse(int statusCode, const QByteArray& body);

    UploadError code() const noexcept { return m_code; }
    int statusCode() const noexcept { return m_statusCode; }
    const QString& responseText() const noexcept { return m_responseText; }
    QString debugDescription() const override { return caseName(m_code); }

    /// "Erreur serveur <code>[ : <first 200 characters of the text>]", "URL du serveur invalide",
    /// "Réponse inattendue du serveur".
    static QString describe(UploadError code, int statusCode = 0, const QString& responseText = {});

private:
    UploadFailure(UploadError code, int statusCode, QString responseText, QString technicalCause);

    UploadError m_code;
    int m_statusCode = 0;
    QString m_responseText;
};

/// The HTTP client could not get an answer (refused connection, timeout, TLS failure...). The
/// description is a French sentence; the technical cause is the client's own text (with the
/// certificate's faults for a TLS failure).
class TransportFailure : public Error {
public:
    TransportFailure(int networkError, const QString& description, const QString& technicalCause = {})
        : Error(description, technicalCause), m_networkError(networkError) {}
    /// QNetworkReply::NetworkError of the failed request.
    int networkError() const noexcept { return m_networkError; }

private:
    int m_networkError;
};

/// The first `maxCharacters` user-perceived characters (grapheme clusters) of `text`.
QString firstCharacters(const QString& text, int maxCharacters);

/// A transport failure as the user reads it (a French sentence for `networkError`, a
/// QNetworkReply::NetworkError) with its technical cause: the HTTP client's own text, the error's name and
/// `more` (the certificate's faults, libcurl's code). The token never appears in it.
TransportFailure transportFailure(int networkError, const QString& clientText, const QString& more = {});

/// Lets another thread stop an upload in flight (after the computer woke up, for instance): the upload
/// then throws `TransportFailure` with QNetworkReply::OperationCanceledError, within about a second.
class UploadAbort {
public:
    void abort() { m_aborted = true; }
    bool isAborted() const { return m_aborted; }

private:
    std::atomic<bool> m_aborted{false};
};

/// The client of the transcription backend. Stateless: every call reads the backend address and the
/// token from the settings store afresh, so a change applies to the next request. Calls must be made
/// from a thread that runs a Qt event loop: the small requests go through Qt's access manager of that
/// thread; an upload goes through libcurl on a thread of its own, the recording read from disk as it is
/// sent, and resumes the caller when the answer is in. The token never appears in an error's text.
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

    /// What the caller may follow or change of an upload: `onProgress` runs on the upload's own thread.
    struct UploadHooks {
        UploadProgress onProgress;
        std::shared_ptr<UploadAbort> abort;
    };

    static constexpr int kRequestTimeoutMs = 60 * 1000;
    static constexpr int kUploadTimeoutMs = 600 * 1000;

    /// The client list; empty whenever the answer is not a JSON array of objects. Throws only for an
    /// invalid URL and transport failures.
    static QCoro::Task<QList<ClientRecord>> fetchClients();

    /// Posts the recording with the user's choices as one multipart form, the file streamed from disk.
    /// `clientId` is sent only when it is at least 1, `notes` only when not empty.
    static QCoro::Task<AsyncUploadResult> uploadAsync(QString fileURL, QString title, std::optional<qint64> clientId,
                                                      QString synthesisType, QString depth, QString notes);
    /// The same, reporting the progress of the body's sending, and abortable.
    static QCoro::Task<AsyncUploadResult> uploadAsync(QString fileURL, QString title, std::optional<qint64> clientId,
                                                      QString synthesisType, QString depth, QString notes,
                                                      UploadHooks hooks);

    /// The state of a transcription job.
    static QCoro::Task<JobState> pollJob(QString jobId);

private:
    static void appendField(QByteArray& body, const QByteArray& boundary, const QString& name, const QString& value);
};

} // namespace tavrel
