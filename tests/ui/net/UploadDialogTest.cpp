// The upload form offscreen: its initial state, the client checkbox, and inline completion driven by real
// key presses.
#include "ui/UploadDialog.h"

#include <QAbstractButton>
#include <QButtonGroup>
#include <QCheckBox>
#include <QComboBox>
#include <QJsonArray>
#include <QJsonDocument>
#include <QLabel>
#include <QLineEdit>
#include <QTest>
#include <gtest/gtest.h>

using namespace tavrel;

static void PrintTo(const QString& text, std::ostream* out) {
    *out << '"' << text.toStdString() << '"';
}

namespace {

const char* const kClients = R"([{"id":1,"name":"Dupont SA"},{"id":2,"name":"Dupuis"},)"
                             R"({"id":3,"name":"Société Générale"},{"id":4},{"id":5,"name":"Crédit Agricole"}])";

/// A form over kClients, shown, with the client field enabled and focused when `clientChecked`.
class Form : public UploadDialog {
public:
    explicit Form(bool clientChecked) : UploadDialog(clients()) {
        show();
        clientCheckBox()->setChecked(clientChecked);
        editor()->setFocus();
    }
    QLineEdit* editor() const { return clientField()->lineEdit(); }
    QString label() const { return matchLabel()->text(); }

private:
    static QList<QJsonObject> clients() {
        QList<QJsonObject> list;
        for (const QJsonValue& value : QJsonDocument::fromJson(kClients).array())
            list.append(value.toObject());
        return list;
    }
};

QStringList textsOf(const QList<QAbstractButton*>& buttons) {
    QStringList texts;
    for (const QAbstractButton* button : buttons)
        texts << button->text();
    return texts;
}

TEST(UploadDialog, EveryControlStartsAtItsInitialValueAndSegmentsGiveTheValueSent) {
    Form form(false);
    EXPECT_EQ(form.titleField()->placeholderText(), "Titre (ex : Réunion commune de X)");
    EXPECT_EQ(form.titleField()->width(), 380);
    EXPECT_EQ(form.clientCheckBox()->text(), "Attribuer à un client");
    EXPECT_EQ(form.editor()->placeholderText(), "Rechercher un client...");
    EXPECT_EQ(form.clientField()->completer(), nullptr) << "completion is the form's own, inline";
    EXPECT_EQ(form.clientField()->maxVisibleItems(), 8);
    EXPECT_FALSE(form.clientField()->isEnabled());
    EXPECT_DOUBLE_EQ(form.clientFieldOpacity(), 0.35);
    QStringList items;
    for (int i = 0; i < form.clientField()->count(); ++i)
        items << form.clientField()->itemText(i);
    EXPECT_EQ(items, (QStringList{"Dupont SA", "Dupuis", "Société Générale", "Crédit Agricole"}));
    EXPECT_TRUE(form.titleText().isEmpty() && form.clientText().isEmpty() && form.label().isEmpty());
    QStringList captions;
    for (const QLabel* caption : form.findChildren<QLabel*>())
        captions << caption->text();
    EXPECT_TRUE(captions.contains("Type de synthèse") && captions.contains("Profondeur"));
    EXPECT_EQ(textsOf(form.synthesisTypeGroup()->buttons()),
              (QStringList{"Professionnelle", "Revue DCE", "Personnelle"}));
    EXPECT_EQ(textsOf(form.depthGroup()->buttons()), (QStringList{"Concise", "Normale", "Approfondie"}));

    const QStringList types{"professional", "revue_dce", "personal"};
    const QStringList depths{"concise", "normal", "approfondie"};
    EXPECT_EQ(form.synthesisType(), types[0]);
    EXPECT_EQ(form.depth(), depths[1]);
    for (int i = 0; i < 3; ++i) {
        form.synthesisTypeGroup()->button(i)->click();
        form.depthGroup()->button(2 - i)->click();
        EXPECT_EQ(form.synthesisType(), types[i]);
        EXPECT_EQ(form.depth(), depths[2 - i]);
        EXPECT_EQ(form.synthesisTypeGroup()->checkedId(), i) << "exactly one segment stays selected";
    }
}

TEST(UploadDialog, CheckboxEnablesTheFieldAndClearsItWhenUnchecked) {
    Form form(true);
    EXPECT_TRUE(form.clientField()->isEnabled());
    EXPECT_DOUBLE_EQ(form.clientFieldOpacity(), 1.0);
    QTest::keyClicks(form.editor(), "Martin");
    EXPECT_EQ(form.label(), "Aucun client correspondant");
    form.clientCheckBox()->setChecked(false);
    EXPECT_FALSE(form.clientField()->isEnabled());
    EXPECT_DOUBLE_EQ(form.clientFieldOpacity(), 0.35);
    EXPECT_TRUE(form.clientText().isEmpty() && form.label().isEmpty());
}

TEST(UploadDialog, CompletesOnlyWhenLengtheningToASingleMatch) {
    /// Keys typed ("\b" is a backspace) and what the field and its label show then.
    struct Step {
        const char* keys;
        const char* text;
        const char* selected;
        const char* label;
    };
    const std::vector<std::vector<Step>> scripts = {
        // Accents folded, the backend's spelling shown, the rest selected; typing on replaces the selection
        // and, being a shortening, does not complete again.
        {{"societe", "Société Générale", " Générale", "✓ Société Générale"},
         {"x", "Sociétéx", "", "Aucun client correspondant"}},
        // Deleting never completes; lengthening again does.
        {{"dupo", "Dupont SA", "nt SA", "✓ Dupont SA"},
         {"\b\b", "Dup", "", "Aucun client correspondant"},
         {"u", "Dupuis", "is", "✓ Dupuis"}},
        {{"du", "du", "", "Aucun client correspondant"}},
        // "dupu" completes; "i" over the selection is a shortening; "s" makes the whole name.
        {{"dupuis", "Dupuis", "", "✓ Dupuis"}},
        {{"   ", "   ", "", ""}}};
    for (const auto& script : scripts) {
        Form form(true);
        for (const Step& step : script) {
            SCOPED_TRACE(step.keys);
            for (const char* key = step.keys; *key; ++key) {
                if (*key == '\b')
                    QTest::keyClick(form.editor(), Qt::Key_Backspace);
                else
                    QTest::keyClicks(form.editor(), QString(QLatin1Char(*key)));
            }
            EXPECT_EQ(form.editor()->text(), QString::fromUtf8(step.text));
            EXPECT_EQ(form.editor()->selectedText(), QString::fromUtf8(step.selected));
            EXPECT_EQ(form.label(), QString::fromUtf8(step.label));
            // A match shows green and semi-bold, in the field as in the label; no match, the usual colour.
            const bool match = form.label().startsWith(QStringLiteral("✓ "));
            const QColor textColor = form.editor()->palette().color(QPalette::Text);
            EXPECT_EQ(match, textColor.green() > textColor.red());
            if (match) {
                EXPECT_EQ(form.matchLabel()->palette().color(QPalette::WindowText), textColor);
                EXPECT_EQ(form.matchLabel()->font().weight(), QFont::DemiBold);
            }
            if (!form.label().isEmpty()) {
                EXPECT_DOUBLE_EQ(form.matchLabel()->font().pointSizeF(), match ? 11.5 : 11.0);
            }
        }
    }
}

TEST(UploadDialog, PickingFromTheListRefreshesTheLabelOnTheNextTurn) {
    Form form(true);
    form.clientField()->setCurrentIndex(3);
    emit form.clientField()->activated(3);
    EXPECT_TRUE(form.label().isEmpty()) << "refreshed before the field's text was final";
    QCoreApplication::processEvents();
    EXPECT_EQ(form.label(), "✓ Crédit Agricole");
}

} // namespace
