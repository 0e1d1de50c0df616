#include "ui/NoteField.h"
#include "ui/QtAlertPresenter.h"
#include "ui/ScriptedAlertPresenter.h"
#include "ui/SettingsForm.h"
#include "ui/UploadDialog.h"

#include <QApplication>
#include <QCheckBox>
#include <QComboBox>
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
    presenter.onShown = [&act](QDialog& dialog) {
        act(dialog);
        // A failed expectation must not leave the dialog waiting for a user.
        if (dialog.isVisible())
            dialog.done(0);
    };
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
    const QStringList three{QStringLiteral("Réessayer"), QStringLiteral("Afficher dans le Finder"),
                            QStringLiteral("Plus tard")};
    const struct {
        QStringList titles;
        const char* click;    ///< the button clicked; nullptr: Escape is pressed
        int expectedResponse; ///< 0: closed without a button
    } cases[] = {
        {three, "Réessayer", kFirstButton},
        {three, "Afficher dans le Finder", kFirstButton + 1},
        {three, "Plus tard", kFirstButton + 2},
        // Escape means the cancelling button: "Annuler" wherever it is, else the last one.
        {{QStringLiteral("Enregistrer"), QStringLiteral("Annuler")}, nullptr, kFirstButton + 1},
        {{QStringLiteral("Annuler"), QStringLiteral("Plus tard")}, nullptr, kFirstButton},
        {three, nullptr, kFirstButton + 2},
        {{QStringLiteral("Envoyer sans client"), QStringLiteral("Revenir au formulaire")}, nullptr, kFirstButton + 1},
        {{QStringLiteral("OK")}, nullptr, 0}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.click ? c.click : "Escape");
        QtAlertPresenter presenter;
        int alertsUp = 0;
        presenter.onAlertUp = [&] { ++alertsUp; };
        EXPECT_FALSE(presenter.isAlertUp());
        presenter.onShown = [&](QDialog& dialog) {
            EXPECT_TRUE(presenter.isAlertUp());
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
            presenter.run({QStringLiteral("Non envoyé"), QStringLiteral("ligne 1\nligne 2"), c.titles});
        EXPECT_EQ(response < kFirstButton ? 0 : response, c.expectedResponse);
        EXPECT_EQ(alertsUp, 1);
        EXPECT_FALSE(presenter.isAlertUp());
    }
}

// Each dialog opens with its field focused: what the user types at once lands there, Return gives the
// first button and Escape the cancelling one, from whichever field has the keyboard.
TEST(QtAlertPresenter, EveryDialogOpensReadyForTheKeyboard) {
    enum class Form { upload, uploadClient, note, settings };
    const struct {
        const char* name;
        Form form;
        Qt::Key key;
        int expectedResponse;
    } cases[] = {{"upload_title", Form::upload, Qt::Key_Return, kFirstButton},
                 {"upload_escape", Form::upload, Qt::Key_Escape, kFirstButton + 1},
                 {"upload_client", Form::uploadClient, Qt::Key_Return, kFirstButton},
                 {"note", Form::note, Qt::Key_Return, kFirstButton},
                 {"note_escape", Form::note, Qt::Key_Escape, kFirstButton + 1},
                 {"settings", Form::settings, Qt::Key_Enter, kFirstButton}};
    const QString typed = QStringLiteral("Réunion équipe à Noël");
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        std::unique_ptr<QWidget> accessory;
        QWidget* expectedFocus = nullptr;
        std::function<QString()> typedText;
        AlertSpec alert{QStringLiteral("Message"), {}, {QStringLiteral("OK"), QStringLiteral("Annuler")}};
        switch (c.form) {
        case Form::upload:
        case Form::uploadClient: {
            auto form = std::make_unique<UploadDialog>(QList<QJsonObject>{});
            expectedFocus = form->titleField();
            typedText = [form = form.get(), c] {
                return c.form == Form::upload ? form->titleText() : form->clientText();
            };
            alert.buttons = {QStringLiteral("Envoyer"), QStringLiteral("Annuler")};
            accessory = std::move(form);
            break;
        }
        case Form::note: {
            auto note = std::make_unique<NoteField>();
            EXPECT_EQ(note->placeholderText(), QStringLiteral("Note horodatée…"));
            EXPECT_EQ(note->size(), QSize(300, 60));
            expectedFocus = note.get();
            typedText = [note = note.get()] { return note->text(); };
            accessory = std::move(note);
            break;
        }
        case Form::settings: {
            auto form = std::make_unique<SettingsForm>(newUserValues());
            form->backendField()->clear();
            expectedFocus = form->backendField();
            typedText = [form = form.get()] { return form->backendURL(); };
            alert.buttons = {QStringLiteral("Enregistrer"), QStringLiteral("Annuler")};
            accessory = std::move(form);
            break;
        }
        }
        alert.accessory = accessory.get();
        const int response = runDialog(alert, [&](QDialog& dialog) {
            ASSERT_TRUE(QTest::qWaitForWindowActive(&dialog));
            ASSERT_EQ(QApplication::focusWidget(), expectedFocus);
            if (c.form == Form::uploadClient) {
                auto* form = static_cast<UploadDialog*>(accessory.get());
                form->clientCheckBox()->setChecked(true);
                form->clientField()->setFocus();
            }
            // Accented letters too: QTest::keyClicks only knows ASCII.
            for (const QChar letter : typed)
                QTest::sendKeyEvent(QTest::Click, QApplication::focusWidget(), Qt::Key_unknown, QString(letter), {});
            QTest::keyClick(QApplication::focusWidget(), c.key);
        });
        EXPECT_EQ(response, c.expectedResponse);
        EXPECT_EQ(typedText(), typed);
        EXPECT_EQ(accessory->parentWidget(), nullptr) << "the accessory is handed back, not deleted with the dialog";
    }
}

} // namespace
