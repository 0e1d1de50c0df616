#include "ui/QtAlertPresenter.h"

#include "ui/AppIcon.h"
#include "ui/SymbolIcon.h"

#include <QDialog>
#include <QFontDatabase>
#include <QHBoxLayout>
#include <QLabel>
#include <QPointer>
#include <QPushButton>
#include <QTimer>
#include <QVBoxLayout>

namespace tavrel {

namespace {

constexpr int kIconEdgePx = 56;
constexpr int kTextWidthPx = 300;
const QColor kWarningTint = QColor::fromRgbF(0.96f, 0.65f, 0.14f);

const char* const kStyleSheet = R"(
QDialog#alert { background: #f6f6f6; }
QLabel#alertMessage { color: rgba(0, 0, 0, 0.88); }
QLabel#alertInformative { color: rgba(0, 0, 0, 0.7); }
QLabel#alertDetails { color: rgba(0, 0, 0, 0.55); }
QPushButton {
    min-width: 76px; min-height: 24px; padding: 2px 14px;
    border: 1px solid rgba(0, 0, 0, 0.14); border-radius: 6px;
    background: #ffffff; color: rgba(0, 0, 0, 0.85);
}
QPushButton:hover { background: #fafafa; }
QPushButton:pressed { background: #e8e8e8; }
QPushButton:default {
    border: 1px solid #4a7cf0; background: #5b8cff; color: #ffffff;
}
QPushButton:default:hover { background: #6898ff; }
QPushButton:default:pressed { background: #4a7cf0; }
QLineEdit, QPlainTextEdit {
    border: 1px solid rgba(0, 0, 0, 0.16); border-radius: 5px; padding: 3px 5px;
    background: #ffffff; color: rgba(0, 0, 0, 0.88);
    selection-background-color: #b5cdff; selection-color: #000000;
}
QLineEdit:focus, QPlainTextEdit:focus { border: 1px solid #6496ff; }
QPushButton:checked { background: #e3ebff; border: 1px solid #6496ff; color: #2a56c6; }
QComboBox {
    border: 1px solid rgba(0, 0, 0, 0.16); border-radius: 5px; padding: 3px 5px;
    background: #ffffff; color: rgba(0, 0, 0, 0.88);
}
QComboBox:focus { border: 1px solid #6496ff; }
QComboBox:disabled { background: #f0f0f0; color: rgba(0, 0, 0, 0.35); }
QComboBox::drop-down { border: none; width: 20px; }
QCheckBox { color: rgba(0, 0, 0, 0.85); spacing: 7px; }
)";

/// The alert's dialog: Escape means its cancelling button when it has one.
class AlertDialog : public QDialog {
public:
    using QDialog::QDialog;
    int cancelResponse = -1;

    void reject() override {
        if (cancelResponse >= kFirstButton)
            done(cancelResponse);
        else
            QDialog::reject();
    }
};

QPixmap alertPicture(AlertStyle style, qreal ratio) {
    if (style == AlertStyle::warning) {
        QPixmap warning =
            SymbolIcon::pixmap(QStringLiteral("exclamationmark.triangle.fill"), kIconEdgePx / 1.2, kWarningTint, ratio);
        if (!warning.isNull())
            return warning;
    }
    return appIconPixmap(kIconEdgePx, ratio);
}

} // namespace

int QtAlertPresenter::run(const AlertSpec& alertSpec) {
    AlertDialog dialog;
    dialog.setObjectName(QStringLiteral("alert"));
    dialog.setWindowTitle(alertSpec.windowTitle.isEmpty() ? QStringLiteral("TaVREL Recorder") : alertSpec.windowTitle);
    dialog.setWindowIcon(appIcon());
    dialog.setStyleSheet(QString::fromLatin1(kStyleSheet));
    dialog.setModal(true);

    auto* root = new QVBoxLayout(&dialog);
    root->setContentsMargins(20, 20, 20, 16);
    root->setSpacing(18);

    auto* content = new QHBoxLayout;
    content->setSpacing(16);
    auto* icon = new QLabel(&dialog);
    icon->setPixmap(alertPicture(alertSpec.style, dialog.devicePixelRatioF()));
    icon->setFixedSize(kIconEdgePx, kIconEdgePx);
    icon->setAlignment(Qt::AlignCenter);
    content->addWidget(icon, 0, Qt::AlignTop);

    auto* texts = new QVBoxLayout;
    texts->setSpacing(6);
    auto* message = new QLabel(alertSpec.message, &dialog);
    message->setObjectName(QStringLiteral("alertMessage"));
    message->setTextFormat(Qt::PlainText);
    message->setWordWrap(true);
    QFont messageFont = message->font();
    messageFont.setPixelSize(14);
    messageFont.setWeight(QFont::Bold);
    message->setFont(messageFont);
    message->setMinimumWidth(kTextWidthPx);
    texts->addWidget(message);
    if (!alertSpec.informativeText.isEmpty()) {
        auto* informative = new QLabel(alertSpec.informativeText, &dialog);
        informative->setObjectName(QStringLiteral("alertInformative"));
        informative->setTextFormat(Qt::PlainText);
        informative->setWordWrap(true);
        informative->setTextInteractionFlags(Qt::TextSelectableByMouse);
        QFont informativeFont = informative->font();
        informativeFont.setPixelSize(12);
        informative->setFont(informativeFont);
        informative->setMinimumWidth(kTextWidthPx);
        texts->addWidget(informative);
    }
    if (!alertSpec.details.isEmpty()) {
        auto* details = new QLabel(alertSpec.details, &dialog);
        details->setObjectName(QStringLiteral("alertDetails"));
        details->setTextFormat(Qt::PlainText);
        details->setWordWrap(true);
        details->setTextInteractionFlags(Qt::TextSelectableByMouse);
        QFont detailsFont = QFontDatabase::systemFont(QFontDatabase::FixedFont);
        detailsFont.setPixelSize(10);
        details->setFont(detailsFont);
        details->setMinimumWidth(kTextWidthPx);
        texts->addWidget(details);
    }
    // The caller owns the accessory: it goes back to its parent when the alert ends.
    QPointer<QWidget> accessory = alertSpec.accessory;
    QWidget* accessoryParent = accessory ? accessory->parentWidget() : nullptr;
    if (accessory) {
        texts->addSpacing(6);
        texts->addWidget(accessory);
        accessory->show();
    }
    texts->addStretch(1);
    content->addLayout(texts, 1);
    root->addLayout(content);

    const QStringList titles = alertSpec.buttons.isEmpty() ? QStringList{QStringLiteral("OK")} : alertSpec.buttons;
    auto* buttons = new QHBoxLayout;
    buttons->setSpacing(8);
    buttons->addStretch(1);
    // Laid out right to left: the first (affirmative) button sits at the right edge.
    for (qsizetype index = titles.size() - 1; index >= 0; --index) {
        auto* button = new QPushButton(titles[index], &dialog);
        const int response = kFirstButton + static_cast<int>(index);
        QObject::connect(button, &QPushButton::clicked, &dialog, [&dialog, response] { dialog.done(response); });
        if (index == 0) {
            // Bold through the font itself, so that the button's size accounts for it.
            QFont bold = button->font();
            bold.setWeight(QFont::DemiBold);
            button->setFont(bold);
            button->setDefault(true);
            button->setAutoDefault(true);
        } else {
            button->setAutoDefault(false);
        }
        // Laid out from the last button on: an "Annuler" anywhere takes Escape over the last button.
        if (titles[index] == QStringLiteral("Annuler") || (index == titles.size() - 1 && titles.size() >= 2))
            dialog.cancelResponse = response;
        buttons->addWidget(button);
    }
    root->addLayout(buttons);

    dialog.setFixedSize(dialog.sizeHint());
    if (accessory)
        accessory->setFocus(Qt::OtherFocusReason);

    if (onShown) {
        QTimer::singleShot(0, &dialog, [this, &dialog] {
            if (onShown)
                onShown(dialog);
        });
    }
    m_running.emplace_back(&dialog);
    if (onAlertUp)
        onAlertUp();
    dialog.show();
    dialog.raise();
    dialog.activateWindow();
    const int response = dialog.exec();
    m_running.pop_back();

    if (accessory) {
        accessory->hide();
        accessory->setParent(accessoryParent);
    }
    return response;
}

void QtAlertPresenter::raiseAlert() {
    if (m_running.empty() || !m_running.back())
        return;
    QDialog* dialog = m_running.back();
    dialog->show();
    dialog->raise();
    dialog->activateWindow();
}

} // namespace tavrel
