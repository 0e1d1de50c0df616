#include "ui/NoteField.h"

#include <QKeyEvent>
#include <QMimeData>

namespace tavrel {

NoteField::NoteField(QWidget* parent) : QPlainTextEdit(parent) {
    setFixedSize(kWidthPx, kHeightPx);
    setPlaceholderText(QStringLiteral("Note horodatée…"));
    setTabChangesFocus(true);
    setLineWrapMode(QPlainTextEdit::WidgetWidth);
    setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
}

void NoteField::keyPressEvent(QKeyEvent* event) {
    if (event->key() == Qt::Key_Return || event->key() == Qt::Key_Enter) {
        // Left to the dialog, whose default button takes it.
        event->ignore();
        return;
    }
    QPlainTextEdit::keyPressEvent(event);
}

void NoteField::insertFromMimeData(const QMimeData* source) {
    // A note is one line in the notes file: pasted line breaks become spaces.
    if (source && source->hasText()) {
        QString text = source->text();
        text.replace(QLatin1String("\r\n"), QLatin1String(" "));
        text.replace(QLatin1Char('\n'), QLatin1Char(' '));
        text.replace(QLatin1Char('\r'), QLatin1Char(' '));
        insertPlainText(text);
        return;
    }
    QPlainTextEdit::insertFromMimeData(source);
}

} // namespace tavrel
