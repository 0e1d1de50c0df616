#include "ui/UploadDialog.h"

#include "ui/ClientSearchDelegate.h"
#include "ui/ClientToggleHandler.h"

#include <QButtonGroup>
#include <QCheckBox>
#include <QComboBox>
#include <QFrame>
#include <QGraphicsOpacityEffect>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QVBoxLayout>

namespace tavrel {

namespace {

constexpr int kSpacingPx = 8;
constexpr int kVisibleItems = 8;
constexpr qreal kCaptionPointSize = 11.0;

QColor secondaryLabelColor(const QWidget* widget) {
    return widget->palette().color(QPalette::PlaceholderText);
}

QLabel* makeCaption(const QString& text, QWidget* parent, QFont::Weight weight) {
    auto* label = new QLabel(text, parent);
    label->setTextFormat(Qt::PlainText);
    QFont font = label->font();
    font.setPointSizeF(kCaptionPointSize);
    font.setWeight(weight);
    label->setFont(font);
    QPalette palette = label->palette();
    palette.setColor(QPalette::WindowText, secondaryLabelColor(label));
    label->setPalette(palette);
    return label;
}

} // namespace

const UploadDialog::Segment UploadDialog::kSynthesisTypes[3] = {
    {"Professionnelle", "professional"}, {"Revue DCE", "revue_dce"}, {"Personnelle", "personal"}};
const UploadDialog::Segment UploadDialog::kDepths[3] = {
    {"Concise", "concise"}, {"Normale", "normal"}, {"Approfondie", "approfondie"}};

UploadDialog::UploadDialog(QList<QJsonObject> clients, QWidget* parent)
    : QWidget(parent), m_clients(std::move(clients)) {
    setObjectName(QStringLiteral("uploadDialog"));
    setFixedWidth(kWidthPx);
    setMinimumHeight(kHeightPx);
    auto* stack = new QVBoxLayout(this);
    stack->setContentsMargins(0, 0, 0, 0);
    stack->setSpacing(kSpacingPx);
    stack->setAlignment(Qt::AlignLeft | Qt::AlignTop);

    m_titleField = new QLineEdit(this);
    m_titleField->setObjectName(QStringLiteral("titleField"));
    m_titleField->setPlaceholderText(QStringLiteral("Titre (ex : Réunion commune de X)"));
    m_titleField->setFixedWidth(kWidthPx);
    stack->addWidget(m_titleField);

    m_clientCheckBox = new QCheckBox(QStringLiteral("Attribuer à un client"), this);
    m_clientCheckBox->setObjectName(QStringLiteral("clientCheckBox"));
    stack->addWidget(m_clientCheckBox);

    m_clientField = new QComboBox(this);
    m_clientField->setObjectName(QStringLiteral("clientField"));
    m_clientField->setEditable(true);
    // Completion is ours (ClientSearchDelegate): Qt's would fight it, and Enter must not add items.
    m_clientField->setCompleter(nullptr);
    m_clientField->setInsertPolicy(QComboBox::NoInsert);
    m_clientField->lineEdit()->setPlaceholderText(QStringLiteral("Rechercher un client..."));
    m_clientField->setMaxVisibleItems(kVisibleItems);
    m_clientField->setFixedWidth(kWidthPx);
    for (const QJsonObject& record : std::as_const(m_clients)) {
        const QJsonValue name = record.value(QLatin1String("name"));
        if (name.isString())
            m_clientField->addItem(name.toString());
    }
    m_clientField->setCurrentIndex(-1);
    m_clientField->setEditText(QString());
    stack->addWidget(m_clientField);

    m_matchLabel = makeCaption(QString(), this, QFont::Normal);
    m_matchLabel->setObjectName(QStringLiteral("matchLabel"));
    stack->addWidget(m_matchLabel);

    auto* separator = new QFrame(this);
    separator->setFrameShape(QFrame::HLine);
    separator->setFrameShadow(QFrame::Sunken);
    separator->setFixedWidth(kWidthPx);
    stack->addWidget(separator);

    m_synthesisTypeGroup = addSegments(QStringLiteral("Type de synthèse"), kSynthesisTypes, kDefaultSynthesisType);
    m_synthesisTypeGroup->setObjectName(QStringLiteral("synthesisTypeGroup"));
    m_depthGroup = addSegments(QStringLiteral("Profondeur"), kDepths, kDefaultDepth);
    m_depthGroup->setObjectName(QStringLiteral("depthGroup"));
    stack->addStretch(1);

    m_searchDelegate = new ClientSearchDelegate(m_clients, m_clientField, m_matchLabel, this);
    m_toggleHandler = new ClientToggleHandler(m_clientField, m_matchLabel, this);
    m_toggleHandler->toggle(false);
    // The title is what the user types first: the field takes the keyboard when the alert opens.
    setFocusProxy(m_titleField);

    connect(m_clientCheckBox, &QCheckBox::toggled, m_toggleHandler, &ClientToggleHandler::toggle);
    connect(m_clientField->lineEdit(), &QLineEdit::textEdited, m_searchDelegate,
            &ClientSearchDelegate::controlTextDidChange);
    connect(m_clientField, &QComboBox::activated, m_searchDelegate, &ClientSearchDelegate::comboBoxSelectionDidChange);
}

UploadDialog::~UploadDialog() = default;

QButtonGroup* UploadDialog::addSegments(const QString& caption, const Segment (&segments)[3], int selected) {
    auto* stack = static_cast<QVBoxLayout*>(layout());
    stack->addWidget(makeCaption(caption, this, QFont::Medium));

    auto* row = new QWidget(this);
    auto* rowLayout = new QHBoxLayout(row);
    rowLayout->setContentsMargins(0, 0, 0, 0);
    rowLayout->setSpacing(0);
    auto* group = new QButtonGroup(this);
    group->setExclusive(true);
    for (int i = 0; i < 3; ++i) {
        auto* button = new QPushButton(QString::fromUtf8(segments[i].label), row);
        button->setCheckable(true);
        button->setChecked(i == selected);
        button->setProperty("segmentValue", QString::fromUtf8(segments[i].value));
        group->addButton(button, i);
        rowLayout->addWidget(button);
    }
    rowLayout->addStretch(1);
    stack->addWidget(row);
    return group;
}

QString UploadDialog::titleText() const {
    return m_titleField->text();
}

bool UploadDialog::isClientChecked() const {
    return m_clientCheckBox->isChecked();
}

QString UploadDialog::clientText() const {
    return m_clientField->currentText();
}

QString UploadDialog::synthesisType() const {
    const int index = m_synthesisTypeGroup->checkedId();
    return QString::fromUtf8(kSynthesisTypes[index >= 0 && index < 3 ? index : kDefaultSynthesisType].value);
}

QString UploadDialog::depth() const {
    const int index = m_depthGroup->checkedId();
    return QString::fromUtf8(kDepths[index >= 0 && index < 3 ? index : kDefaultDepth].value);
}

qreal UploadDialog::clientFieldOpacity() const {
    const auto* effect = qobject_cast<QGraphicsOpacityEffect*>(m_clientField->graphicsEffect());
    return effect ? effect->opacity() : 1.0;
}

} // namespace tavrel
