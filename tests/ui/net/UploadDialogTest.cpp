// The upload form offscreen: its initial state, the client checkbox, and inline completion driven by real
// key presses.
#include "ui/UploadDialog.h"

#include "ui/ClientSearchDelegate.h"

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

QList<QJsonObject> clients(const char* json) {
    QList<QJsonObject> list;
    for (const QJsonValue& value : QJsonDocument::fromJson(json).array())
        list.append(value.toObject());
    return list;
}

const char* const kClients =
    R"([{"id":1,"name":"Dupont SA"},{"id":2,"name":"Dupuis"},{"id":3,"name":"Société Générale"},{"id":4},)"
    R"({"id":5,"name":"Crédit Agricole"}])";

class UploadDialogTest : public ::testing::Test {
protected:
    void SetUp() override {
        m_form.show();
        m_form.clientCheckBox()->setChecked(true);
        editor()->setFocus();
    }

    QLineEdit* editor() const { return m_form.clientField()->lineEdit(); }
    void type(const QString& text) { QTest::keyClicks(editor(), text); }
    void backspace() { QTest::keyClick(editor(), Qt::Key_Backspace); }

    UploadDialog m_form{clients(kClients)};
};

TEST(UploadDialogInitialState, EveryControlStartsAtItsInitialValue) {
    UploadDialog form(clients(kClients));
    EXPECT_EQ(form.titleField()->placeholderText(), "Titre (ex : Réunion commune de X)");
    EXPECT_TRUE(form.titleText().isEmpty());
    EXPECT_EQ(form.titleField()->width(), 380);
    EXPECT_EQ(form.clientCheckBox()->text(), "Attribuer à un client");
    EXPECT_FALSE(form.isClientChecked());

    QComboBox* field = form.clientField();
    EXPECT_TRUE(field->isEditable());
    EXPECT_EQ(field->lineEdit()->placeholderText(), "Rechercher un client...");
    EXPECT_EQ(field->completer(), nullptr);
    EXPECT_EQ(field->maxVisibleItems(), 8);
    EXPECT_FALSE(field->isEnabled());
    EXPECT_DOUBLE_EQ(form.clientFieldOpacity(), 0.35);
    QStringList items;
    for (int i = 0; i < field->count(); ++i)
        items << field->itemText(i);
    EXPECT_EQ(items, (QStringList{"Dupont SA", "Dupuis", "Société Générale", "Crédit Agricole"}));
    EXPECT_TRUE(form.clientText().isEmpty());
    EXPECT_TRUE(form.matchLabel()->text().isEmpty());

    QStringList captions;
    for (const QLabel* label : form.findChildren<QLabel*>())
        captions << label->text();
    EXPECT_TRUE(captions.contains("Type de synthèse"));
    EXPECT_TRUE(captions.contains("Profondeur"));

    const auto labelsOf = [](QButtonGroup* group) {
        QStringList labels;
        for (int id = 0; id < 3; ++id)
            labels << group->button(id)->text();
        return labels;
    };
    EXPECT_EQ(labelsOf(form.synthesisTypeGroup()), (QStringList{"Professionnelle", "Revue DCE", "Personnelle"}));
    EXPECT_EQ(labelsOf(form.depthGroup()), (QStringList{"Concise", "Normale", "Approfondie"}));
    EXPECT_EQ(form.synthesisType(), "professional");
    EXPECT_EQ(form.depth(), "normal");
}

TEST(UploadDialogSegments, SelectedSegmentGivesTheValueSent) {
    UploadDialog form({});
    const QStringList types{"professional", "revue_dce", "personal"};
    const QStringList depths{"concise", "normal", "approfondie"};
    for (int i = 0; i < 3; ++i) {
        form.synthesisTypeGroup()->button(i)->click();
        form.depthGroup()->button(2 - i)->click();
        EXPECT_EQ(form.synthesisType(), types[i]);
        EXPECT_EQ(form.depth(), depths[2 - i]);
        // Exactly one segment stays selected in each control.
        EXPECT_EQ(form.synthesisTypeGroup()->checkedId(), i);
    }
}

TEST_F(UploadDialogTest, CheckboxEnablesTheFieldAndClearsItWhenUnchecked) {
    EXPECT_TRUE(m_form.clientField()->isEnabled());
    EXPECT_DOUBLE_EQ(m_form.clientFieldOpacity(), 1.0);
    type("Martin");
    EXPECT_EQ(m_form.matchLabel()->text(), "Aucun client correspondant");
    m_form.clientCheckBox()->setChecked(false);
    EXPECT_FALSE(m_form.clientField()->isEnabled());
    EXPECT_DOUBLE_EQ(m_form.clientFieldOpacity(), 0.35);
    EXPECT_TRUE(m_form.clientText().isEmpty());
    EXPECT_TRUE(m_form.matchLabel()->text().isEmpty());
}

TEST_F(UploadDialogTest, TypingSocieteCompletesWithTheBackendsSpellingAndSelectsTheRest) {
    type("societe");
    EXPECT_EQ(editor()->text(), "Société Générale");
    EXPECT_EQ(editor()->selectedText(), " Générale");
    EXPECT_EQ(editor()->selectionStart(), 7);
    EXPECT_EQ(m_form.matchLabel()->text(), "✓ Société Générale");
    EXPECT_EQ(m_form.matchLabel()->font().weight(), QFont::DemiBold);
    EXPECT_DOUBLE_EQ(m_form.matchLabel()->font().pointSizeF(), 11.5);
    const QColor green = m_form.matchLabel()->palette().color(QPalette::WindowText);
    EXPECT_GT(green.green(), green.red());
    EXPECT_EQ(editor()->palette().color(QPalette::Text), green);

    // Typing on replaces the selection and, being a shortening, does not complete again.
    type("x");
    EXPECT_EQ(editor()->text(), "Sociétéx");
    EXPECT_TRUE(editor()->selectedText().isEmpty());
    EXPECT_EQ(m_form.matchLabel()->text(), "Aucun client correspondant");
    EXPECT_DOUBLE_EQ(m_form.matchLabel()->font().pointSizeF(), 11.0);
    EXPECT_NE(editor()->palette().color(QPalette::Text), green);
}

TEST_F(UploadDialogTest, DeletingNeverCompletes) {
    type("dupo");
    EXPECT_EQ(editor()->text(), "Dupont SA");
    EXPECT_EQ(editor()->selectedText(), "nt SA");
    backspace(); // removes the selection
    EXPECT_EQ(editor()->text(), "Dupo");
    backspace();
    EXPECT_EQ(editor()->text(), "Dup");
    EXPECT_EQ(m_form.matchLabel()->text(), "Aucun client correspondant");
    // Lengthening again completes again.
    type("u");
    EXPECT_EQ(editor()->text(), "Dupuis");
    EXPECT_EQ(editor()->selectedText(), "is");
}

TEST_F(UploadDialogTest, AmbiguousOrCompleteTextIsLeftAsTyped) {
    type("du");
    EXPECT_EQ(editor()->text(), "du");
    EXPECT_EQ(m_form.matchLabel()->text(), "Aucun client correspondant");
    editor()->clear();
    m_form.searchDelegate()->lastLen = 0;
    type("dupuis");
    // "dupu" completed to "Dupuis"; "i" typed over the selection is a shortening, and the final "s" makes
    // the whole name: nothing is left to complete.
    EXPECT_EQ(editor()->text(), "Dupuis");
    EXPECT_EQ(m_form.matchLabel()->text(), "✓ Dupuis");
}

TEST_F(UploadDialogTest, SpacesAloneLeaveTheLabelEmpty) {
    type("   ");
    EXPECT_TRUE(m_form.matchLabel()->text().isEmpty());
}

TEST_F(UploadDialogTest, PickingFromTheListRefreshesTheLabelOnTheNextTurn) {
    m_form.clientField()->setCurrentIndex(3);
    emit m_form.clientField()->activated(3);
    EXPECT_TRUE(m_form.matchLabel()->text().isEmpty()) << "refreshed before the field's text was final";
    QCoreApplication::processEvents();
    EXPECT_EQ(m_form.matchLabel()->text(), "✓ Crédit Agricole");
}

} // namespace
