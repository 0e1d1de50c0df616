#include "ui/ClientToggleHandler.h"

#include <QComboBox>
#include <QGraphicsOpacityEffect>
#include <QLabel>

namespace tavrel {

ClientToggleHandler::ClientToggleHandler(QComboBox* combo, QLabel* label, QObject* parent)
    : QObject(parent), combo(combo), label(label) {}

void ClientToggleHandler::toggle(bool checked) {
    if (combo) {
        combo->setEnabled(checked);
        auto* effect = qobject_cast<QGraphicsOpacityEffect*>(combo->graphicsEffect());
        if (!effect) {
            effect = new QGraphicsOpacityEffect(combo);
            combo->setGraphicsEffect(effect);
        }
        effect->setOpacity(checked ? 1.0 : kDisabledOpacity);
        if (!checked)
            combo->setEditText(QString());
    }
    if (!checked && label)
        label->setText(QString());
}

} // namespace tavrel
