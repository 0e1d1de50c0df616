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
    const QString backend = QStringLiteral("https://srv/backend");
    const QString web = QStringLiteral("https://srv/tavrel/index.html");
    return {backend, backend, web, web, QString(), false, true};
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

// The scripted presenter stands in for the user in every workflow test: it must fill accessories, answer by
// title or index, and never let an unexpected alert pass unnoticed.
TEST(ScriptedAlertPresenter, AnswersAfterFillingTheAccessoryAndReportsWhatNobodyExpected) {
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
    EXPECT_TRUE(alerts.unexpected().isEmpty());
    EXPECT_EQ(alerts.pendingAnswers(), 0);

    EXPECT_LT(alerts.run({QStringLiteral("Erreur"), QStringLiteral("x"), {}, AlertStyle::warning}), kFirstButton);
    ASSERT_EQ(alerts.unexpected().size(), 1);
    EXPECT_TRUE(alerts.unexpected().front().contains(QStringLiteral("Erreur")));
    EXPECT_EQ(alerts.shown().back().buttons, QStringList{QStringLiteral("OK")});
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

TEST(QtAlertPresenter, ClickOrEscapeGivesTheResponseAndTheFirstButtonIsTheDefaultAtTheRight) {
    const QStringList three{QStringLiteral("Envoyer"), QStringLiteral("Plus tard"), QStringLiteral("Supprimer")};
    const struct {
        QStringList titles;
        const char* click;    ///< the button clicked; nullptr: Escape is pressed
        int expectedResponse; ///< 0: closed without a button
    } cases[] = {{three, "Envoyer", kFirstButton},
                 {three, "Plus tard", kFirstButton + 1},
                 {three, "Supprimer", kFirstButton + 2},
                 // Escape means "Annuler" when there is one, else closes the alert.
                 {{QStringLiteral("Enregistrer"), QStringLiteral("Annuler")}, nullptr, kFirstButton + 1},
                 {{QStringLiteral("OK")}, nullptr, 0}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.click ? c.click : "Escape");
        const auto act = [&](QDialog& dialog) {
            QPushButton* first = buttonTitled(dialog, c.titles.front());
            ASSERT_NE(first, nullptr);
            EXPECT_TRUE(first->isDefault());
            for (const QString& title : c.titles.mid(1)) {
                EXPECT_FALSE(buttonTitled(dialog, title)->isDefault());
                EXPECT_GT(first->x(), buttonTitled(dialog, title)->x());
            }
            if (c.click)
                QTest::mouseClick(buttonTitled(dialog, c.click), Qt::LeftButton);
            else
                QTest::keyClick(&dialog, Qt::Key_Escape);
        };
        const int response =
            runDialog({QStringLiteral("Non envoyé"), QStringLiteral("ligne 1\nligne 2"), c.titles}, act);
        EXPECT_EQ(response < kFirstButton ? 0 : response, c.expectedResponse);
    }
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

} // namespace
