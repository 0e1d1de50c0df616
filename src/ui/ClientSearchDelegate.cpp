#include "ui/ClientSearchDelegate.h"

#include "core/ClientResolver.h"

#include <QComboBox>
#include <QFont>
#include <QLabel>
#include <QLineEdit>
#include <QPalette>
#include <QTimer>

namespace tavrel {

namespace {

const QColor kSystemGreen = QColor(0x34, 0xC7, 0x59);
constexpr qreal kLabelPointSize = 11.0;
constexpr qreal kMatchPointSize = 11.5;

/// The colour of the field's text. Set through the style sheet too, since the alert's style sheet would
/// otherwise win over the palette. The style sheet goes first: removing one puts back the palette the widget
/// had before it, which must not undo the colour set here.
void setTextColor(QLineEdit* editor, const QColor& color, bool standard) {
    editor->setStyleSheet(standard ? QString() : QStringLiteral("color: %1;").arg(color.name()));
    QPalette palette = editor->palette();
    palette.setColor(QPalette::Text, color);
    editor->setPalette(palette);
}

void setLabel(QLabel* label, const QString& text, const QColor& color, qreal pointSize, QFont::Weight weight) {
    label->setText(text);
    QFont font = label->font();
    font.setPointSizeF(pointSize);
    font.setWeight(weight);
    label->setFont(font);
    label->setStyleSheet(QStringLiteral("color: %1;").arg(color.name(QColor::HexArgb)));
    QPalette palette = label->palette();
    palette.setColor(QPalette::WindowText, color);
    label->setPalette(palette);
}

} // namespace

ClientSearchDelegate::ClientSearchDelegate(QList<QJsonObject> clients, QComboBox* combo, QLabel* label, QObject* parent)
    : QObject(parent), clients(std::move(clients)), combo(combo), label(label) {}

void ClientSearchDelegate::refresh() {
    if (!combo || !label || !combo->lineEdit())
        return;
    QLineEdit* editor = combo->lineEdit();
    const QColor standard = combo->palette().color(QPalette::Text);
    const QColor secondary = label->palette().color(QPalette::PlaceholderText);
    const QString typed = combo->currentText().trimmed();
    if (typed.isEmpty()) {
        label->setText(QString());
        setTextColor(editor, standard, true);
        return;
    }
    if (const auto client = arResolveClient(typed, clients)) {
        setLabel(label, QStringLiteral("✓ ") + client->name, kSystemGreen, kMatchPointSize, QFont::DemiBold);
        setTextColor(editor, kSystemGreen, false);
    } else {
        setLabel(label, QStringLiteral("Aucun client correspondant"), secondary, kLabelPointSize, QFont::Normal);
        setTextColor(editor, standard, true);
    }
}

void ClientSearchDelegate::autocomplete(QLineEdit* editor) {
    if (!combo || !editor)
        return;
    const QString text = editor->text();
    const qsizetype typedLen = text.size();
    const qsizetype previousLen = lastLen;
    lastLen = typedLen;
    // A deletion or a replacement never completes: the user is correcting, not typing on.
    if (previousLen >= typedLen || text.isEmpty())
        return;

    const QString query = normalizedForSearch(text);
    QString only;
    int matches = 0;
    for (const QJsonObject& record : std::as_const(clients)) {
        const QJsonValue name = record.value(QLatin1String("name"));
        if (!name.isString() || !normalizedForSearch(name.toString()).startsWith(query))
            continue;
        if (++matches > 1)
            return;
        only = name.toString();
    }
    if (matches != 1 || normalizedForSearch(only) == query)
        return;

    editor->setText(only);
    editor->setSelection(static_cast<int>(typedLen), static_cast<int>(only.size() - typedLen));
    lastLen = only.size();
}

void ClientSearchDelegate::controlTextDidChange() {
    autocomplete(combo ? combo->lineEdit() : nullptr);
    refresh();
}

void ClientSearchDelegate::comboBoxSelectionDidChange() {
    QTimer::singleShot(0, this, &ClientSearchDelegate::refresh);
}

} // namespace tavrel
