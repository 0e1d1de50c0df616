// The backend client against the reference backend on loopback: what goes on the wire, and how every
// kind of answer is judged. How the user is told of a failure is checked on the upload workflow.
#include "net/UploadService.h"

#include "ReferenceBackend.h"
#include "core/SettingsManager.h"

#include <QFile>
#include <QRandomGenerator>
#include <QRegularExpression>
#include <cerrno>
#include <gtest/gtest.h>

using namespace tavrel;
using namespace tavrel::test;

namespace {

/// Bytes that would break a careless multipart writer or reader: CR, LF, "--", NUL, high bytes.
QByteArray awkwardBytes(qsizetype size) {
    QByteArray bytes(size, Qt::Uninitialized);
    QRandomGenerator generator(1234);
    for (qsizetype i = 0; i < size; ++i)
        bytes[i] = static_cast<char>(generator.bounded(256));
    return "\r\n--\r\n" + bytes + "\r\n--";
}

class UploadServiceTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(m_backend.isRunning()) << m_backend.describe().toStdString(); }

    QString writeRecording(const QString& name, const QByteArray& bytes = "data") {
        const QString path = m_files.filePath(name);
        QFile file(path);
        EXPECT_TRUE(file.open(QIODevice::WriteOnly));
        file.write(bytes);
        return path;
    }

    /// A plain upload of a small recording.
    Outcome<UploadService::AsyncUploadResult> send(const QString& title = QStringLiteral("t"),
                                                   std::optional<qint64> clientId = std::nullopt) {
        return runTask(UploadService::uploadAsync(writeRecording(QStringLiteral("r.m4a")), title, clientId,
                                                  "professional", "normal", {}));
    }

    /// The next answer of `route`: `status` with `body` as raw bytes.
    void answerOnce(const char* route, int status, const QByteArray& body) {
        m_backend.control(QJsonObject{
            {"fault",
             QJsonObject{{"route", route}, {"status", status}, {"body_hex", QString(body.toHex(' '))}, {"times", 1}}}});
    }

    QString lastRequestPath() const { return m_backend.requests().last().toObject().value("path").toString(); }

    ReferenceBackend m_backend;
    TempDir m_files{QStringLiteral("netrec")};
};

TEST_F(UploadServiceTest, ServerReceivesEveryFieldAndTheFileWithExactFraming) {
    const struct {
        QString title;
        std::optional<qint64> clientId; ///< sent from 1 up
        QString notes;                  ///< sent when not empty
    } cases[] = {{QStringLiteral("Réunion « Dupont » 🎙️"), std::nullopt, {}},
                 {QStringLiteral("t"), 0, {}},
                 {QStringLiteral("t"), -1, {}},
                 {QString(), 1, {}},
                 {QStringLiteral("t"), 42, QStringLiteral("[00:05] Prix\r\n[01:10] Délai « court »")},
                 {QStringLiteral("t"), std::nullopt, QStringLiteral("   ")}};
    // Large enough to go out in several chunks; the name goes raw, in UTF-8.
    const QByteArray audio = awkwardBytes(1024 * 1024 + 7);
    const QString name = QStringLiteral("réunion d'équipe.m4a");
    const QString path = writeRecording(name, audio);
    for (int number = 1; const auto& c : cases) {
        SCOPED_TRACE(number);
        qint64 lastSent = -1;
        qint64 lastTotal = -1;
        const auto outcome = runTask(UploadService::uploadAsync(
            path, c.title, c.clientId, QStringLiteral("revue_dce"), QStringLiteral("approfondie"), c.notes,
            UploadService::UploadHooks{[&](qint64 sent, qint64 total) { lastSent = sent, lastTotal = total; }, {}}));
        ASSERT_TRUE(outcome.value) << outcome.errorText().toStdString();
        const QJsonObject received = m_backend.upload(number);
        EXPECT_TRUE(received.value("accepted").toBool());
        EXPECT_TRUE(received.value("defects").toArray().isEmpty());
        EXPECT_EQ(received.value("path").toString(), "/backend/transcriptions/upload-async");
        EXPECT_EQ(received.value("authorization").toString(), "Bearer ") << "sent even with an empty token";
        EXPECT_EQ(m_backend.uploadFile(number), audio);
        EXPECT_EQ(received.value("files").toArray().at(0).toObject().value("filename").toString(), name);

        // The framing, byte for byte, rebuilt from the boundary the server was told about; the server's own
        // parser agrees on every field.
        const QString contentType = received.value("content_type").toString();
        const auto match = QRegularExpression("^multipart/form-data; boundary=(Boundary-[0-9A-F]{8}-[0-9A-F]{4}-"
                                              "[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{12})$")
                               .match(contentType);
        ASSERT_TRUE(match.hasMatch()) << contentType.toStdString();
        const QByteArray b = match.captured(1).toLatin1();
        QByteArray expected;
        QJsonObject expectedFields;
        const auto field = [&](const char* name, const QString& value) {
            expected += "--" + b + "\r\nContent-Disposition: form-data; name=\"" + name + "\"\r\n\r\n" +
                        value.toUtf8() + "\r\n";
            expectedFields[name] = value;
        };
        field("title", c.title);
        field("synthesis_type", QStringLiteral("revue_dce"));
        field("synthesis_depth", QStringLiteral("approfondie"));
        if (c.clientId.value_or(0) >= 1)
            field("client_id", QString::number(*c.clientId));
        if (!c.notes.isEmpty())
            field("notes", c.notes);
        expected += "--" + b + "\r\nContent-Disposition: form-data; name=\"file\"; filename=\"" + name.toUtf8() +
                    "\"\r\nContent-Type: audio/m4a\r\n\r\n" + audio + "\r\n--" + b + "--\r\n";
        EXPECT_TRUE(m_backend.uploadBody(number) == expected) << "raw body differs";
        EXPECT_EQ(lastSent, expected.size()) << "progress covers the whole body";
        EXPECT_EQ(lastTotal, expected.size());
        EXPECT_EQ(received.value("fields").toObject(), expectedFields);
        if (number > 1) { // each upload has its own boundary
            EXPECT_NE(contentType, m_backend.upload(number - 1).value("content_type").toString());
        }
        ++number;
    }
}

// ----- addresses and headers --------------------------------------------------------------------------------

// The token is read afresh at every request; the base URL is joined to each path as it stands.
TEST_F(UploadServiceTest, TokenAndBaseUrlAreReadAtEveryRequestAndTakenAsTheyStand) {
    m_backend.control(R"({"token": "jeton-1"})");
    SettingsManager::shared().setToken(QStringLiteral("jeton-1"));
    const auto accepted = runTask(UploadService::fetchClients());
    ASSERT_TRUE(accepted.value);
    EXPECT_EQ(accepted.value->size(), 7);
    SettingsManager::shared().setToken(QStringLiteral("jeton-2"));
    SettingsManager::shared().setBackendURL(m_backend.baseURL() + "/");
    const auto refused = runTask(UploadService::fetchClients());
    ASSERT_TRUE(refused.value) << "a refused client list is an empty list, not an error";
    EXPECT_TRUE(refused.value->isEmpty());
    EXPECT_EQ(lastRequestPath(), "/backend//clients");
    runTask(UploadService::pollJob(QStringLiteral("abc")));
    EXPECT_EQ(lastRequestPath(), "/backend//transcriptions/jobs/abc");
}

TEST_F(UploadServiceTest, InvalidUrlFailsEveryOperationBeforeSendingOrReading) {
    const QString missingFile = m_files.filePath(QStringLiteral("absent.m4a"));
    for (const char* url : {"", "http://", "127.0.0.1:8642/backend", "http://exa mple.org/backend",
                            "http://[::1/backend", "https://%zz/backend"}) {
        SCOPED_TRACE(url);
        SettingsManager::shared().setBackendURL(QString::fromUtf8(url));
        const auto upload = runTask(UploadService::uploadAsync(missingFile, "t", 3, "professional", "normal", "n"));
        EXPECT_EQ(upload.errorText(), "URL du serveur invalide");
        EXPECT_EQ(upload.errorAs<UploadFailure>()->code(), UploadError::invalidURL);
        EXPECT_EQ(runTask(UploadService::fetchClients()).errorText(), "URL du serveur invalide");
        EXPECT_EQ(runTask(UploadService::pollJob(QStringLiteral("abc"))).errorText(), "URL du serveur invalide");
    }
    // A valid address with a job id that breaks it.
    SettingsManager::shared().setBackendURL(m_backend.baseURL());
    EXPECT_EQ(runTask(UploadService::pollJob(QStringLiteral("a b"))).errorText(), "URL du serveur invalide");
    EXPECT_TRUE(m_backend.requests().isEmpty());
}

// ----- answers ----------------------------------------------------------------------------------------------

TEST_F(UploadServiceTest, OnlyAnArrayOfObjectsIsAClientList) {
    const struct {
        int status;
        const char* body;
        QStringList expectedNames;
    } cases[] = {{200,
                  R"([{"id":3,"name":"Zoé"},{"id":1,"name":"Albert","x":[1]},{"name":"Sans id"}])",
                  {"Zoé", "Albert", "Sans id"}},
                 {503, R"([{"id":1,"name":"Dupont SA"}])", {"Dupont SA"}}, // the status is not examined
                 {200, "[]", {}},
                 {200, R"({"clients":[{"id":1,"name":"Dupont SA"}]})", {}},
                 {200, R"([{"id":1,"name":"Dupont SA"},2])", {}}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.body);
        answerOnce("clients", c.status, c.body);
        const auto outcome = runTask(UploadService::fetchClients());
        ASSERT_TRUE(outcome.value) << outcome.errorText().toStdString();
        QStringList names;
        for (const QJsonObject& record : *outcome.value)
            names << record.value("name").toString();
        EXPECT_EQ(names, c.expectedNames);
    }
    m_backend.control(R"({"fault": {"route": "clients", "close": true}})");
    EXPECT_TRUE(runTask(UploadService::fetchClients()).errorAs<TransportFailure>());
}

TEST_F(UploadServiceTest, UploadAnswerGivesTheResultOrTheErrorText) {
    const QString bad = QStringLiteral("Réponse inattendue du serveur");
    const QString accents = QStringLiteral("e\u0301").repeated(150);
    const struct {
        int status;
        QByteArray body;
        QString expected; ///< the title on success, else the error text
        bool accepted = false;
    } cases[] = {
        {200, R"({"id":7,"job_id":"abc"})", QStringLiteral("Titre envoyé"), true},
        {201, R"({"id":7.0,"job_id":"abc","title":"Autre"})", QStringLiteral("Autre"), true},
        {200, R"({"id":7,"job_id":"abc","title":5})", QStringLiteral("Titre envoyé"), true},
        {200, R"({"id":"7","job_id":"abc"})", bad},
        {200, R"({"id":7,"job_id":12})", bad},
        {200, R"([{"id":7,"job_id":"abc"}])", bad},
        {502, "\xff\xfe\x41", QStringLiteral("Erreur serveur 502")},
        // The cut keeps 200 characters: a letter with its accent, a flag, each count for one.
        {500, (accents + QStringLiteral("🇫🇷").repeated(150)).toUtf8(),
         "Erreur serveur 500 : " + accents + QStringLiteral("🇫🇷").repeated(50)},
        {400, QStringLiteral("é").repeated(200).toUtf8(), "Erreur serveur 400 : " + QStringLiteral("é").repeated(200)}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.body.left(40).toStdString());
        answerOnce("upload", c.status, c.body);
        const auto outcome = send(QStringLiteral("Titre envoyé"), 5);
        EXPECT_EQ(outcome.value.has_value(), c.accepted);
        EXPECT_EQ(outcome.value ? outcome.value->title : outcome.errorText(), c.expected);
        if (outcome.value) {
            EXPECT_EQ(outcome.value->id, 7);
            EXPECT_EQ(outcome.value->jobId, "abc");
        } else {
            // The details say what came back, whatever the sentence kept of it.
            const QString cause = outcome.errorAs<Error>()->technicalCause();
            EXPECT_TRUE(cause.startsWith(QStringLiteral("HTTP %1").arg(c.status))) << cause.toStdString();
        }
    }
}

// ----- failures: what the details say ------------------------------------------------------------------------

// A server that quotes the request back never gets the token into a message; a recording that shrinks while
// it is sent stops the request (a cut file must never be accepted, the local copy would then be deleted).
TEST_F(UploadServiceTest, FailuresNameTheirCauseNeverTheTokenAndACutRecordingIsNeverSent) {
    SettingsManager::shared().setToken(QStringLiteral("s3cr3t-jeton"));
    answerOnce("upload", 401, "Refused: Authorization: Bearer s3cr3t-jeton");
    const auto refused = send();
    EXPECT_EQ(refused.errorText(), "Erreur serveur 401 : Refused: Authorization: Bearer «jeton masqué»");
    EXPECT_EQ(refused.errorAs<Error>()->technicalCause(), "HTTP 401 : Refused: Authorization: Bearer «jeton masqué»");
    SettingsManager::shared().setToken(QString());

    const QString path = writeRecording(QStringLiteral("long.m4a"), QByteArray(64 << 20, 'a'));
    const auto cut = runTask(UploadService::uploadAsync(path, "t", std::nullopt, "professional", "normal", {},
                                                        UploadService::UploadHooks{[&](qint64 sent, qint64) {
                                                                                       if (sent > (1 << 20))
                                                                                           QFile::resize(path, 1 << 20);
                                                                                   },
                                                                                   {}}),
                             std::chrono::seconds(60));
    ASSERT_TRUE(cut.finished);
    EXPECT_EQ(cut.errorText(), "Le fichier « long.m4a » ne peut pas être lu.");
    EXPECT_TRUE(cut.errorAs<Error>()->technicalCause().contains(QStringLiteral("(errno %1)").arg(ENODATA)))
        << cut.errorAs<Error>()->technicalCause().toStdString();
    for (int number = 1; number <= m_backend.uploadCount(); ++number)
        EXPECT_FALSE(m_backend.upload(number).value("accepted").toBool());
}

// A server whose certificate is not trusted: the sentence says TLS, the details say why.
TEST(UploadServiceTls, AnUntrustedCertificateIsNamedInTheDetails) {
    TempDir certificates(QStringLiteral("tls"));
    const QString certificate = certificates.filePath(QStringLiteral("cert.pem"));
    const QString key = certificates.filePath(QStringLiteral("key.pem"));
    // Spawned, not forked: a test binary under ThreadSanitizer cannot fork once it runs threads.
    ManagedProcess::Options openssl;
    openssl.program = QStringLiteral("openssl");
    openssl.arguments = QStringLiteral("req -x509 -newkey rsa:2048 -nodes -subj /CN=127.0.0.1 -days 1").split(u' ');
    openssl.arguments << QStringLiteral("-keyout") << key << QStringLiteral("-out") << certificate;
    openssl.logPath = certificates.filePath(QStringLiteral("openssl.log"));
    ManagedProcess making;
    ASSERT_TRUE(making.start(openssl)) << making.errorString().toStdString();
    ASSERT_EQ(making.wait(std::chrono::seconds(30)), 0) << making.describe().toStdString();
    ReferenceBackend backend({QStringLiteral("--tls-cert"), certificate, QStringLiteral("--tls-key"), key});
    ASSERT_TRUE(backend.isRunning()) << backend.describe().toStdString();
    ASSERT_TRUE(backend.baseURL().startsWith(QStringLiteral("https://")));
    QFile recording(certificates.filePath(QStringLiteral("r.m4a")));
    ASSERT_TRUE(recording.open(QIODevice::WriteOnly));
    recording.write("audio");
    recording.close();

    const auto outcome =
        runTask(UploadService::uploadAsync(recording.fileName(), "t", std::nullopt, "professional", "normal", {}));
    ASSERT_TRUE(outcome.errorAs<TransportFailure>());
    EXPECT_EQ(outcome.errorText(), "La connexion sécurisée au serveur a échoué (certificat ou TLS).");
    const QString cause = outcome.errorAs<Error>()->technicalCause();
    EXPECT_TRUE(cause.contains(QStringLiteral("self-signed"), Qt::CaseInsensitive)) << cause.toStdString();
    EXPECT_TRUE(cause.contains(QStringLiteral("SslHandshakeFailedError"))) << cause.toStdString();
}

} // namespace
