#pragma once

#include <QJsonObject>
#include <QList>
#include <QString>
#include <QWidget>

class QAbstractButton;
class QButtonGroup;
class QCheckBox;
class QComboBox;
class QLabel;
class QLineEdit;

namespace tavrel {

class ClientSearchDelegate;
class ClientToggleHandler;

/// The accessory of the "Enregistrement terminé" alert: title, optional client, kind and depth of the
/// synthesis. Every control starts at its initial value; a new form is built for every showing.
class UploadDialog : public QWidget {
    Q_OBJECT
public:
    /// One choice of a three-segment control: its label and the value sent to the backend.
    struct Segment {
        const char* label;
        const char* value;
    };
    static const Segment kSynthesisTypes[3];
    static const Segment kDepths[3];
    static constexpr int kDefaultSynthesisType = 0;
    static constexpr int kDefaultDepth = 1;
    static constexpr int kWidthPx = 380;
    static constexpr int kHeightPx = 210;

    /// `clients` in the backend's order; records without a string "name" are not listed.
    explicit UploadDialog(QList<QJsonObject> clients, QWidget* parent = nullptr);
    ~UploadDialog() override;

    /// The title as typed (not trimmed; may be empty).
    QString titleText() const;
    bool isClientChecked() const;
    /// The client field's text as typed.
    QString clientText() const;
    QString synthesisType() const;
    QString depth() const;

    QLineEdit* titleField() const { return m_titleField; }
    QCheckBox* clientCheckBox() const { return m_clientCheckBox; }
    QComboBox* clientField() const { return m_clientField; }
    QLabel* matchLabel() const { return m_matchLabel; }
    QButtonGroup* synthesisTypeGroup() const { return m_synthesisTypeGroup; }
    QButtonGroup* depthGroup() const { return m_depthGroup; }
    ClientSearchDelegate* searchDelegate() const { return m_searchDelegate; }
    /// The client field's opacity (1.0 when usable).
    qreal clientFieldOpacity() const;

private:
    QButtonGroup* addSegments(const QString& caption, const Segment (&segments)[3], int selected);

    QList<QJsonObject> m_clients;
    QLineEdit* m_titleField = nullptr;
    QCheckBox* m_clientCheckBox = nullptr;
    QComboBox* m_clientField = nullptr;
    QLabel* m_matchLabel = nullptr;
    QButtonGroup* m_synthesisTypeGroup = nullptr;
    QButtonGroup* m_depthGroup = nullptr;
    ClientSearchDelegate* m_searchDelegate = nullptr;
    ClientToggleHandler* m_toggleHandler = nullptr;
};

} // namespace tavrel
