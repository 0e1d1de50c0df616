#pragma once

#include <QJsonObject>
#include <QList>
#include <QObject>
#include <QPointer>

class QComboBox;
class QLabel;
class QLineEdit;

namespace tavrel {

/// Behaviour of the upload dialog's client field: completes a client name in place as the user types
/// and tells under the field whether the text designates exactly one client.
class ClientSearchDelegate : public QObject {
    Q_OBJECT
public:
    ClientSearchDelegate(QList<QJsonObject> clients, QComboBox* combo, QLabel* label, QObject* parent = nullptr);

    /// Updates the match label and the field's text colour from the field's text.
    void refresh();
    /// Completes the text of `editor` (the field's editor) with the only client name that begins with it,
    /// the completed part selected so that typing on replaces it. Only when the edit lengthened the text.
    void autocomplete(QLineEdit* editor);
    /// Every edit by the user: completion first, then the label.
    void controlTextDidChange();
    /// An item was picked from the list; the field's text follows later, so the label is refreshed on
    /// the next turn of the event loop.
    void comboBoxSelectionDidChange();

    QList<QJsonObject> clients;
    QPointer<QComboBox> combo;
    QPointer<QLabel> label;
    /// Length of the field's text at the previous edit.
    qsizetype lastLen = 0;
};

} // namespace tavrel
