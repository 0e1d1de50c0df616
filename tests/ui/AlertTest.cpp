#include "ui/NoteField.h"
#include "ui/QtAlertPresenter.h"
#include "ui/ScriptedAlertPresenter.h"
#include "ui/SettingsForm.h"

#include <QCheckBox>
#include <QDialog>
#include <QLineEdit>
#include <QPushButton>
#include <QTest>
#include <gtest/gtest.h>

using namespace tavrel;

namespace {

SettingsFormValues newUserValues() {
    return {QStringLiteral("https://srv/backend"),
            QStringLiteral("https://srv/backend"),
            QStringLiteral("https://srv/tavrel/index.html"),
            QStringLiteral("https://srv/tavrel/index.html"),
            QString(),
            false,
            true};
}

AlertSpec settingsAlert(QWidget* form) {
    return {QStringLiteral("Paramètres TaVREL Recorder"),
            QStringLiteral("Version 1.2.0"),
            {QStringLiteral("Enregistrer"), QStringLiteral("Annuler")},
            AlertStyle::informational,
            form};
}

TEST(SettingsForm, ShowsValuesPlaceholdersAndTheMaskedToken) {
    SettingsForm form(newUserValues());
    EXPECT_EQ(form.backendField()->text(), QStringLiteral("https://srv/backend"));
    EXPECT_EQ(form.backendField()->placeholderText(), QStringLiteral("https://srv/backend"));
    EXPECT_EQ(form.webField()->placeholderText(), QStringLiteral("https://srv/tavrel/index.html"));
    EXPECT_EQ(form.tokenField()->placeholderText(), QStringLiteral("Token JWT"));
    EXPECT_EQ(form.tokenField()->echoMode(), QLineEdit::Password);
    EXPECT_EQ(form.launchAtLoginBox()->text(), QStringLiteral("Ouvrir TaVREL Recorder à la connexion"));
    EXPECT_EQ(form.autoDetectCallsBox()->text(),
              QStringLiteral("Proposer d'enregistrer quand un appel ou une visio démarre"));
    EXPECT_EQ(form.autoDetectCallsBox()->toolTip(),
              QStringLiteral("Détecte quand Teams, Zoom, Google Meet, FaceTime ou un appel téléphonique utilise le "
                             "micro, et propose alors d'enregistrer."));
    EXPECT_FALSE(form.launchAtLogin());
    EXPECT_TRUE(form.autoDetectCalls());
    EXPECT_EQ(form.backendField()->width(), 380);
}

TEST(ScriptedAlertPresenter, AnswersAfterFillingTheAccessory) {
    ScriptedAlertPresenter alerts;
    alerts.answer(QStringLiteral("Enregistrer"), [](const AlertSpec& alertSpec) {
        auto* form = qobject_cast<SettingsForm*>(alertSpec.accessory);
        ASSERT_NE(form, nullptr);
        form->backendField()->clear();
        form->tokenField()->setText(QStringLiteral("jwt"));
        form->autoDetectCallsBox()->setChecked(false);
    });
    alerts.answer(1);

    SettingsForm form(newUserValues());
    EXPECT_EQ(alerts.run(settingsAlert(&form)), kFirstButton);
    EXPECT_EQ(form.backendURL(), QString());
    EXPECT_EQ(form.token(), QStringLiteral("jwt"));
    EXPECT_FALSE(form.autoDetectCalls());
    EXPECT_EQ(alerts.run(settingsAlert(&form)), kFirstButton + 1);

    ASSERT_EQ(alerts.shown().size(), 2u);
    EXPECT_EQ(alerts.shown()[0].message, QStringLiteral("Paramètres TaVREL Recorder"));
    EXPECT_EQ(alerts.shown()[0].informativeText, QStringLiteral("Version 1.2.0"));
    EXPECT_EQ(alerts.shown()[0].buttons, (QStringList{QStringLiteral("Enregistrer"), QStringLiteral("Annuler")}));
    EXPECT_TRUE(alerts.shown()[0].hadAccessory);
    EXPECT_TRUE(alerts.unexpected().isEmpty());
    EXPECT_EQ(alerts.pendingAnswers(), 0);
}

TEST(ScriptedAlertPresenter, AlertNobodyExpectedIsRecordedAndClosed) {
    ScriptedAlertPresenter alerts;
    const int response = alerts.run({QStringLiteral("Erreur"), QStringLiteral("x"), {}, AlertStyle::warning});
    EXPECT_LT(response, kFirstButton);
    ASSERT_EQ(alerts.unexpected().size(), 1);
    EXPECT_TRUE(alerts.unexpected().front().contains(QStringLiteral("Erreur")));
    EXPECT_EQ(alerts.shown().front().buttons, QStringList{QStringLiteral("OK")});

    alerts.answer(QStringLiteral("Réessayer"));
    EXPECT_LT(alerts.run({QStringLiteral("Échec"), {}, {QStringLiteral("OK")}}), kFirstButton);
    EXPECT_EQ(alerts.unexpected().size(), 2) << "a button the alert does not have";
}

/// Runs `alertSpec` in a real dialog and lets `act` answer it once it is on screen.
int runDialog(const AlertSpec& alertSpec, std::function<void(QDialog&)> act) {
    QtAlertPresenter presenter;
    presenter.onShown = std::move(act);
    return presenter.run(alertSpec);
}

QPushButton* buttonTitled(QDialog& dialog, const QString& title) {
    for (QPushButton* button : dialog.findChildren<QPushButton*>()) {
        if (button->text() == title)
            return button;
    }
    return nullptr;
}

class QtAlertButtonTest : public ::testing::TestWithParam<int> {};

TEST_P(QtAlertButtonTest, ClickedButtonGivesItsResponse) {
    const QStringList titles{QStringLiteral("Envoyer"), QStringLiteral("Plus tard"), QStringLiteral("Supprimer")};
    const int response =
        runDialog({QStringLiteral("Enregistrement non envoyé"), QStringLiteral("ligne 1\nligne 2"), titles},
                  [&](QDialog& dialog) {
                      QPushButton* button = buttonTitled(dialog, titles[GetParam()]);
                      ASSERT_NE(button, nullptr);
                      QTest::mouseClick(button, Qt::LeftButton);
                  });
    EXPECT_EQ(response, kFirstButton + GetParam());
}

INSTANTIATE_TEST_SUITE_P(Buttons, QtAlertButtonTest, ::testing::Values(0, 1, 2));

TEST(QtAlertPresenter, FirstButtonIsTheDefaultAtTheRight) {
    runDialog(settingsAlert(nullptr), [](QDialog& dialog) {
        QPushButton* save = buttonTitled(dialog, QStringLiteral("Enregistrer"));
        QPushButton* cancel = buttonTitled(dialog, QStringLiteral("Annuler"));
        ASSERT_TRUE(save && cancel);
        EXPECT_TRUE(save->isDefault());
        EXPECT_FALSE(cancel->isDefault());
        EXPECT_GT(save->x(), cancel->x());
        dialog.done(0);
    });
}

TEST(QtAlertPresenter, EscapeMeansAnnulerOrClosed) {
    EXPECT_EQ(runDialog(settingsAlert(nullptr), [](QDialog& dialog) { QTest::keyClick(&dialog, Qt::Key_Escape); }),
              kFirstButton + 1);
    EXPECT_LT(runDialog({QStringLiteral("Info"), {}, {QStringLiteral("OK")}},
                        [](QDialog& dialog) { QTest::keyClick(&dialog, Qt::Key_Escape); }),
              kFirstButton);
}

TEST(QtAlertPresenter, ReturnInTheNoteFieldSubmitsTheNoteAsTyped) {
    NoteField note;
    EXPECT_EQ(note.placeholderText(), QStringLiteral("Note horodatée…"));
    EXPECT_EQ(note.size(), QSize(300, 60));
    const int response = runDialog({QStringLiteral("Ajouter une note"),
                                    {},
                                    {QStringLiteral("OK"), QStringLiteral("Annuler")},
                                    AlertStyle::informational,
                                    &note},
                                   [&](QDialog&) {
                                       QTest::keyClicks(&note, QStringLiteral("  appel client "));
                                       QTest::keyClick(&note, Qt::Key_Return);
                                   });
    EXPECT_EQ(response, kFirstButton);
    EXPECT_EQ(note.text(), QStringLiteral("  appel client "));
    EXPECT_EQ(note.parentWidget(), nullptr) << "the accessory is handed back, not deleted with the dialog";
}

TEST(QtAlertPresenter, SettingsFormSurvivesTheAlertWithItsEdits) {
    SettingsForm form(newUserValues());
    const int response = runDialog(settingsAlert(&form), [&](QDialog& dialog) {
        form.webField()->setText(QStringLiteral("https://autre/tavrel/index.html"));
        QTest::mouseClick(form.launchAtLoginBox(), Qt::LeftButton);
        QTest::mouseClick(buttonTitled(dialog, QStringLiteral("Enregistrer")), Qt::LeftButton);
    });
    EXPECT_EQ(response, kFirstButton);
    EXPECT_EQ(form.webURL(), QStringLiteral("https://autre/tavrel/index.html"));
    EXPECT_TRUE(form.launchAtLogin());
}

} // namespace
