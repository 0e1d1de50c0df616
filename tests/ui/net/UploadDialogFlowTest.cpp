// The upload dialog and the unsent-recordings alert answered programmatically, with the delegate talking to
// the reference backend.
#include "DelegateHarness.h"
#include "ui/UploadDialog.h"

#include <QAbstractButton>
#include <QButtonGroup>
#include <QCheckBox>
#include <QComboBox>
#include <QLineEdit>
#include <QThread>
#include <gtest/gtest.h>
#include <utime.h>

using namespace tavrel;
using namespace tavrel::test;
using namespace std::chrono_literals;

namespace {

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

class UploadDialogFlowTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(h.backend.isRunning()) << h.backend.describe().toStdString(); }

    int clientFetches() const { return h.backend.requestsTo(QStringLiteral("/backend/clients")); }

    /// Opens the dialog for `path` and waits until every queued answer has been used and the upload, if
    /// any, has been followed to its end.
    void runDialog(const QString& path) {
        h.delegate->showUploadDialog(path);
        ASSERT_TRUE(waitUntil([&] { return h.alerts->pendingAnswers() == 0; }, 20s));
        // An upload, if any, starts on a later turn of the event loop.
        waitUntil([] { return false; }, 50ms);
        ASSERT_TRUE(waitUntil([&] { return h.delegate->activeJobs() == 0; }, 20s));
    }

    DelegateHarness h;
};

TEST_F(UploadDialogFlowTest, SendUsesTheFormAndTheNotesFile) {
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
        h.alerts->answer(QStringLiteral("Envoyer"), c.fill);
        runDialog(h.makeRecording(QStringLiteral("tavrel_merged_%1.m4a").arg(number), "audio", c.notes));
        ASSERT_EQ(h.alerts->shown().size(), size_t(number));
        const auto& alert = h.alerts->shown().back();
        EXPECT_EQ(alert.message, "Enregistrement terminé");
        EXPECT_EQ(alert.informativeText, "Options de transcription :");
        EXPECT_EQ(alert.buttons, (QStringList{"Envoyer", "Annuler"}));
        EXPECT_TRUE(alert.hadAccessory);
        ASSERT_TRUE(waitUntil([&] { return h.backend.uploadCount() == number; }, 10s));
        EXPECT_EQ(h.backend.fields(number++), jsonObject(c.expectedFields));
    }
}

TEST_F(UploadDialogFlowTest, UnknownClientCanBeSentWithoutClient) {
    h.alerts->answer(QStringLiteral("Envoyer"), fill(QStringLiteral("t"), QStringLiteral(" dup ")));
    h.alerts->answer(QStringLiteral("Envoyer sans client"));
    runDialog(h.makeRecording(QStringLiteral("r.m4a")));
    ASSERT_EQ(h.alerts->shown().size(), 2u);
    const auto& notFound = h.alerts->shown()[1];
    EXPECT_EQ(notFound.message, "Client introuvable");
    EXPECT_EQ(notFound.informativeText, "Aucun client ne correspond à «  dup  ». Envoyer sans client ?");
    EXPECT_EQ(notFound.buttons, (QStringList{"Envoyer sans client", "Revenir au formulaire"}));
    ASSERT_TRUE(waitUntil([&] { return h.backend.uploadCount() == 1; }, 10s));
    EXPECT_FALSE(h.backend.fields().contains("client_id"));
}

TEST_F(UploadDialogFlowTest, BackToTheFormStartsAfreshAndCancelKeepsTheRecording) {
    const QString path = h.makeRecording(QStringLiteral("r.m4a"), "audio", "note");
    h.alerts->answer(QStringLiteral("Envoyer"), fill(QStringLiteral("Premier essai"), QStringLiteral("Martin"), 2, 0));
    h.alerts->answer(QStringLiteral("Revenir au formulaire"));
    bool freshForm = false;
    h.alerts->answer(QStringLiteral("Annuler"), [&](const AlertSpec& alertSpec) {
        const UploadDialog* form = formOf(alertSpec);
        freshForm = form && form->titleText().isEmpty() && !form->isClientChecked() && form->clientText().isEmpty() &&
                    form->synthesisType() == "professional" && form->depth() == "normal";
    });
    runDialog(path);
    EXPECT_EQ(h.alerts->shownMessages(),
              (QStringList{"Enregistrement terminé", "Client introuvable", "Enregistrement terminé"}));
    EXPECT_TRUE(freshForm);
    EXPECT_EQ(clientFetches(), 2) << "the new form fetches the list again";
    EXPECT_EQ(h.notifier->notifications,
              (QList<QPair<QString, QString>>{
                  {QStringLiteral("Enregistrement conservé"),
                   QStringLiteral("Non envoyé — il vous sera proposé au prochain lancement d'TaVREL Recorder.")}}));
    EXPECT_EQ(h.backend.uploadCount(), 0);
    EXPECT_TRUE(QFile::exists(path));
    EXPECT_TRUE(QFile::exists(DelegateHarness::notesPath(path)));
}

TEST_F(UploadDialogFlowTest, UnreachableClientListStillOpensTheDialog) {
    h.backend.control(R"({"fault": {"route": "clients", "close": true}})");
    int items = -1;
    h.alerts->answer(QStringLiteral("Annuler"),
                     [&](const AlertSpec& alertSpec) { items = formOf(alertSpec)->clientField()->count(); });
    runDialog(h.makeRecording(QStringLiteral("r.m4a")));
    EXPECT_EQ(h.alerts->shownMessages(), QStringList{"Enregistrement terminé"});
    EXPECT_EQ(items, 0);
}

// ----- recordings left unsent -------------------------------------------------------------------------------

class PendingRecordingsTest : public UploadDialogFlowTest {
protected:
    /// A recording made `minutesAgo` minutes ago: created in that order, and dated so by its modification
    /// time for file systems that keep no creation time.
    QString recordingFrom(const QString& name, int minutesAgo) {
        const QString path = h.makeRecording(name);
        const qint64 when = QDateTime::currentDateTime().addSecs(-60 * minutesAgo).toSecsSinceEpoch();
        const utimbuf times{when, when};
        utime(QFile::encodeName(path).constData(), &times);
        QThread::msleep(20); // creation times of successive files must differ even on coarse clocks
        return path;
    }
};

TEST_F(PendingRecordingsTest, OnlyRecordingsCountAndLaterOrShowInFileManagerChangeNothing) {
    h.makeRecording(QStringLiteral("a.notes.txt"), "note");
    h.makeRecording(QStringLiteral("m4a"), "no extension");
    QDir(h.recordingsDir()).mkpath(QStringLiteral("sub"));
    h.makeRecording(QStringLiteral("sub/deep.m4a"), "not directly inside");
    h.delegate->checkPendingRecordings();
    EXPECT_TRUE(h.alerts->shown().empty());
    EXPECT_TRUE(h.alerts->unexpected().isEmpty());

    // Created at 09:00, 10:00, 11:00 in that order; listed by name they would come otherwise.
    const QString nine = recordingFrom(QStringLiteral("b.m4a"), 120);
    const QString ten = recordingFrom(QStringLiteral(".cache.M4A"), 60);
    const QString eleven = recordingFrom(QStringLiteral("a.m4a"), 0);
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

TEST_F(PendingRecordingsTest, SendNowOpensOneDialogPerRecordingInTheSortedOrder) {
    const QString sent = recordingFrom(QStringLiteral("sent.m4a"), 10);
    const QString kept = recordingFrom(QStringLiteral("kept.m4a"), 5);
    h.alerts->answer(QStringLiteral("Envoyer maintenant"));
    h.alerts->answer(QStringLiteral("Annuler"));
    h.alerts->answer(QStringLiteral("Envoyer"), fill(QStringLiteral("Envoyé")));
    h.delegate->checkPendingRecordings();
    ASSERT_TRUE(waitUntil([&] { return h.alerts->pendingAnswers() == 0; }, 20s));
    ASSERT_TRUE(waitUntil([&] { return h.backend.uploadCount() == 1 && h.delegate->activeJobs() == 0; }, 20s));
    EXPECT_EQ(h.alerts->shownMessages(),
              (QStringList{"2 enregistrement(s) non envoyé(s)", "Enregistrement terminé", "Enregistrement terminé"}));
    EXPECT_EQ(clientFetches(), 2);
    // One after the other, newest first, each answer with its own recording; the one kept is offered again.
    EXPECT_TRUE(h.alerts->shown()[1].windowTitle.startsWith(QStringLiteral("Enregistrement du ")));
    EXPECT_TRUE(QFile::exists(kept));
    EXPECT_FALSE(QFile::exists(sent));
    h.alerts->answer(QStringLiteral("Plus tard"));
    h.delegate->checkPendingRecordings();
    EXPECT_EQ(h.alerts->shownMessages().last(), "1 enregistrement(s) non envoyé(s)");
}

} // namespace
