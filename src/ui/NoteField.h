#pragma once

#include <QPlainTextEdit>

namespace tavrel {

/// The note prompt's field (300 x 60, placeholder "Note horodatée…"): the text wraps over the field's
/// lines, and Return or Enter submits the alert instead of starting a new line.
class NoteField : public QPlainTextEdit {
    Q_OBJECT
public:
    static constexpr int kWidthPx = 300;
    static constexpr int kHeightPx = 60;

    explicit NoteField(QWidget* parent = nullptr);

    /// The note exactly as typed.
    QString text() const { return toPlainText(); }
    void setText(const QString& text) { setPlainText(text); }

protected:
    void keyPressEvent(QKeyEvent* event) override;
    void insertFromMimeData(const QMimeData* source) override;
};

} // namespace tavrel
