// The delegate's upload workflow against the reference backend: what the user is told, what stays on disk,
// and the busy mark in the tray, under success and under every failure the backend can produce.
#include "DelegateHarness.h"
#include "core/SettingsManager.h"

#include <gtest/gtest.h>

using namespace tavrel;
using namespace tavrel::test;
using namespace std::chrono_literals;

namespace {

using Notifications = QList<QPair<QString, QString>>;

const QString kUploadedTitle = QStringLiteral("⬆️ Enregistrement envoyé");
const QString kSummarizingTitle = QStringLiteral("📝 Transcription terminée");
const QString kDoneTitle = QStringLiteral("✅ Synthèse prête");
const QString kFailedTitle = QStringLiteral("⚠️ Transcription en échec");
const QString kKeptSuffix = QStringLiteral("\n\nL'enregistrement est conservé sur ce Mac.");

/// Runs uploadFile to its end (job following included).
void upload(DelegateHarness& h, const QString& path, const QString& title = QStringLiteral("Réunion"),
            qint64 clientId = -1, const QString& notes = QStringLiteral("[0:05] Prix")) {
    ASSERT_TRUE(runTask(h.delegate->uploadFile(path, title, clientId, "professional", "normal", notes), 60s).finished);
}

void expectIdle(const DelegateHarness& h) {
    EXPECT_EQ(h.delegate->activeJobs(), 0);
    EXPECT_EQ(h.delegate->statusTitle(), QString());
}

class UploadWorkflowTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(h.backend.isRunning()) << h.backend.describe().toStdString(); }

    DelegateHarness h;
};

TEST_F(UploadWorkflowTest, AcceptedUploadDeletesTheFilesAndFollowsTheJobToTheSummary) {
    const QString path = h.makeRecording(QStringLiteral("tavrel_merged_1731772800.m4a"), "audio", "[0:05] Prix");
    upload(h, path, QStringLiteral("Réunion commune"), 42, QStringLiteral("[0:05] Prix"));

    EXPECT_FALSE(QFile::exists(path));
    EXPECT_FALSE(QFile::exists(DelegateHarness::notesPath(path)));
    EXPECT_EQ(h.backend.fields().value("client_id").toString(), "42");
    EXPECT_EQ(h.backend.fields().value("notes").toString(), "[0:05] Prix");
    EXPECT_EQ(h.notifier->notifications,
              (Notifications{
                  {kUploadedTitle, QStringLiteral("« Réunion commune » — transcription en cours, vous serez notifié.")},
                  {kSummarizingTitle, QStringLiteral("« Réunion commune » — rédaction de la synthèse…")},
                  {kDoneTitle, QStringLiteral("« Réunion commune » est disponible dans TaVREL.")}}));

    // "⬆︎" (with its progress) while sending, "⏳" while following, nothing at the end.
    const QStringList titles = h.statusItem->titles;
    ASSERT_FALSE(titles.isEmpty());
    EXPECT_EQ(titles.first(), QStringLiteral("⬆︎"));
    const qsizetype following = titles.indexOf(QStringLiteral("⏳"));
    ASSERT_GT(following, 0);
    for (qsizetype i = 1; i < following - 1; ++i)
        EXPECT_TRUE(titles[i].startsWith(QStringLiteral("⬆︎ ")) && titles[i].endsWith(" %"))
            << titles[i].toStdString();
    EXPECT_EQ(titles.last(), QString());
    expectIdle(h);
}

TEST_F(UploadWorkflowTest, JobFollowingNotifiesAtEachStage) {
    const QPair<QString, QString> summarizing{kSummarizingTitle,
                                              QStringLiteral("« Titre » — rédaction de la synthèse…")};
    const QPair<QString, QString> done{kDoneTitle, QStringLiteral("« Titre » est disponible dans TaVREL.")};
    const auto failed = [](const char* reason) {
        return qMakePair(kFailedTitle, QStringLiteral("« Titre » : %1. Le texte éventuel est visible dans TaVREL.")
                                           .arg(QString::fromUtf8(reason)));
    };
    const struct {
        const char* sequence;
        Notifications expectedAfterUpload;
    } cases[] = {
        // "summarizing" is told once per entry into it; other statuses, unknown ones and failed polls pass
        // silently; statuses compare case-sensitively.
        {R"(["queued","summarizing","summarizing","transcribing","summarizing",{"status":null},"done"])",
         {summarizing, summarizing, done}},
        {R"([{"http":500},{"http":404},"Summarizing","summarizing",{"http":503},"DONE","done"])", {summarizing, done}},
        {R"(["transcribing",{"status":"error","error":"Audio illisible"}])", {failed("Audio illisible")}},
        {R"([{"status":"error","error":null}])", {failed("erreur inconnue")}}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.sequence);
        h.notifier->notifications.clear();
        h.backend.control({{"sequence", QJsonDocument::fromJson(c.sequence).array()}});
        upload(h, h.makeRecording(QStringLiteral("r.m4a")), QStringLiteral("Titre"));
        Notifications after = h.notifier->notifications;
        ASSERT_FALSE(after.isEmpty());
        EXPECT_EQ(after.takeFirst().first, kUploadedTitle);
        EXPECT_EQ(after, c.expectedAfterUpload);
        expectIdle(h);
    }
}

TEST_F(UploadWorkflowTest, FollowingGivesUpSilentlyAfter540Polls) {
    // A failed poll and the polls that find the job still running all count.
    h.backend.control(R"({"sequence": [{"http": 500, "body": "Panne"}, "transcribing"]})");
    upload(h, h.makeRecording(QStringLiteral("r.m4a")));
    const QString jobId = h.backend.upload(1).value("job_id").toString();
    EXPECT_EQ(h.backend.requestsTo("/backend/transcriptions/jobs/" + jobId), 540);
    EXPECT_EQ(h.notificationTitles(), QStringList{kUploadedTitle});
    expectIdle(h);
}

TEST(UploadWorkflowTwoJobs, TwoJobsKeepTheHourglassUntilTheLastEnds) {
    // Polls far enough apart that the second upload is under way before the first job's only poll.
    DelegateHarness h(300ms);
    ASSERT_TRUE(h.backend.isRunning()) << h.backend.describe().toStdString();
    h.backend.control(R"({"sequence": ["done"]})");
    auto first = h.delegate->uploadFile(h.makeRecording("quick.m4a"), "Rapide", -1, "professional", "normal", {});
    ASSERT_TRUE(waitUntil([&] { return h.backend.uploadCount() == 1; }, 10s));
    h.backend.control(R"({"sequence": ["queued", "queued", "done"]})");
    auto second = h.delegate->uploadFile(h.makeRecording("slow.m4a"), "Lent", -1, "professional", "normal", {});
    ASSERT_TRUE(waitUntil([&] { return h.notificationTitles().count(kDoneTitle) == 1; }, 20s));
    ASSERT_EQ(h.backend.uploadCount(), 2);
    EXPECT_EQ(h.delegate->activeJobs(), 1);
    EXPECT_EQ(h.delegate->statusTitle(), QStringLiteral("⏳"));
    ASSERT_TRUE(waitUntil([&] { return h.notificationTitles().count(kDoneTitle) == 2; }, 20s));
    expectIdle(h);

    // Releasing a mark nobody holds changes nothing.
    h.delegate->setBusyIndicator(false, QStringLiteral("⏳"));
    expectIdle(h);
}

// ----- failures ---------------------------------------------------------------------------------------------

TEST(UploadFailure, UserIsToldAndNothingIsLost) {
    const struct {
        const char* label;
        const char* control;         ///< applied to the backend before the upload; "" for none
        QString expectedDescription; ///< empty: the transport's own text, whatever it is
        QString backendURL = {};     ///< replaces the stored base URL when set
        QString answer = QStringLiteral("Plus tard");
        bool fileMissing = false;
    } cases[] = {
        {"ServerError",
         R"({"fault":{"route":"upload","status":500,"body":""}})",
         "Erreur serveur 500",
         {},
         "Afficher dans le Finder"},
        {"TooLarge", R"({"fault":{"route":"upload","status":413,"body":"Fichier trop volumineux"}})",
         "Erreur serveur 413 : Fichier trop volumineux"},
        {"WrongToken", R"({"token":"secret"})", R"(Erreur serveur 401 : {"detail": "Unauthorized"})"},
        {"NotJson", R"({"fault":{"route":"upload","status":200,"body":"<html>OK</html>"}})",
         "Réponse inattendue du serveur"},
        {"NoJobId", R"({"fault":{"route":"upload","status":200,"body":"{\"id\":3}"}})",
         "Réponse inattendue du serveur"},
        {"Closed", R"({"fault":{"route":"upload","close":true}})", {}},
        {"Truncated", R"({"fault":{"route":"upload","truncate":true,"body":"{\"id\":3,\"job_id\":\"j\"}"}})", {}},
        {"SlowThenError", R"({"fault":{"route":"upload","delay":0.5,"status":503,"body":"Indisponible"}})",
         "Erreur serveur 503 : Indisponible"},
        {"EmptyBaseUrl", "", "URL du serveur invalide", QStringLiteral("")},
        {"NoServer", "", "Connexion refusée par le serveur.", QStringLiteral("http://127.0.0.1:1/backend")},
        {"UnreadableRecording",
         "",
         "Le fichier « disparu.m4a » est introuvable.",
         {},
         QStringLiteral("Plus tard"),
         true}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.label);
        DelegateHarness h;
        ASSERT_TRUE(h.backend.isRunning()) << h.backend.describe().toStdString();
        if (*c.control)
            h.backend.control(c.control);
        if (!c.backendURL.isNull())
            SettingsManager::shared().setBackendURL(c.backendURL);
        const QByteArray audio("précieux", 9);
        const QString path = c.fileMissing ? h.recordingsDir() + QStringLiteral("/disparu.m4a")
                                           : h.makeRecording("tavrel_mic_1731772800.m4a", audio, "[0:01] note");
        // Another job is being followed meanwhile: its mark must survive the failed upload's release.
        h.delegate->setBusyIndicator(true, QStringLiteral("⏳"));
        h.alerts->answer(c.answer);

        upload(h, path);

        ASSERT_EQ(h.alerts->shown().size(), 1u);
        const auto& alert = h.alerts->shown().front();
        EXPECT_EQ(alert.message, "Erreur d'envoi");
        EXPECT_TRUE(alert.informativeText.endsWith(kKeptSuffix));
        const QString description = alert.informativeText.chopped(kKeptSuffix.size());
        if (c.expectedDescription.isEmpty()) {
            EXPECT_FALSE(description.trimmed().isEmpty());
        } else {
            EXPECT_EQ(description, c.expectedDescription);
        }
        EXPECT_EQ(alert.buttons, (QStringList{"Réessayer", "Afficher dans le Finder", "Plus tard"}));
        EXPECT_EQ(h.desktop->revealed,
                  c.answer == "Afficher dans le Finder" ? QList<QStringList>{{path}} : QList<QStringList>{});

        if (c.fileMissing) {
            EXPECT_TRUE(h.backend.requests().isEmpty());
        } else {
            QFile kept(path);
            ASSERT_TRUE(kept.open(QIODevice::ReadOnly));
            EXPECT_EQ(kept.readAll(), audio);
            EXPECT_TRUE(QFile::exists(DelegateHarness::notesPath(path)));
        }
        EXPECT_EQ(h.delegate->activeJobs(), 1);
        EXPECT_EQ(h.delegate->statusTitle(), QStringLiteral("⏳"));
        EXPECT_TRUE(h.notifier->notifications.isEmpty());
        h.delegate->setBusyIndicator(false, QStringLiteral("⏳"));
        expectIdle(h);
    }
}

TEST_F(UploadWorkflowTest, RetrySendsTheSameFieldsAndNotesAgain) {
    h.backend.control(R"({"fault": {"route": "upload", "status": 500, "body": "", "times": 1}})");
    const QString path = h.makeRecording(QStringLiteral("r.m4a"), "audio", "première version");
    h.alerts->answer(QStringLiteral("Réessayer"), [&](const AlertSpec&) {
        // The notes file changes while the alert is up; the retry still sends what was read before.
        DelegateHarness::writeFile(DelegateHarness::notesPath(path), "modifiée");
    });
    upload(h, path, QStringLiteral("Titre"), 9, QStringLiteral("première version"));
    ASSERT_TRUE(waitUntil([&] { return h.notificationTitles().contains(kDoneTitle); }, 20s));

    ASSERT_EQ(h.backend.uploadCount(), 2);
    EXPECT_FALSE(h.backend.upload(1).value("accepted").toBool());
    EXPECT_TRUE(h.backend.uploadBody(1).contains("première version"));
    EXPECT_EQ(h.backend.fields(2),
              jsonObject(R"({"title":"Titre","synthesis_type":"professional",)"
                         R"("synthesis_depth":"normal","client_id":"9","notes":"première version"})"));
    EXPECT_FALSE(QFile::exists(path));
    expectIdle(h);
}

} // namespace
