#include "ui/MainPopoverController.h"

#include "core/SettingsManager.h"
#include "ui/AppIcon.h"
#include "ui/CircleButton.h"
#include "ui/SymbolIcon.h"

#include <QCoreApplication>
#include <QDesktopServices>
#include <QFrame>
#include <QGuiApplication>
#include <QHBoxLayout>
#include <QLabel>
#include <QMouseEvent>
#include <QPainter>
#include <QToolButton>
#include <QVBoxLayout>

namespace tavrel {

namespace {

// The popover always uses the light look, whatever the desktop's theme.
const QColor kBackground = QColor::fromRgbF(0.965f, 0.965f, 0.965f);
const QColor kLabel = QColor::fromRgbF(0.0f, 0.0f, 0.0f, 0.85f);
const QColor kSecondaryLabel = QColor::fromRgbF(0.0f, 0.0f, 0.0f, 0.5f);
const QColor kSeparator = QColor::fromRgbF(0.0f, 0.0f, 0.0f, 0.1f);
const QColor kSystemRed = QColor::fromRgbF(1.0f, 0.231f, 0.188f);
const QColor kDarkerRed = QColor::fromRgbF(0.75f, 0.12f, 0.12f);
const QColor kBusyGray = QColor::fromRgbF(0.6f, 0.6f, 0.62f);

constexpr int kHeaderHeightPx = 46;
constexpr int kSecondaryRowHeightPx = 30;
// The body has 101 px under the header and separator: 12 + 36 (round button) + 10 + 30 (row) + 13.
constexpr int kBodyTopPx = 12;
constexpr int kBodyGapPx = 10;
constexpr int kBodyBottomPx = 13;

QFont systemFont(int pixelSize, QFont::Weight weight) {
    QFont font = QGuiApplication::font();
    font.setPixelSize(pixelSize);
    font.setWeight(weight);
    return font;
}

void setTextColor(QWidget* widget, const QColor& color) {
    QPalette palette = widget->palette();
    palette.setColor(QPalette::WindowText, color);
    palette.setColor(QPalette::ButtonText, color);
    palette.setColor(QPalette::Disabled, QPalette::ButtonText, color);
    widget->setPalette(palette);
}

/// The start/stop row: a click anywhere on it (the caption included) counts as one click of the row.
/// The round button accepts its own presses, so they never reach the row as well.
class ClickableRow : public QWidget {
public:
    explicit ClickableRow(std::function<void()> onClick, QWidget* parent)
        : QWidget(parent), m_onClick(std::move(onClick)) {
        setCursor(Qt::PointingHandCursor);
    }

protected:
    void mousePressEvent(QMouseEvent* event) override {
        m_pressed = event->button() == Qt::LeftButton;
        event->setAccepted(m_pressed);
    }
    void mouseReleaseEvent(QMouseEvent* event) override {
        const bool click =
            m_pressed && event->button() == Qt::LeftButton && rect().contains(event->position().toPoint());
        m_pressed = false;
        event->accept();
        if (click && m_onClick)
            m_onClick();
    }

private:
    std::function<void()> m_onClick;
    bool m_pressed = false;
};

/// The rounded background of a secondary button. Dimming is drawn (background, then the button's text
/// and symbol colours) rather than composited through a graphics effect, which costs an offscreen pass.
class SecondaryContainer : public QFrame {
public:
    using QFrame::QFrame;
    void setOpacity(qreal opacity) {
        m_opacity = opacity;
        update();
    }

protected:
    void paintEvent(QPaintEvent*) override {
        QPainter painter(this);
        painter.setRenderHint(QPainter::Antialiasing);
        painter.setPen(Qt::NoPen);
        painter.setBrush(QColor::fromRgbF(0, 0, 0, static_cast<float>(0.06 * m_opacity)));
        painter.drawRoundedRect(QRectF(rect()), 8, 8);
    }

private:
    qreal m_opacity = 1.0;
};

QColor dimmed(const QColor& color, qreal opacity) {
    QColor result = color;
    result.setAlphaF(static_cast<float>(color.alphaF() * opacity));
    return result;
}

} // namespace

MainPopoverController::MainPopoverController(const QString& versionString, QWidget* parent) : QWidget(parent) {
    setFixedSize(kWidthPx, kHeightPx);
    setAutoFillBackground(true);
    QPalette palette = this->palette();
    palette.setColor(QPalette::Window, kBackground);
    palette.setColor(QPalette::WindowText, kLabel);
    setPalette(palette);
    buildUI(versionString);
    updateStartStop();
    updatePauseButton();
}

void MainPopoverController::setIsRecording(bool recording) {
    m_isRecording = recording;
    QMetaObject::invokeMethod(
        this,
        [this] {
            updateStartStop();
            updatePauseButton();
        },
        Qt::QueuedConnection);
}

void MainPopoverController::setIsPaused(bool paused) {
    m_isPaused = paused;
    QMetaObject::invokeMethod(
        this, [this] { updatePauseButton(); }, Qt::QueuedConnection);
}

void MainPopoverController::setBusyCaption(const QString& caption) {
    m_busyCaption = caption;
    updateStartStop();
    updatePauseButton();
}

qreal MainPopoverController::pauseContainerOpacity() const {
    return m_pauseOpacity;
}

void MainPopoverController::buildUI(const QString& versionString) {
    auto* header = new QWidget(this);
    header->setFixedHeight(kHeaderHeightPx);
    auto* headerLayout = new QHBoxLayout(header);
    headerLayout->setContentsMargins(14, 0, 10, 0);
    headerLayout->setSpacing(7);

    auto* logo = new QLabel(header);
    logo->setFixedSize(24, 24);
    logo->setPixmap(appIconPixmap(24, devicePixelRatioF()));
    headerLayout->addWidget(logo, 0, Qt::AlignVCenter);

    auto* titles = new QVBoxLayout;
    titles->setSpacing(0);
    titles->setContentsMargins(0, 0, 0, 0);
    auto* name = new QLabel(QStringLiteral("TaVREL Consultant"), header);
    name->setFont(systemFont(13, QFont::DemiBold));
    setTextColor(name, kLabel);
    auto* version = new QLabel(QStringLiteral("Recorder v") + versionString, header);
    version->setFont(systemFont(10, QFont::Normal));
    setTextColor(version, kSecondaryLabel);
    titles->addWidget(name);
    titles->addWidget(version);
    headerLayout->addLayout(titles);
    headerLayout->addStretch(1);

    auto* headerButtons = new QHBoxLayout;
    headerButtons->setSpacing(2);
    m_historyBtn = makeHeaderButton(QStringLiteral("square.on.square"), &MainPopoverController::didTapHistory);
    m_settingsBtn = makeHeaderButton(QStringLiteral("gearshape"), &MainPopoverController::didTapSettings);
    headerButtons->addWidget(m_historyBtn);
    headerButtons->addWidget(m_settingsBtn);
    headerLayout->addLayout(headerButtons);

    auto* body = new QWidget(this);
    auto* bodyLayout = new QVBoxLayout(body);
    bodyLayout->setContentsMargins(14, kBodyTopPx, 14, kBodyBottomPx);
    bodyLayout->setSpacing(kBodyGapPx);

    m_startRow = new ClickableRow([this] { didTapStartRow(); }, body);
    auto* rowLayout = new QHBoxLayout(m_startRow);
    rowLayout->setContentsMargins(0, 0, 0, 0);
    rowLayout->setSpacing(10);
    m_circleButton = new CircleButton(m_startRow);
    m_circleButton->setFixedSize(36, 36);
    m_circleButton->onTap = [this] { didTapStartRow(); };
    m_actionLabel = new QLabel(m_startRow);
    m_actionLabel->setFont(systemFont(13, QFont::Medium));
    setTextColor(m_actionLabel, kLabel);
    rowLayout->addWidget(m_circleButton, 0, Qt::AlignVCenter);
    rowLayout->addWidget(m_actionLabel, 0, Qt::AlignVCenter);
    bodyLayout->addWidget(m_startRow, 0, Qt::AlignHCenter);

    auto [pauseContainer, pauseButton] = makeSecondaryButton(QStringLiteral("pause.fill"), QStringLiteral(" Pause"),
                                                             &MainPopoverController::didTapPause);
    m_pauseContainer = pauseContainer;
    m_pauseBtn = pauseButton;
    auto [quitContainer, quitButton] =
        makeSecondaryButton(QStringLiteral("xmark"), QStringLiteral(" Quitter"), &MainPopoverController::didTapQuit);
    m_quitBtn = quitButton;
    auto* secondaryRow = new QHBoxLayout;
    secondaryRow->setSpacing(8);
    secondaryRow->addWidget(m_pauseContainer, 1);
    secondaryRow->addWidget(quitContainer, 1);
    bodyLayout->addLayout(secondaryRow);

    auto* root = new QVBoxLayout(this);
    root->setContentsMargins(0, 0, 0, 0);
    root->setSpacing(0);
    root->addWidget(header);
    root->addWidget(makeSeparator());
    root->addWidget(body, 1);
}

QToolButton* MainPopoverController::makeHeaderButton(const QString& symbol, void (MainPopoverController::*action)()) {
    auto* button = new QToolButton(this);
    button->setFixedSize(30, 30);
    button->setAutoRaise(true);
    button->setFocusPolicy(Qt::NoFocus);
    button->setCursor(Qt::PointingHandCursor);
    button->setIcon(SymbolIcon::icon(symbol, 14, kSecondaryLabel));
    button->setIconSize(QSize(SymbolIcon::pixelSize(14), SymbolIcon::pixelSize(14)));
    button->setStyleSheet(QStringLiteral("QToolButton { border: none; border-radius: 7px; background: transparent; }"
                                         "QToolButton:hover { background: rgba(0, 0, 0, 13); }"
                                         "QToolButton:pressed { background: rgba(0, 0, 0, 28); }"));
    connect(button, &QToolButton::clicked, this, action);
    return button;
}

std::pair<QFrame*, QToolButton*> MainPopoverController::makeSecondaryButton(const QString& symbol, const QString& title,
                                                                            void (MainPopoverController::*action)()) {
    auto* container = new SecondaryContainer(this);
    container->setFixedHeight(kSecondaryRowHeightPx);
    auto* layout = new QHBoxLayout(container);
    layout->setContentsMargins(0, 0, 0, 0);

    auto* button = new QToolButton(container);
    button->setToolButtonStyle(Qt::ToolButtonTextBesideIcon);
    button->setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Expanding);
    button->setFocusPolicy(Qt::NoFocus);
    button->setCursor(Qt::PointingHandCursor);
    button->setFont(systemFont(12, QFont::Normal));
    button->setText(title);
    button->setIconSize(QSize(SymbolIcon::pixelSize(10), SymbolIcon::pixelSize(10)));
    styleSecondaryButton(button, symbol, 1.0);
    layout->addWidget(button);
    connect(button, &QToolButton::clicked, this, action);
    return {container, button};
}

void MainPopoverController::styleSecondaryButton(QToolButton* button, const QString& symbol, qreal opacity) {
    const QColor text = dimmed(kLabel, opacity);
    button->setIcon(SymbolIcon::icon(symbol, 10, dimmed(kSecondaryLabel, opacity)));
    button->setStyleSheet(QStringLiteral("QToolButton { border: none; border-radius: 8px; background: transparent; "
                                         "color: rgba(0, 0, 0, %1); }"
                                         "QToolButton:hover { background: rgba(0, 0, 0, 10); }"
                                         "QToolButton:pressed { background: rgba(0, 0, 0, 24); }")
                              .arg(text.alpha()));
}

QWidget* MainPopoverController::makeSeparator() {
    auto* separator = new QWidget(this);
    separator->setFixedHeight(1);
    separator->setAutoFillBackground(true);
    QPalette palette = separator->palette();
    palette.setColor(QPalette::Window, kSeparator);
    separator->setPalette(palette);
    return separator;
}

void MainPopoverController::updateStartStop() {
    if (!m_circleButton || !m_actionLabel || !m_startRow)
        return;
    m_startRow->setEnabled(m_busyCaption.isEmpty());
    if (!m_busyCaption.isEmpty()) {
        m_actionLabel->setText(m_busyCaption);
        m_circleButton->setColor(kBusyGray);
        m_circleButton->setIcon(QStringLiteral("hourglass"));
    } else if (m_isRecording) {
        m_actionLabel->setText(QStringLiteral("Arrêter l'enregistrement"));
        m_circleButton->setColor(kDarkerRed);
        m_circleButton->setIcon(QStringLiteral("stop.fill"));
    } else {
        m_actionLabel->setText(QStringLiteral("Démarrer l'enregistrement"));
        m_circleButton->setColor(kSystemRed);
        m_circleButton->setIcon(QStringLiteral("record.circle.fill"));
    }
}

void MainPopoverController::updatePauseButton() {
    if (!m_pauseBtn || !m_pauseContainer)
        return;
    const bool usable = m_isRecording && m_busyCaption.isEmpty();
    m_pauseOpacity = usable ? 1.0 : 0.4;
    static_cast<SecondaryContainer*>(m_pauseContainer.data())->setOpacity(m_pauseOpacity);
    m_pauseBtn->setEnabled(usable);
    m_pauseSymbol = m_isPaused ? QStringLiteral("play.fill") : QStringLiteral("pause.fill");
    m_pauseBtn->setText(m_isPaused ? QStringLiteral(" Reprendre") : QStringLiteral(" Pause"));
    styleSecondaryButton(m_pauseBtn, m_pauseSymbol, m_pauseOpacity);
}

void MainPopoverController::didTapStartRow() {
    if (m_busyCaption.isEmpty() && onStartStop)
        onStartStop();
}

void MainPopoverController::didTapPause() {
    if (m_busyCaption.isEmpty() && onPause)
        onPause();
}

void MainPopoverController::didTapSettings() {
    if (onSettings)
        onSettings();
}

void MainPopoverController::didTapHistory() {
    const QString base = webURLProvider ? webURLProvider() : SettingsManager::shared().webURL();
    const QUrl url(base + QStringLiteral("#recordings"), QUrl::StrictMode);
    // Only an absolute URL can be handed to the browser; anything else is not a valid address.
    if (!url.isValid() || url.isRelative() || (url.host().isEmpty() && !url.isLocalFile()))
        return;
    if (openURL)
        openURL(url);
    else
        QDesktopServices::openUrl(url);
}

void MainPopoverController::didTapQuit() {
    if (onQuit)
        onQuit();
    else
        QCoreApplication::quit();
}

} // namespace tavrel
