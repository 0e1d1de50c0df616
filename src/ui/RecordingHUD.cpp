#include "ui/RecordingHUD.h"

#include "ui/AppIcon.h"
#include "ui/HUDView.h"
#include "ui/PulsingDot.h"
#include "ui/SymbolIcon.h"
#include "ui/VUMeterView.h"

#include <QFontDatabase>
#include <QGuiApplication>
#include <QLabel>
#include <QPaintEvent>
#include <QPainter>
#include <QPainterPath>
#include <QScreen>
#include <QTimer>
#include <QToolButton>
#include <algorithm>
#include <cmath>
#include <optional>

namespace tavrel {

namespace {

constexpr int kShadowMarginPx = 18;
constexpr int kShadowBlurPx = 9;
constexpr int kShadowOffsetYPx = 4;
constexpr qreal kCardRadiusPx = 20.0;
const QRect kFallbackArea(0, 0, 1440, 900);

const QColor kLabelColor = QColor::fromRgbF(0.2f, 0.2f, 0.2f, 0.6f);
const QColor kSymbolTint = QColor::fromRgbF(0.0f, 0.0f, 0.0f, 0.35f);
const QColor kBrandBlue = QColor::fromRgbF(0.39f, 0.59f, 1.0f);
const QColor kStopTint = QColor::fromRgbF(0.85f, 0.18f, 0.2f);
const QColor kNoteTint = QColor::fromRgbF(0.0f, 0.0f, 0.0f, 0.55f);

/// A blurred rounded rectangle in black: the card's drop shadow, drawn once per panel.
QImage makeShadow(QSize cardSize) {
    const QSize imageSize = cardSize + QSize(2 * kShadowMarginPx, 2 * kShadowMarginPx);
    QImage image(imageSize, QImage::Format_ARGB32_Premultiplied);
    image.fill(Qt::transparent);
    {
        QPainter painter(&image);
        painter.setRenderHint(QPainter::Antialiasing);
        painter.setPen(Qt::NoPen);
        painter.setBrush(QColor(0, 0, 0, 70));
        painter.drawRoundedRect(QRectF(QPointF(kShadowMarginPx, kShadowMarginPx + kShadowOffsetYPx), cardSize), 20, 20);
    }
    // Three box blurs approximate a Gaussian; only alpha matters since the colour is black.
    const int width = image.width();
    const int height = image.height();
    std::vector<int> alpha(static_cast<size_t>(width) * height);
    for (int y = 0; y < height; ++y) {
        const auto* line = reinterpret_cast<const QRgb*>(image.constScanLine(y));
        for (int x = 0; x < width; ++x)
            alpha[static_cast<size_t>(y) * width + x] = qAlpha(line[x]);
    }
    const int radius = kShadowBlurPx / 3 + 1;
    std::vector<int> scratch(alpha.size());
    auto blurPass = [&](bool horizontal) {
        const int outer = horizontal ? height : width;
        const int inner = horizontal ? width : height;
        for (int o = 0; o < outer; ++o) {
            for (int i = 0; i < inner; ++i) {
                int sum = 0;
                int count = 0;
                for (int k = std::max(0, i - radius); k <= std::min(inner - 1, i + radius); ++k) {
                    const size_t index =
                        horizontal ? static_cast<size_t>(o) * width + k : static_cast<size_t>(k) * width + o;
                    sum += alpha[index];
                    ++count;
                }
                const size_t target =
                    horizontal ? static_cast<size_t>(o) * width + i : static_cast<size_t>(i) * width + o;
                scratch[target] = sum / count;
            }
        }
        alpha.swap(scratch);
    };
    for (int pass = 0; pass < 3; ++pass) {
        blurPass(true);
        blurPass(false);
    }
    for (int y = 0; y < height; ++y) {
        auto* line = reinterpret_cast<QRgb*>(image.scanLine(y));
        for (int x = 0; x < width; ++x)
            line[x] = qRgba(0, 0, 0, alpha[static_cast<size_t>(y) * width + x]);
    }
    return image;
}

/// The panel's top-level window: transparent, with the card inset by the shadow's margin. Without a
/// compositor it is the card itself, cut to its rounded shape.
class HUDPanel : public QWidget {
public:
    explicit HUDPanel(bool translucent)
        : QWidget(nullptr, Qt::Tool | Qt::FramelessWindowHint | Qt::WindowStaysOnTopHint |
                               Qt::WindowDoesNotAcceptFocus | Qt::NoDropShadowWindowHint),
          m_marginPx(translucent ? kShadowMarginPx : 0) {
        setAttribute(Qt::WA_ShowWithoutActivating);
        setFocusPolicy(Qt::NoFocus);
        setWindowTitle(QStringLiteral("TaVREL Recorder"));
        const QSize card(HUDView::kWidthPx, HUDView::kHeightPx);
        setFixedSize(card + QSize(2 * m_marginPx, 2 * m_marginPx));
        if (translucent) {
            setAttribute(Qt::WA_TranslucentBackground);
            setAttribute(Qt::WA_NoSystemBackground);
            m_shadow = makeShadow(card);
        } else {
            QPainterPath shape;
            shape.addRoundedRect(QRectF(QPointF(0, 0), card), kCardRadiusPx, kCardRadiusPx);
            setMask(QRegion(shape.toFillPolygon().toPolygon()));
        }
    }

    int marginPx() const { return m_marginPx; }

protected:
    void paintEvent(QPaintEvent* event) override {
        if (m_shadow.isNull())
            return;
        QPainter painter(this);
        painter.setCompositionMode(QPainter::CompositionMode_Source);
        const QRect dirty = event->rect();
        painter.drawImage(dirty, m_shadow, dirty);
    }

private:
    int m_marginPx;
    QImage m_shadow;
};

void styleRoundButton(QToolButton* button, const QString& background, const QString& pressedBackground) {
    button->setAutoRaise(false);
    button->setFocusPolicy(Qt::NoFocus);
    button->setCursor(Qt::PointingHandCursor);
    button->setStyleSheet(QStringLiteral("QToolButton { background: %1; border: none; border-radius: 18px; }"
                                         "QToolButton:pressed { background: %2; }")
                              .arg(background, pressedBackground));
}

} // namespace

void RecordingHUD::DeleteLater::operator()(QObject* object) const {
    if (object)
        object->deleteLater();
}

RecordingHUD::RecordingHUD(QObject* parent) : QObject(parent) {}

RecordingHUD::~RecordingHUD() {
    hide();
}

QRect RecordingHUD::panelRect(const QRect& availableArea) {
    const QRect area = availableArea.isValid() ? availableArea : kFallbackArea;
    return {area.x() + area.width() - kPanelWidthPx - kScreenMarginPx, area.y() + kScreenMarginPx, kPanelWidthPx,
            kPanelHeightPx};
}

QRect RecordingHUD::panelFrame() const {
    if (!m_view)
        return {};
    return {m_view->mapToGlobal(QPoint(0, 0)), m_view->size()};
}

void RecordingHUD::show(bool systemAudio) {
    if (m_panel)
        return;
    m_elapsed = 0;
    buildPanel(systemAudio);
    startTicker();
    startMeterTimer();
    m_panel->show();
    m_panel->raise();
}

void RecordingHUD::hide() {
    m_ticker.reset();
    m_meterTimer.reset();
    if (m_panel)
        m_panel->hide();
    m_panel.reset();
    m_vuMeter = nullptr;
    m_sysMeter = nullptr;
}

void RecordingHUD::didStop() {
    if (!onStop)
        return;
    // One stop per panel: a second click already queued behind the first finds the button disabled.
    if (m_stopButton) {
        if (!m_stopButton->isEnabled())
            return;
        m_stopButton->setEnabled(false);
    }
    onStop();
}

void RecordingHUD::didNote() {
    if (onNote)
        onNote();
}

void RecordingHUD::tickClock() {
    ++m_elapsed;
    const qint64 minutes = m_elapsed / 60;
    const qint64 seconds = m_elapsed % 60;
    if (m_timerLabel)
        m_timerLabel->setText(
            QString::asprintf("%lld:%02lld", static_cast<long long>(minutes), static_cast<long long>(seconds)));
}

void RecordingHUD::setMeterWarning(bool systemMeter, bool warning) {
    if (VUMeterView* meter = systemMeter ? m_sysMeter.data() : m_vuMeter.data())
        meter->setWarning(warning);
}

void RecordingHUD::tickMeters() {
    if (!levelProvider)
        return;
    const float microphone = levelProvider();
    std::optional<float> system;
    if (systemLevelProvider)
        system = systemLevelProvider();
    if (system && m_sysMeter)
        m_sysMeter->setLevel(*system);
    if (m_vuMeter)
        m_vuMeter->setLevel(microphone);
}

void RecordingHUD::startTicker() {
    m_ticker = std::make_unique<QTimer>();
    m_ticker->setInterval(kTickerIntervalMs);
    connect(m_ticker.get(), &QTimer::timeout, this, &RecordingHUD::tickClock);
    m_ticker->start();
}

void RecordingHUD::startMeterTimer() {
    m_meterTimer = std::make_unique<QTimer>();
    m_meterTimer->setInterval(kMeterIntervalMs);
    connect(m_meterTimer.get(), &QTimer::timeout, this, &RecordingHUD::tickMeters);
    m_meterTimer->start();
}

QLabel* RecordingHUD::makeLabel(const QRect& frame) {
    auto* label = new QLabel(m_view);
    label->setGeometry(frame);
    QFont font = QFontDatabase::systemFont(QFontDatabase::FixedFont);
    font.setPixelSize(11);
    font.setWeight(QFont::Medium);
    label->setFont(font);
    label->setAlignment(Qt::AlignCenter);
    QPalette palette = label->palette();
    palette.setColor(QPalette::WindowText, kLabelColor);
    label->setPalette(palette);
    return label;
}

QLabel* RecordingHUD::makeSymbolView(const QString& symbol, qreal pointSize, const QRect& frame, const QColor& tint) {
    auto* view = new QLabel(m_view);
    view->setGeometry(frame);
    view->setAlignment(Qt::AlignCenter);
    // Scaled down only: the symbol keeps its size unless the frame is smaller.
    const qreal scale = std::min({1.0, qreal(frame.width()) / SymbolIcon::pixelSize(pointSize),
                                  qreal(frame.height()) / SymbolIcon::pixelSize(pointSize)});
    const qreal ratio = m_view->devicePixelRatioF();
    view->setPixmap(SymbolIcon::pixmap(symbol, pointSize * scale, tint, ratio));
    return view;
}

void RecordingHUD::buildPanel(bool systemAudio) {
    QScreen* screen = QGuiApplication::primaryScreen();
    const QRect cardRect = panelRect(screen ? screen->availableGeometry() : kFallbackArea);

    auto* panel = new HUDPanel(!compositingAvailable || compositingAvailable());
    m_panel.reset(panel);
    const int margin = panel->marginPx();
    m_panel->move(cardRect.topLeft() - QPoint(margin, margin));
    m_view = new HUDView(m_panel.get());
    m_view->move(margin, margin);
    const qreal ratio = m_view->devicePixelRatioF();

    auto* logo = new QLabel(m_view);
    logo->setGeometry(10, 10, 40, 40);
    logo->setAlignment(Qt::AlignCenter);
    logo->setPixmap(appIconPixmap(40, ratio));

    m_timerLabel = makeLabel(QRect(0, 55, 60, 16));
    m_timerLabel->setText(QStringLiteral("0:00"));

    auto* dot = new PulsingDot(m_view);
    dot->setGeometry(26, 76, 8, 8);

    auto makeSeparator = [this](int y) {
        auto* separator = new QWidget(m_view);
        separator->setGeometry(10, y, 40, 1);
        separator->setAutoFillBackground(true);
        QPalette palette = separator->palette();
        palette.setColor(QPalette::Window, QColor::fromRgbF(0, 0, 0, 0.1f));
        separator->setPalette(palette);
    };
    makeSeparator(92);

    m_stopButton = new QToolButton(m_view);
    m_stopButton->setGeometry(12, 100, 36, 36);
    styleRoundButton(m_stopButton, QStringLiteral("rgb(237, 237, 237)"), QStringLiteral("rgb(222, 222, 222)"));
    m_stopButton->setIcon(SymbolIcon::icon(QStringLiteral("stop.fill"), 14, kStopTint));
    m_stopButton->setIconSize(QSize(SymbolIcon::pixelSize(14), SymbolIcon::pixelSize(14)));
    connect(m_stopButton, &QToolButton::clicked, this, &RecordingHUD::didStop);

    makeSeparator(144);

    if (systemAudio)
        makeSymbolView(QStringLiteral("mic.and.signal.meter.fill"), 11, QRect(0, 152, 60, 12), kBrandBlue);
    else
        makeSymbolView(QStringLiteral("mic.fill"), 11, QRect(0, 152, 60, 12), kSymbolTint);

    std::vector<QLabel*> meterIcons;
    if (systemAudio) {
        meterIcons.push_back(makeSymbolView(QStringLiteral("mic.fill"), 8, QRect(8, 214, 18, 10), kSymbolTint));
        m_vuMeter = new VUMeterView(m_view);
        m_vuMeter->move(10, 170);
        meterIcons.push_back(
            makeSymbolView(QStringLiteral("speaker.wave.2.fill"), 8, QRect(34, 214, 18, 10), kSymbolTint));
        m_sysMeter = new VUMeterView(m_view);
        m_sysMeter->move(36, 170);
    } else {
        m_vuMeter = new VUMeterView(m_view);
        m_vuMeter->move(23, 170);
        m_sysMeter = nullptr;
    }

    makeSeparator(218);
    // The meter icons' frames reach over this separator; they are drawn above it.
    for (QLabel* icon : meterIcons)
        icon->raise();

    m_noteButton = new QToolButton(m_view);
    m_noteButton->setGeometry(12, 224, 36, 36);
    styleRoundButton(m_noteButton, QStringLiteral("rgba(0, 0, 0, 18)"), QStringLiteral("rgba(0, 0, 0, 36)"));
    m_noteButton->setIcon(SymbolIcon::icon(QStringLiteral("pencil"), 13, kNoteTint));
    m_noteButton->setIconSize(QSize(SymbolIcon::pixelSize(13), SymbolIcon::pixelSize(13)));
    connect(m_noteButton, &QToolButton::clicked, this, &RecordingHUD::didNote);

    m_panel->winId();
    if (pinToAllWorkspaces && m_panel->windowHandle())
        pinToAllWorkspaces(*m_panel->windowHandle());
}

} // namespace tavrel
