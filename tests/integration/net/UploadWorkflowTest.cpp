// The delegate's upload workflow against the reference backend, its dialogs and the unsent-recordings alert
// answered programmatically: what the user is told, what stays on disk, and the busy mark in the tray, under
// success and under each kind of failure (the text of every answer is checked on the backend client).
#include "DelegateHarness.h"
#include "core/Log.h"
#include "core/SettingsManager.h"
#include "ui/UploadDialog.h"

#include <QAbstractButton>
#include <QButtonGroup>
#include <QCheckBox>
#include <QComboBox>
#include <QLineEdit>
#include <QRegularExpression>
#include <QThread>
#include <gtest/gtest.h>
#include <utime.h>

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

    int clientFetches() const { return h.backend.requestsTo(QStringLiteral("/backend/clients")); }

    /// Opens the upload dialog for `path` and waits until every queued answer has been used and no job is
    /// followed any more.
    void runDialog(const QString& path) {
        h.delegate->showUploadDialog(path);
        ASSERT_TRUE(waitUntil([&] { return h.alerts->pendingAnswers() == 0; }, 20s));
        // An upload, if any, starts on a later turn of the event loop.
        waitUntil([] { return false; }, 50ms);
        ASSERT_TRUE(waitUntil([&] { return h.delegate->activeJobs() == 0; }, 20s));
    }

    DelegateHarness h;
};

// ----- the upload dialog, answered programmatically -------------------------------------------------------------

UploadDialog* formOf(const AlertSpec& alertSpec) {
    return qobject_cast<UploadDialog*>(alertSpec.accessory);
}

/// Fills the form as a user would: title, client (checkbox on when a text is given), segments.
ScriptedAlertPresenter::Action fill(QString title, std::optional<QString> client = std::nullopt, int type = -1,
                                    int depth = -1) {
    return [=](const AlertSpec& alertSpec) {
        UploadDialog* form = formOf(alertSpec);
        ASSERT_NE(form, nullptr);
        form->titleField()->setText(title);
        if (client) {
            form->clientCheckBox()->setChecked(true);
            form->clientField()->setEditText(*client);
        }
        if (type >= 0)
            form->synthesisTypeGroup()->button(type)->click();
        if (depth >= 0)
            form->depthGroup()->button(depth)->click();
    };
}

// What the form says is sent with the notes file; the recording and its notes go once the backend has them,
// the job is followed to its summary, and the tray shows "⬆︎" while sending (progress in the tooltip only),
// "⏳" while following, nothing at the end.
TEST_F(UploadWorkflowTest, SendUsesTheFormAndTheNotesFileAndFollowsTheJobToTheSummary) {
    const struct {
        ScriptedAlertPresenter::Action fill;
        QByteArray notes;
        const char* expectedFields;
    } cases[] = {{fill(QStringLiteral("Réunion commune"), QStringLiteral("dupont sa "), 1, 2),
                  "[0:03] Début\n[1:10] Fin",
                  R"({"title":"Réunion commune","client_id":"1","synthesis_type":"revue_dce",)"
                  R"("synthesis_depth":"approfondie","notes":"[0:03] Début\n[1:10] Fin"})"},
                 // Notes that are not UTF-8 are sent empty, so not at all.
                 {fill(QString()), QByteArray("\xff\xfe note", 7),
                  R"({"title":"Enregistrement","synthesis_type":"professional","synthesis_depth":"normal"})"},
                 // Blank title and client are taken as typed, without "Client introuvable".
                 {fill(QStringLiteral("   "), QStringLiteral("   ")),
                  {},
                  R"({"title":"   ","synthesis_type":"professional","synthesis_depth":"normal"})"}};
    for (int number = 1; const auto& c : cases) {
        SCOPED_TRACE(c.expectedFields);
        h.notifier->notifications.clear();
        h.statusItem->titles.clear();
        h.statusItem->details.clear();
        h.alerts->answer(QStringLiteral("Envoyer"), c.fill);
        const QString path = h.makeRecording(QStringLiteral("tavrel_merged_%1.m4a").arg(number), "audio", c.notes);
        runDialog(path);
        ASSERT_EQ(h.alerts->shown().size(), size_t(number));
        const auto& alert = h.alerts->shown().back();
        EXPECT_EQ(alert.message, "Enregistrement terminé");
        EXPECT_EQ(alert.informativeText, "Options de transcription :");
        EXPECT_EQ(alert.buttons, (QStringList{"Envoyer", "Annuler"}));
        EXPECT_TRUE(alert.hadAccessory);
        ASSERT_TRUE(waitUntil([&] { return h.backend.uploadCount() == number; }, 10s));
        const QJsonObject expected = jsonObject(c.expectedFields);
        EXPECT_EQ(h.backend.fields(number++), expected);
        ASSERT_TRUE(waitUntil(
            [&] {
                const QStringList& titles = h.statusItem->titles;
                return h.notificationTitles().contains(kDoneTitle) && !titles.isEmpty() && titles.last().isEmpty();
            },
            20s));
        EXPECT_FALSE(QFile::exists(path));
        EXPECT_FALSE(QFile::exists(DelegateHarness::notesPath(path)));

        const QString title = expected.value("title").toString();
        EXPECT_EQ(h.notifier->notifications,
                  (Notifications{{kUploadedTitle,
                                  QStringLiteral("« %1 » — transcription en cours, vous serez notifié.").arg(title)},
                                 {kSummarizingTitle, QStringLiteral("« %1 » — rédaction de la synthèse…").arg(title)},
                                 {kDoneTitle, QStringLiteral("« %1 » est disponible dans TaVREL.").arg(title)}}));
        const QStringList titles = h.statusItem->titles;
        ASSERT_FALSE(titles.isEmpty());
        EXPECT_EQ(titles.first(), QStringLiteral("⬆︎"));
        EXPECT_GT(titles.indexOf(QStringLiteral("⏳")), titles.lastIndexOf(QStringLiteral("⬆︎")));
        for (const QString& shown : titles)
            EXPECT_TRUE(shown.isEmpty() || shown == QStringLiteral("⬆︎") || shown == QStringLiteral("⏳"))
                << shown.toStdString();
        EXPECT_EQ(titles.last(), QString());
        const QStringList details = h.statusItem->details;
        ASSERT_GE(details.size(), 2);
        const QRegularExpression progress(
            QStringLiteral("^Envoi de « %1 » : \\d+ %$").arg(QRegularExpression::escape(title)));
        for (qsizetype i = 0; i + 1 < details.size(); ++i)
            EXPECT_TRUE(progress.match(details[i]).hasMatch()) << details[i].toStdString();
        EXPECT_EQ(details.last(), QString());
        expectIdle(h);
    }
}

// Back to the form gives a fresh form (and fetches the client list again); an unknown client can then be
// sent without one.
TEST_F(UploadWorkflowTest, BackToTheFormStartsAfreshAndAnUnknownClientCanBeSentWithoutClient) {
    h.alerts->answer(QStringLiteral("Envoyer"), fill(QStringLiteral("Premier essai"), QStringLiteral("Martin"), 2, 0));
    h.alerts->answer(QStringLiteral("Revenir au formulaire"));
    bool freshForm = false;
    h.alerts->answer(QStringLiteral("Envoyer"), [&](const AlertSpec& alertSpec) {
        const UploadDialog* form = formOf(alertSpec);
        freshForm = form && form->titleText().isEmpty() && !form->isClientChecked() && form->clientText().isEmpty() &&
                    form->synthesisType() == "professional" && form->depth() == "normal";
        fill(QStringLiteral("t"), QStringLiteral(" dup "))(alertSpec);
    });
    h.alerts->answer(QStringLiteral("Envoyer sans client"));
    runDialog(h.makeRecording(QStringLiteral("r.m4a"), "audio", "note"));
    EXPECT_EQ(h.alerts->shownMessages(), (QStringList{"Enregistrement terminé", "Client introuvable",
                                                      "Enregistrement terminé", "Client introuvable"}));
    EXPECT_TRUE(freshForm);
    EXPECT_EQ(clientFetches(), 2) << "the new form fetches the list again";
    const auto& notFound = h.alerts->shown()[3];
    EXPECT_EQ(notFound.informativeText, "Aucun client ne correspond à «  dup  ». Envoyer sans client ?");
    EXPECT_EQ(notFound.buttons, (QStringList{"Envoyer sans client", "Revenir au formulaire"}));
    ASSERT_TRUE(waitUntil([&] { return h.backend.uploadCount() == 1; }, 10s));
    EXPECT_FALSE(h.backend.fields().contains("client_id"));
}

TEST_F(UploadWorkflowTest, UnreachableClientListStillOpensTheDialogAndCancelKeepsTheRecording) {
    h.backend.control(R"({"fault": {"route": "clients", "close": true}})");
    const QString path = h.makeRecording(QStringLiteral("r.m4a"), "audio", "note");
    int items = -1;
    h.alerts->answer(QStringLiteral("Annuler"),
                     [&](const AlertSpec& alertSpec) { items = formOf(alertSpec)->clientField()->count(); });
    runDialog(path);
    EXPECT_EQ(h.alerts->shownMessages(), QStringList{"Enregistrement terminé"});
    EXPECT_EQ(items, 0);
    EXPECT_EQ(h.notifier->notifications,
              (Notifications{
                  {QStringLiteral("Enregistrement conservé"),
                   QStringLiteral("Non envoyé — il vous sera proposé au prochain lancement d'TaVREL Recorder.")}}));
    EXPECT_EQ(h.backend.uploadCount(), 0);
    EXPECT_TRUE(QFile::exists(path));
    EXPECT_TRUE(QFile::exists(DelegateHarness::notesPath(path)));
}

// ----- recordings left unsent -----------------------------------------------------------------------------------

/// A recording made `minutesAgo` minutes ago: created in that order, and dated so by its modification time
/// for file systems that keep no creation time.
QString recordingFrom(DelegateHarness& h, const QString& name, int minutesAgo) {
    const QString path = h.makeRecording(name);
    const qint64 when = QDateTime::currentDateTime().addSecs(-60 * minutesAgo).toSecsSinceEpoch();
    const utimbuf times{when, when};
    utime(QFile::encodeName(path).constData(), &times);
    QThread::msleep(20); // creation times of successive files must differ even on coarse clocks
    return path;
}

TEST_F(UploadWorkflowTest, OnlyRecordingsCountAndLaterOrShowInFileManagerChangeNothing) {
    h.makeRecording(QStringLiteral("a.notes.txt"), "note");
    h.makeRecording(QStringLiteral("m4a"), "no extension");
    QDir(h.recordingsDir()).mkpath(QStringLiteral("sub"));
    h.makeRecording(QStringLiteral("sub/deep.m4a"), "not directly inside");
    h.delegate->checkPendingRecordings();
    EXPECT_TRUE(h.alerts->shown().empty());
    EXPECT_TRUE(h.alerts->unexpected().isEmpty());

    // Created at 09:00, 10:00, 11:00 in that order; listed by name they would come otherwise.
    const QString nine = recordingFrom(h, QStringLiteral("b.m4a"), 120);
    const QString ten = recordingFrom(h, QStringLiteral(".cache.M4A"), 60);
    const QString eleven = recordingFrom(h, QStringLiteral("a.m4a"), 0);
    const QStringList before = QDir(h.recordingsDir()).entryList(QDir::Files | QDir::Hidden);
    h.alerts->answer(QStringLiteral("Plus tard"));
    h.delegate->checkPendingRecordings();
    EXPECT_EQ(QDir(h.recordingsDir()).entryList(QDir::Files | QDir::Hidden), before);
    EXPECT_TRUE(h.desktop->revealed.isEmpty());
    h.alerts->answer(QStringLiteral("Afficher dans le Finder"));
    h.delegate->checkPendingRecordings();

    ASSERT_EQ(h.alerts->shown().size(), 2u);
    for (const auto& alert : h.alerts->shown()) {
        EXPECT_EQ(alert.message, "3 enregistrement(s) non envoyé(s)");
        EXPECT_EQ(alert.informativeText, "Des enregistrements attendent d'être envoyés pour transcription.");
        EXPECT_EQ(alert.buttons, (QStringList{"Envoyer maintenant", "Afficher dans le Finder", "Plus tard"}));
    }
    EXPECT_EQ(h.desktop->revealed, QList<QStringList>{(QStringList{eleven, ten, nine})});
    EXPECT_EQ(h.backend.uploadCount(), 0);
}

// ----- following the job ----------------------------------------------------------------------------------------

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
        // "summarizing" is told once per entry into it; other statuses, unknown ones (not a text, not an
        // object, not JSON) and failed polls pass silently; statuses compare case-sensitively.
        {R"(["queued","summarizing","summarizing","transcribing","summarizing",{"status":null},"done"])",
         {summarizing, summarizing, done}},
        {R"([{"http":500},{"http":404,"body":"{\"detail\":\"x\"}"},"Summarizing",{"status":3,"error":4},["done"],)"
         R"({"http":200,"body":"pas du json"},"summarizing",{"http":503},"DONE",{"status":"done","error":null}])",
         {summarizing, done}},
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
    QStringList log;
    const LogCapture capture([&](const QString& line) { log << line; });
    upload(h, h.makeRecording(QStringLiteral("r.m4a")));
    // The failed poll is logged once, the server's text dropped from the sentence and kept in the cause.
    EXPECT_EQ(log.filter(QStringLiteral("interrogation échouée : Erreur serveur 500 — HTTP 500 : Panne")).size(), 1)
        << log.join(u'\n').toStdString();
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

// ----- failures -------------------------------------------------------------------------------------------------

TEST(UploadFailure, UserIsToldAndNothingIsLost) {
    const struct {
        const char* label;
        const char* control;         ///< applied to the backend before the upload; "" for none
        QString expectedDescription; ///< empty: the transport's own text, whatever it is
        QString expectedDetails;     ///< what the alert's details and the log line must contain
        QString backendURL = {};     ///< replaces the stored base URL when set
        QString answer = QStringLiteral("Plus tard");
        bool fileMissing = false;
    } cases[] = {
        {"ServerError",
         R"({"fault":{"route":"upload","status":500,"body":""}})",
         "Erreur serveur 500",
         "HTTP 500",
         {},
         "Afficher dans le Finder"},
        {"Closed", R"({"fault":{"route":"upload","close":true}})", {}, "RemoteHostClosedError"},
        // Cut short after a usable start: whether Qt calls it an error or not, never an acceptance.
        {"Truncated", R"({"fault":{"route":"upload","truncate":true,"body":"{\"id\":3,\"job_id\":\"j\"}"}})", {}, {}},
        {"EmptyBaseUrl", "", "URL du serveur invalide", "URL : « /transcriptions/upload-async »", QStringLiteral("")},
        {"NoServer", "", "Connexion refusée par le serveur.", "ConnectionRefusedError",
         QStringLiteral("http://127.0.0.1:1/backend")},
        {"UnreadableRecording",
         "",
         "Le fichier « disparu.m4a » est introuvable.",
         "(errno 2)",
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
        QStringList log;
        const LogCapture capture([&](const QString& line) { log << line; });

        upload(h, path);

        ASSERT_EQ(h.alerts->shown().size(), 1u);
        const auto& alert = h.alerts->shown().front();
        EXPECT_EQ(alert.message, "Erreur d'envoi");
        // Which recording it is about; what the system said, in the details and in one log line.
        EXPECT_TRUE(alert.windowTitle.startsWith(
            c.fileMissing ? QStringLiteral("Enregistrement « disparu.m4a »")
                          : QDateTime::fromSecsSinceEpoch(1731772800)
                                .toString(QStringLiteral("'Enregistrement du 'dd/MM/yyyy' à 'HH:mm"))))
            << alert.windowTitle.toStdString();
        EXPECT_TRUE(alert.details.contains(c.expectedDetails)) << alert.details.toStdString();
        ASSERT_EQ(log.size(), 1) << log.join(u'\n').toStdString();
        EXPECT_TRUE(log.first().startsWith(QStringLiteral("[Upload] Échec de l'envoi de « ")));
        EXPECT_TRUE(log.first().contains(alert.details)) << log.first().toStdString();
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

// ----- quitting -------------------------------------------------------------------------------------------------

// Quitting asks while a recording is being sent (it would stay to be sent at the next launch), and only then.
TEST_F(UploadWorkflowTest, QuittingDuringAnUploadAsksFirst) {
    h.delegate->requestQuit();
    EXPECT_EQ(h.quits, 1);
    EXPECT_TRUE(h.alerts->shown().empty());

    h.backend.control(R"({"fault": {"route": "upload", "delay": 2, "times": 1}, "sequence": ["done"]})");
    const QString path = h.makeRecording(QStringLiteral("r.m4a"));
    auto sending = h.delegate->uploadFile(path, QStringLiteral("Réunion"), -1, "professional", "normal", {});
    ASSERT_EQ(h.delegate->uploadsInFlight(), 1);
    h.alerts->answer(QStringLiteral("Continuer l'envoi"));
    h.delegate->requestQuit();
    EXPECT_EQ(h.quits, 1);
    h.alerts->answer(QStringLiteral("Quitter quand même"));
    h.delegate->requestQuit();
    EXPECT_EQ(h.quits, 2);
    ASSERT_EQ(h.alerts->shown().size(), 2u);
    EXPECT_EQ(h.alerts->shown()[0].message, "Envoi en cours");
    EXPECT_TRUE(h.alerts->shown()[0].informativeText.startsWith(QStringLiteral("« Réunion » n'est pas encore")));
    EXPECT_EQ(h.alerts->shown()[0].buttons, (QStringList{"Continuer l'envoi", "Quitter quand même"}));

    // Kept sending: the recording goes only once the backend has it.
    EXPECT_TRUE(QFile::exists(path));
    ASSERT_TRUE(waitUntil([&] { return h.notificationTitles().contains(kDoneTitle); }, 20s));
    EXPECT_FALSE(QFile::exists(path));
}

} // namespace
