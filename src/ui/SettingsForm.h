#pragma once

#include <QString>
#include <QWidget>

class QCheckBox;
class QLineEdit;

namespace tavrel {

/// What the settings form starts with; the application reads them from the settings store.
struct SettingsFormValues {
    QString backendURL;
    QString backendPlaceholder;
    QString webURL;
    QString webPlaceholder;
    QString token;
    bool launchAtLogin = false;
    bool autoDetectCalls = true;
};

/// The settings window's fields, shown as an alert's accessory (fields 380 px wide): backend URL, web URL,
/// token (masked), launch at login, call detection. No labels: placeholders and values tell them apart.
class SettingsForm : public QWidget {
    Q_OBJECT
public:
    static constexpr int kWidthPx = 380;

    explicit SettingsForm(const SettingsFormValues& values, QWidget* parent = nullptr);

    QString backendURL() const;
    QString webURL() const;
    QString token() const;
    bool launchAtLogin() const;
    bool autoDetectCalls() const;

    QLineEdit* backendField() const { return m_backendField; }
    QLineEdit* webField() const { return m_webField; }
    QLineEdit* tokenField() const { return m_tokenField; }
    QCheckBox* launchAtLoginBox() const { return m_launchAtLoginBox; }
    QCheckBox* autoDetectCallsBox() const { return m_autoDetectCallsBox; }

private:
    QLineEdit* m_backendField = nullptr;
    QLineEdit* m_webField = nullptr;
    QLineEdit* m_tokenField = nullptr;
    QCheckBox* m_launchAtLoginBox = nullptr;
    QCheckBox* m_autoDetectCallsBox = nullptr;
};

} // namespace tavrel
