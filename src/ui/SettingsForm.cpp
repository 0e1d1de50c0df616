#include "ui/SettingsForm.h"

#include <QCheckBox>
#include <QLineEdit>
#include <QVBoxLayout>

namespace tavrel {

SettingsForm::SettingsForm(const SettingsFormValues& values, QWidget* parent) : QWidget(parent) {
    // The fields are 380 px wide; a checkbox text may stretch the form a little with wide fonts rather
    // than be cut.
    setMinimumWidth(kWidthPx);
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSpacing(8);

    auto makeField = [&](const QString& value, const QString& placeholder) {
        auto* field = new QLineEdit(value, this);
        field->setPlaceholderText(placeholder);
        field->setFixedWidth(kWidthPx);
        field->setMinimumHeight(26);
        field->setCursorPosition(0);
        layout->addWidget(field);
        return field;
    };
    m_backendField = makeField(values.backendURL, values.backendPlaceholder);
    m_webField = makeField(values.webURL, values.webPlaceholder);
    m_tokenField = makeField(values.token, QStringLiteral("Token JWT"));
    m_tokenField->setEchoMode(QLineEdit::Password);

    layout->addSpacing(2);
    m_launchAtLoginBox = new QCheckBox(QStringLiteral("Ouvrir TaVREL Recorder à la connexion"), this);
    m_launchAtLoginBox->setChecked(values.launchAtLogin);
    layout->addWidget(m_launchAtLoginBox);

    m_autoDetectCallsBox =
        new QCheckBox(QStringLiteral("Proposer d'enregistrer quand un appel ou une visio démarre"), this);
    m_autoDetectCallsBox->setChecked(values.autoDetectCalls);
    m_autoDetectCallsBox->setToolTip(
        QStringLiteral("Détecte quand Teams, Zoom, Google Meet, FaceTime ou un appel téléphonique utilise le micro, "
                       "et propose alors d'enregistrer."));
    layout->addWidget(m_autoDetectCallsBox);

    setFocusProxy(m_backendField);
}

QString SettingsForm::backendURL() const {
    return m_backendField->text();
}

QString SettingsForm::webURL() const {
    return m_webField->text();
}

QString SettingsForm::token() const {
    return m_tokenField->text();
}

bool SettingsForm::launchAtLogin() const {
    return m_launchAtLoginBox->isChecked();
}

bool SettingsForm::autoDetectCalls() const {
    return m_autoDetectCallsBox->isChecked();
}

} // namespace tavrel
