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

QList<QJsonObject> clients() {
    QList<QJsonObject> list;
    for (const QJsonValue& value : QJsonDocument::fromJson(R"([{"id":1,"name":"Dupont SA"},{"id":2,"name":"Dupuis"},)"
                                                           R"({"id":3,"name":"Société Générale"},{"id":4},)"
                                                           R"({"id":5,"name":"Crédit Agricole"}])")
                                       .array())
        list.append(value.toObject());
    return list;
}

QStringList labelsOf(QButtonGroup* group) {
    QStringList labels;
    for (QAbstractButton* button : group->buttons())
        labels << button->text();
    return labels;
}

class UploadDialogTest : public ::testing::Test {
protected:
    /// The client field enabled and focused, ready for typing.
    void enableClient() {
        m_form.show();
        m_form.clientCheckBox()->setChecked(true);
        editor()->setFocus();
    }

    QLineEdit* editor() const { return m_form.clientField()->lineEdit(); }
    QString label() const { return m_form.matchLabel()->text(); }
    void type(const QString& text) { QTest::keyClicks(editor(), text); }
    void backspace() { QTest::keyClick(editor(), Qt::Key_Backspace); }

    UploadDialog m_form{clients()};
};

TEST_F(UploadDialogTest, EveryControlStartsAtItsInitialValue) {
    EXPECT_EQ(m_form.titleField()->placeholderText(), "Titre (ex : Réunion commune de X)");
    EXPECT_TRUE(m_form.titleText().isEmpty());
    EXPECT_EQ(m_form.titleField()->width(), 380);
    EXPECT_EQ(m_form.clientCheckBox()->text(), "Attribuer à un client");
    EXPECT_FALSE(m_form.isClientChecked());

    QComboBox* field = m_form.clientField();
    EXPECT_EQ(field->lineEdit()->placeholderText(), "Rechercher un client...");
    EXPECT_EQ(field->completer(), nullptr) << "completion is the form's own, inline";
    EXPECT_EQ(field->maxVisibleItems(), 8);
    EXPECT_FALSE(field->isEnabled());
    EXPECT_DOUBLE_EQ(m_form.clientFieldOpacity(), 0.35);
    QStringList items;
    for (int i = 0; i < field->count(); ++i)
        items << field->itemText(i);
    EXPECT_EQ(items, (QStringList{"Dupont SA", "Dupuis", "Société Générale", "Crédit Agricole"}));
    EXPECT_TRUE(m_form.clientText().isEmpty());
    EXPECT_TRUE(label().isEmpty());

    QStringList captions;
    for (const QLabel* caption : m_form.findChildren<QLabel*>())
        captions << caption->text();
    EXPECT_TRUE(captions.contains("Type de synthèse") && captions.contains("Profondeur"));
    EXPECT_EQ(labelsOf(m_form.synthesisTypeGroup()), (QStringList{"Professionnelle", "Revue DCE", "Personnelle"}));
    EXPECT_EQ(labelsOf(m_form.depthGroup()), (QStringList{"Concise", "Normale", "Approfondie"}));
    EXPECT_EQ(m_form.synthesisType(), "professional");
    EXPECT_EQ(m_form.depth(), "normal");
}

TEST_F(UploadDialogTest, SelectedSegmentGivesTheValueSent) {
    const QStringList types{"professional", "revue_dce", "personal"};
    const QStringList depths{"concise", "normal", "approfondie"};
    for (int i = 0; i < 3; ++i) {
        m_form.synthesisTypeGroup()->button(i)->click();
        m_form.depthGroup()->button(2 - i)->click();
        EXPECT_EQ(m_form.synthesisType(), types[i]);
        EXPECT_EQ(m_form.depth(), depths[2 - i]);
        EXPECT_EQ(m_form.synthesisTypeGroup()->checkedId(), i) << "exactly one segment stays selected";
    }
}

TEST_F(UploadDialogTest, CheckboxEnablesTheFieldAndClearsItWhenUnchecked) {
    enableClient();
    EXPECT_TRUE(m_form.clientField()->isEnabled());
    EXPECT_DOUBLE_EQ(m_form.clientFieldOpacity(), 1.0);
    type("Martin");
    EXPECT_EQ(label(), "Aucun client correspondant");
    m_form.clientCheckBox()->setChecked(false);
    EXPECT_FALSE(m_form.clientField()->isEnabled());
    EXPECT_DOUBLE_EQ(m_form.clientFieldOpacity(), 0.35);
    EXPECT_TRUE(m_form.clientText().isEmpty());
    EXPECT_TRUE(label().isEmpty());
}

TEST_F(UploadDialogTest, TypingSocieteCompletesWithTheBackendsSpellingAndSelectsTheRest) {
    enableClient();
    type("societe");
    EXPECT_EQ(editor()->text(), "Société Générale");
    EXPECT_EQ(editor()->selectedText(), " Générale");
    EXPECT_EQ(editor()->selectionStart(), 7);
    EXPECT_EQ(label(), "✓ Société Générale");
    EXPECT_EQ(m_form.matchLabel()->font().weight(), QFont::DemiBold);
    EXPECT_DOUBLE_EQ(m_form.matchLabel()->font().pointSizeF(), 11.5);
    const QColor green = m_form.matchLabel()->palette().color(QPalette::WindowText);
    EXPECT_GT(green.green(), green.red());
    EXPECT_EQ(editor()->palette().color(QPalette::Text), green);

    // Typing on replaces the selection and, being a shortening, does not complete again.
    type("x");
    EXPECT_EQ(editor()->text(), "Sociétéx");
    EXPECT_TRUE(editor()->selectedText().isEmpty());
    EXPECT_EQ(label(), "Aucun client correspondant");
    EXPECT_DOUBLE_EQ(m_form.matchLabel()->font().pointSizeF(), 11.0);
    EXPECT_NE(editor()->palette().color(QPalette::Text), green);
}

TEST_F(UploadDialogTest, DeletingNeverCompletes) {
    enableClient();
    type("dupo");
    EXPECT_EQ(editor()->text(), "Dupont SA");
    EXPECT_EQ(editor()->selectedText(), "nt SA");
    backspace(); // removes the selection
    EXPECT_EQ(editor()->text(), "Dupo");
    backspace();
    EXPECT_EQ(editor()->text(), "Dup");
    EXPECT_EQ(label(), "Aucun client correspondant");
    type("u"); // lengthening again completes again
    EXPECT_EQ(editor()->text(), "Dupuis");
    EXPECT_EQ(editor()->selectedText(), "is");
}

TEST_F(UploadDialogTest, AmbiguousCompleteOrBlankTextIsLeftAsTyped) {
    enableClient();
    type("du");
    EXPECT_EQ(editor()->text(), "du");
    EXPECT_EQ(label(), "Aucun client correspondant");
    editor()->clear();
    m_form.searchDelegate()->lastLen = 0;
    type("dupuis");
    // "dupu" completed to "Dupuis"; "i" typed over the selection is a shortening, and the final "s" makes
    // the whole name: nothing is left to complete.
    EXPECT_EQ(editor()->text(), "Dupuis");
    EXPECT_EQ(label(), "✓ Dupuis");
    editor()->clear();
    type("   ");
    EXPECT_TRUE(label().isEmpty()) << "spaces alone";
}

TEST_F(UploadDialogTest, PickingFromTheListRefreshesTheLabelOnTheNextTurn) {
    enableClient();
    m_form.clientField()->setCurrentIndex(3);
    emit m_form.clientField()->activated(3);
    EXPECT_TRUE(label().isEmpty()) << "refreshed before the field's text was final";
    QCoreApplication::processEvents();
    EXPECT_EQ(label(), "✓ Crédit Agricole");
}

} // namespace
