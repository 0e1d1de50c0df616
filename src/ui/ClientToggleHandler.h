#pragma once

#include <QObject>
#include <QPointer>

class QComboBox;
class QLabel;

namespace tavrel {

/// The "Attribuer à un client" checkbox: the client field is usable only while it is checked.
class ClientToggleHandler : public QObject {
    Q_OBJECT
public:
    ClientToggleHandler(QComboBox* combo, QLabel* label, QObject* parent = nullptr);

    /// Enables the field (fully opaque) when checked; otherwise disables and dims it and empties it and
    /// the match label.
    void toggle(bool checked);

    static constexpr qreal kDisabledOpacity = 0.35;

    QPointer<QComboBox> combo;
    QPointer<QLabel> label;
};

} // namespace tavrel
