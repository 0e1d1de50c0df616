// The backend client against the reference backend on loopback: what goes on the wire, and how every
// kind of answer is judged. How the user is told of a failure is checked on the upload workflow.
#include "net/UploadService.h"

#include "ReferenceBackend.h"
#include "core/SettingsManager.h"

#include <QFile>
#include <QRandomGenerator>
#include <QRegularExpression>
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
    bytes.replace(0, 6, "\r\n--\r\n");
    return bytes + "\r\n--";
}

QString repeated(const QString& unit, int count) {
    return unit.repeated(count);
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

    QString lastRequestPath() const { return m_backend.requests().last().toObject().value("path").toString(); }

    ReferenceBackend m_backend;
    TempDir m_files{QStringLiteral("netrec")};
};

// ----- the upload body -------------------------------------------------------------------------------------

struct BodyCase {
    const char* label;
    QString title;
    std::optional<qint64> clientId;
    QString notes;
    bool clientSent;
};

class UploadBodyTest : public UploadServiceTest, public ::testing::WithParamInterface<BodyCase> {};

TEST_P(UploadBodyTest, ServerReceivesEveryFieldAndTheFileWithExactFraming) {
    const BodyCase& c = GetParam();
    const QByteArray audio = awkwardBytes(64 * 1024 + 7);
    const QString path = writeRecording(QStringLiteral("tavrel_merged_1731772800.m4a"), audio);

    const auto outcome = runTask(UploadService::uploadAsync(path, c.title, c.clientId, QStringLiteral("revue_dce"),
                                                            QStringLiteral("approfondie"), c.notes));
    ASSERT_TRUE(outcome.value) << outcome.errorText().toStdString();

    ASSERT_EQ(m_backend.uploadCount(), 1);
    const QJsonObject received = m_backend.upload(1);
    EXPECT_TRUE(received.value("accepted").toBool());
    EXPECT_TRUE(received.value("defects").toArray().isEmpty());
    EXPECT_EQ(received.value("path").toString(), "/backend/transcriptions/upload-async");
    EXPECT_EQ(received.value("authorization").toString(), "Bearer ") << "sent even with an empty token";
    EXPECT_EQ(m_backend.uploadFile(1), audio);

    // The framing, byte for byte, rebuilt from the boundary the server was told about; the server's own
    // parser agrees on every field and on the file's headers.
    const QString contentType = received.value("content_type").toString();
    const auto match = QRegularExpression("^multipart/form-data; boundary=(Boundary-[0-9A-F]{8}-[0-9A-F]{4}-"
                                          "[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{12})$")
                           .match(contentType);
    ASSERT_TRUE(match.hasMatch()) << contentType.toStdString();
    const QByteArray b = match.captured(1).toLatin1();
    QByteArray expected;
    QJsonObject expectedFields;
    const auto field = [&](const char* name, const QString& value) {
        expected +=
            "--" + b + "\r\nContent-Disposition: form-data; name=\"" + name + "\"\r\n\r\n" + value.toUtf8() + "\r\n";
        expectedFields[name] = value;
    };
    field("title", c.title);
    field("synthesis_type", QStringLiteral("revue_dce"));
    field("synthesis_depth", QStringLiteral("approfondie"));
    if (c.clientSent)
        field("client_id", QString::number(*c.clientId));
    if (!c.notes.isEmpty())
        field("notes", c.notes);
    expected += "--" + b +
                "\r\nContent-Disposition: form-data; name=\"file\"; filename=\"tavrel_merged_1731772800.m4a\""
                "\r\nContent-Type: audio/m4a\r\n\r\n" +
                audio + "\r\n--" + b + "--\r\n";
    EXPECT_TRUE(m_backend.uploadBody(1) == expected) << "raw body differs";
    EXPECT_EQ(received.value("fields").toObject(), expectedFields);
    const QJsonObject file = received.value("files").toArray().at(0).toObject();
    EXPECT_EQ(file.value("filename").toString(), "tavrel_merged_1731772800.m4a");
    EXPECT_EQ(file.value("content_type").toString(), "audio/m4a");
}

INSTANTIATE_TEST_SUITE_P(
    Fields, UploadBodyTest,
    ::testing::Values(
        BodyCase{"NoClientNoNotes", QStringLiteral("Réunion « Dupont » 🎙️"), std::nullopt, {}, false},
        BodyCase{"ClientZero", QStringLiteral("t"), 0, {}, false},
        BodyCase{"ClientNegative", QStringLiteral("t"), -1, {}, false},
        BodyCase{"ClientAndNotes", QStringLiteral("t"), 42, QStringLiteral("[00:05] Prix\r\n[01:10] Délai « court »"),
                 true},
        BodyCase{"NotesOfSpaces", QStringLiteral("t"), std::nullopt, QStringLiteral("   "), false},
        BodyCase{"EmptyTitleClientOne", QString(), 1, {}, true}),
    [](const auto& info) { return std::string(info.param.label); });

TEST_F(UploadServiceTest, EachUploadHasItsOwnBoundaryAndTheAnswerGivesTheResult) {
    const auto first = send(QStringLiteral("Un"));
    const auto second = send(QStringLiteral("Deux"));
    ASSERT_TRUE(first.value && second.value);
    EXPECT_NE(m_backend.upload(1).value("content_type"), m_backend.upload(2).value("content_type"));
    EXPECT_EQ(first.value->id, 1);
    EXPECT_EQ(second.value->id, 2);
    EXPECT_EQ(first.value->jobId, m_backend.upload(1).value("job_id").toString());
    EXPECT_EQ(second.value->title, "Deux");
}

TEST_F(UploadServiceTest, FileNameGoesRawAndProgressCoversTheWholeBody) {
    const QString name = QStringLiteral("réunion d'équipe.m4a");
    qint64 lastSent = -1;
    qint64 lastTotal = -1;
    const auto outcome = runTask(UploadService::uploadAsync(
        writeRecording(name, awkwardBytes(3 * 1024 * 1024)), "x", std::nullopt, "professional", "normal", {},
        [&](qint64 sent, qint64 total) { lastSent = sent, lastTotal = total; }));
    ASSERT_TRUE(outcome.value) << outcome.errorText().toStdString();
    const QByteArray body = m_backend.uploadBody(1);
    EXPECT_TRUE(body.contains("filename=\"" + name.toUtf8() + "\"\r\n"));
    EXPECT_EQ(m_backend.upload(1).value("files").toArray().at(0).toObject().value("filename").toString(), name);
    EXPECT_EQ(lastTotal, body.size());
    EXPECT_EQ(lastSent, body.size());
}

// ----- addresses and headers --------------------------------------------------------------------------------

TEST_F(UploadServiceTest, TokenIsReadAtEveryRequest) {
    m_backend.control(R"({"token": "jeton-1"})");
    SettingsManager::shared().setToken(QStringLiteral("jeton-1"));
    const auto accepted = runTask(UploadService::fetchClients());
    ASSERT_TRUE(accepted.value);
    EXPECT_EQ(accepted.value->size(), 7);
    SettingsManager::shared().setToken(QStringLiteral("jeton-2"));
    const auto refused = runTask(UploadService::fetchClients());
    ASSERT_TRUE(refused.value) << "a refused client list is an empty list, not an error";
    EXPECT_TRUE(refused.value->isEmpty());
}

TEST_F(UploadServiceTest, BaseUrlIsConcatenatedAsItStands) {
    SettingsManager::shared().setBackendURL(m_backend.baseURL() + "/");
    ASSERT_TRUE(runTask(UploadService::fetchClients()).value);
    EXPECT_EQ(lastRequestPath(), "/backend//clients");
    runTask(UploadService::pollJob(QStringLiteral("abc")));
    EXPECT_EQ(lastRequestPath(), "/backend//transcriptions/jobs/abc");
}

class InvalidUrlTest : public UploadServiceTest, public ::testing::WithParamInterface<const char*> {};

TEST_P(InvalidUrlTest, EveryOperationFailsBeforeSendingOrReading) {
    SettingsManager::shared().setBackendURL(QString::fromUtf8(GetParam()));
    const QString missingFile = m_files.filePath(QStringLiteral("absent.m4a"));
    const auto upload = runTask(UploadService::uploadAsync(missingFile, "t", 3, "professional", "normal", "n"));
    EXPECT_EQ(upload.errorText(), "URL du serveur invalide");
    EXPECT_EQ(upload.errorAs<UploadFailure>()->code(), UploadError::invalidURL);
    EXPECT_EQ(runTask(UploadService::fetchClients()).errorText(), "URL du serveur invalide");
    EXPECT_EQ(runTask(UploadService::pollJob(QStringLiteral("abc"))).errorText(), "URL du serveur invalide");
    EXPECT_TRUE(m_backend.requests().isEmpty());
}

INSTANTIATE_TEST_SUITE_P(Addresses, InvalidUrlTest,
                         ::testing::Values("", "http://", "127.0.0.1:8642/backend", "http://exa mple.org/backend",
                                           "http://[::1/backend", "https://%zz/backend"));

TEST_F(UploadServiceTest, JobIdThatBreaksTheUrlIsAnInvalidUrl) {
    EXPECT_EQ(runTask(UploadService::pollJob(QStringLiteral("a b"))).errorText(), "URL du serveur invalide");
    EXPECT_TRUE(m_backend.requests().isEmpty());
}

// ----- client list ------------------------------------------------------------------------------------------

struct ClientsCase {
    const char* label;
    int status;
    const char* body;
    QStringList expectedNames;
};

class ClientListTest : public UploadServiceTest, public ::testing::WithParamInterface<ClientsCase> {};

TEST_P(ClientListTest, OnlyAnArrayOfObjectsIsAList) {
    const ClientsCase& c = GetParam();
    m_backend.control({{"fault", QJsonObject{{"route", "clients"}, {"status", c.status}, {"body", c.body}}}});
    const auto outcome = runTask(UploadService::fetchClients());
    ASSERT_TRUE(outcome.value) << outcome.errorText().toStdString();
    QStringList names;
    for (const QJsonObject& record : *outcome.value)
        names << record.value("name").toString();
    EXPECT_EQ(names, c.expectedNames);
}

INSTANTIATE_TEST_SUITE_P(
    Shapes, ClientListTest,
    ::testing::Values(ClientsCase{"ArrayOfObjects",
                                  200,
                                  R"([{"id":3,"name":"Zoé"},{"id":1,"name":"Albert","x":[1]},{"name":"Sans id"}])",
                                  {"Zoé", "Albert", "Sans id"}},
                      ClientsCase{"StatusNotExamined", 503, R"([{"id":1,"name":"Dupont SA"}])", {"Dupont SA"}},
                      ClientsCase{"EmptyArray", 200, "[]", {}},
                      ClientsCase{"Object", 200, R"({"clients":[{"id":1,"name":"Dupont SA"}]})", {}},
                      ClientsCase{"ArrayWithNonObject", 200, R"([{"id":1,"name":"Dupont SA"},2])", {}},
                      ClientsCase{"NotJson", 200, "<html>Bad gateway</html>", {}}, ClientsCase{"Empty", 204, "", {}}),
    [](const auto& info) { return std::string(info.param.label); });

TEST_F(UploadServiceTest, ClientListTransportFailuresAreThrown) {
    m_backend.control(R"({"fault": {"route": "clients", "close": true}})");
    EXPECT_TRUE(runTask(UploadService::fetchClients()).errorAs<TransportFailure>());
}

// ----- upload answers (the failures' texts as the user sees them are checked on the workflow) ----------------

struct AnswerCase {
    const char* label;
    QJsonObject fault;
    QString expectedError;      ///< empty: success expected
    QString expectedTitle = {}; ///< on success
};

class UploadAnswerTest : public UploadServiceTest, public ::testing::WithParamInterface<AnswerCase> {};

TEST_P(UploadAnswerTest, AnswerIsJudgedAsSpecified) {
    const AnswerCase& c = GetParam();
    QJsonObject fault = c.fault;
    fault["route"] = "upload";
    m_backend.control({{"fault", fault}});
    const auto outcome = send(QStringLiteral("Titre envoyé"), 5);
    if (!c.expectedError.isEmpty()) {
        EXPECT_FALSE(outcome.value);
        EXPECT_EQ(outcome.errorText(), c.expectedError);
        return;
    }
    ASSERT_TRUE(outcome.value) << outcome.errorText().toStdString();
    EXPECT_EQ(outcome.value->id, 7);
    EXPECT_EQ(outcome.value->jobId, "abc");
    EXPECT_EQ(outcome.value->title, c.expectedTitle);
}

const QString kBadResponse = QStringLiteral("Réponse inattendue du serveur");

INSTANTIATE_TEST_SUITE_P(
    Answers, UploadAnswerTest,
    ::testing::Values(
        AnswerCase{
            "Minimal", jsonObject(R"({"status":200,"body":"{\"id\":7,\"job_id\":\"abc\"}"})"), {}, "Titre envoyé"},
        AnswerCase{"Created",
                   jsonObject(R"({"status":201,"body":"{\"id\":7.0,\"job_id\":\"abc\",\"title\":\"Autre\"}"})"),
                   {},
                   "Autre"},
        AnswerCase{"NumericTitle",
                   jsonObject(R"({"status":200,"body":"{\"id\":7,\"job_id\":\"abc\",\"title\":5}"})"),
                   {},
                   "Titre envoyé"},
        AnswerCase{"IdAsString", jsonObject(R"({"status":200,"body":"{\"id\":\"7\",\"job_id\":\"abc\"}"})"),
                   kBadResponse},
        AnswerCase{"FractionalId", jsonObject(R"({"status":200,"body":"{\"id\":7.5,\"job_id\":\"abc\"}"})"),
                   kBadResponse},
        AnswerCase{"NumericJobId", jsonObject(R"({"status":200,"body":"{\"id\":7,\"job_id\":12}"})"), kBadResponse},
        AnswerCase{"Array", jsonObject(R"({"status":200,"body":"[{\"id\":7,\"job_id\":\"abc\"}]"})"), kBadResponse},
        AnswerCase{"NotUtf8", jsonObject(R"({"status":502,"body_hex":"ff fe 41"})"), "Erreur serveur 502"},
        AnswerCase{
            "LongAccentedText",
            QJsonObject{{"status", 500}, {"body", repeated(QStringLiteral("e\u0301"), 150) + repeated("🇫🇷", 150)}},
            "Erreur serveur 500 : " + repeated(QStringLiteral("e\u0301"), 150) + repeated("🇫🇷", 50)},
        AnswerCase{"Exactly200", QJsonObject{{"status", 400}, {"body", repeated(QStringLiteral("é"), 200)}},
                   "Erreur serveur 400 : " + repeated(QStringLiteral("é"), 200)}),
    [](const auto& info) { return std::string(info.param.label); });

// ----- job state --------------------------------------------------------------------------------------------

struct PollCase {
    const char* label;
    const char* step; ///< one item of the server's job sequence
    QString expectedStatus;
    std::optional<QString> expectedError;
    QString expectedFailure = {};
};

class PollTest : public UploadServiceTest, public ::testing::WithParamInterface<PollCase> {};

TEST_P(PollTest, StateIsReadAsSpecified) {
    const PollCase& c = GetParam();
    m_backend.control({{"sequence", QJsonDocument::fromJson(QByteArray("[") + c.step + "]").array()}});
    const auto upload = send();
    ASSERT_TRUE(upload.value);
    const auto state = runTask(UploadService::pollJob(upload.value->jobId));
    EXPECT_EQ(lastRequestPath(), "/backend/transcriptions/jobs/" + upload.value->jobId);
    if (!c.expectedFailure.isEmpty()) {
        EXPECT_EQ(state.errorText(), c.expectedFailure);
        return;
    }
    ASSERT_TRUE(state.value) << state.errorText().toStdString();
    EXPECT_EQ(state.value->status, c.expectedStatus);
    EXPECT_EQ(state.value->error, c.expectedError);
}

INSTANTIATE_TEST_SUITE_P(
    States, PollTest,
    ::testing::Values(
        PollCase{"Plain", R"("transcribing")", "transcribing", std::nullopt},
        PollCase{"NullStatus", R"({"status":null})", "unknown", std::nullopt},
        PollCase{"NumericStatus", R"({"status":3,"error":4})", "unknown", std::nullopt},
        PollCase{"DoneNullError", R"({"status":"done","error":null})", "done", std::nullopt},
        PollCase{"ErrorText", R"({"status":"error","error":"Audio illisible"})", "error",
                 QStringLiteral("Audio illisible")},
        PollCase{"NotAnObject", R"(["done"])", "unknown", std::nullopt},
        PollCase{"GarbledBody", R"({"http":200,"body":"pas du json"})", "unknown", std::nullopt},
        PollCase{"ServerErrorDropsText", R"({"http":500,"body":"Panne"})", {}, std::nullopt, "Erreur serveur 500"},
        PollCase{"NotFound", R"({"http":404,"body":"{\"detail\":\"x\"}"})", {}, std::nullopt, "Erreur serveur 404"}),
    [](const auto& info) { return std::string(info.param.label); });

} // namespace
