#include "platform/linux/LinuxStatusItem.h"

#include "core/Log.h"

#include <QCoreApplication>
#include <QCursor>
#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDBusMetaType>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QPainter>
#include <QStandardPaths>
#include <QtEndian>

namespace tavrel {

namespace {

const QString kWatcherService = QStringLiteral("org.kde.StatusNotifierWatcher");
const QString kItemPath = QStringLiteral("/StatusNotifierItem");
constexpr int kPixmapSizesPx[] = {22, 32, 48};

bool themeHasOurIcon() {
    static const bool installed = [] {
        for (const char* size : {"256x256", "128x128", "64x64", "48x48", "32x32", "22x22"}) {
            const QString relative = QStringLiteral("icons/hicolor/%1/apps/tavrel-icon.png").arg(QLatin1String(size));
            if (!QStandardPaths::locate(QStandardPaths::GenericDataLocation, relative).isEmpty())
                return true;
        }
        return false;
    }();
    return installed;
}

SniPixmap toSniPixmap(const QImage& source) {
    const QImage image = source.convertToFormat(QImage::Format_ARGB32);
    SniPixmap pixmap{image.width(), image.height(), {}};
    pixmap.pixels.resize(qsizetype(image.width()) * image.height() * 4);
    auto* out = reinterpret_cast<quint32*>(pixmap.pixels.data());
    for (int y = 0; y < image.height(); ++y) {
        const auto* line = reinterpret_cast<const quint32*>(image.constScanLine(y));
        for (int x = 0; x < image.width(); ++x)
            *out++ = qToBigEndian(line[x]);
    }
    return pixmap;
}

} // namespace

QDBusArgument& operator<<(QDBusArgument& argument, const SniPixmap& pixmap) {
    argument.beginStructure();
    argument << pixmap.width << pixmap.height << pixmap.pixels;
    argument.endStructure();
    return argument;
}

const QDBusArgument& operator>>(const QDBusArgument& argument, SniPixmap& pixmap) {
    argument.beginStructure();
    argument >> pixmap.width >> pixmap.height >> pixmap.pixels;
    argument.endStructure();
    return argument;
}

QDBusArgument& operator<<(QDBusArgument& argument, const SniToolTip& toolTip) {
    argument.beginStructure();
    argument << toolTip.iconName << toolTip.pixmaps << toolTip.title << toolTip.description;
    argument.endStructure();
    return argument;
}

const QDBusArgument& operator>>(const QDBusArgument& argument, SniToolTip& toolTip) {
    argument.beginStructure();
    argument >> toolTip.iconName >> toolTip.pixmaps >> toolTip.title >> toolTip.description;
    argument.endStructure();
    return argument;
}

StatusNotifierItemAdaptor::StatusNotifierItemAdaptor(LinuxStatusItem* item) : QDBusAbstractAdaptor(item), m_item(item) {
    setAutoRelaySignals(false);
}

QString StatusNotifierItemAdaptor::iconName() const {
    return m_item->iconName();
}
SniPixmapList StatusNotifierItemAdaptor::iconPixmap() const {
    return m_item->iconPixmaps();
}

SniToolTip StatusNotifierItemAdaptor::toolTip() const {
    return SniToolTip{m_item->iconName(), m_item->iconPixmaps(), QStringLiteral("TaVREL Recorder"),
                      m_item->toolTipText()};
}

QString StatusNotifierItemAdaptor::label() const {
    return m_item->title();
}

// The widest text the label shows while recording, so that the panel does not jump every second.
QString StatusNotifierItemAdaptor::labelGuide() const {
    return m_item->title().isEmpty() ? QString() : QStringLiteral("🔴00:00");
}

void StatusNotifierItemAdaptor::Activate(int x, int y) {
    m_item->activate(QPoint(x, y));
}
void StatusNotifierItemAdaptor::SecondaryActivate(int x, int y) {
    m_item->activate(QPoint(x, y));
}
// The item has no menu: a right click opens the same popup as a left click.
void StatusNotifierItemAdaptor::ContextMenu(int x, int y) {
    m_item->activate(QPoint(x, y));
}
void StatusNotifierItemAdaptor::Scroll(int, const QString&) {}

LinuxStatusItem::LinuxStatusItem(const QIcon& icon)
    : m_icon(icon),
      m_serviceName(QStringLiteral("org.kde.StatusNotifierItem-%1-1").arg(QCoreApplication::applicationPid())) {
    qDBusRegisterMetaType<SniPixmap>();
    qDBusRegisterMetaType<SniPixmapList>();
    qDBusRegisterMetaType<SniToolTip>();
    m_adaptor = new StatusNotifierItemAdaptor(this);

    QDBusConnection bus = QDBusConnection::sessionBus();
    m_busOk = bus.isConnected() && bus.registerObject(kItemPath, this) && bus.registerService(m_serviceName);
    if (!m_busOk)
        logLine(QStringLiteral("[StatusItem] bus de session indisponible, zone de notification XEmbed"));

    m_watcher.setConnection(bus);
    m_watcher.addWatchedService(kWatcherService);
    m_watcher.setWatchMode(QDBusServiceWatcher::WatchForOwnerChange);
    connect(&m_watcher, &QDBusServiceWatcher::serviceOwnerChanged, this, &LinuxStatusItem::onWatcherOwnerChanged);

    if (m_busOk && bus.interface()->isServiceRegistered(kWatcherService))
        registerWithWatcher();
    else
        showFallback(true);
}

LinuxStatusItem::~LinuxStatusItem() {
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (m_busOk) {
        bus.unregisterObject(kItemPath);
        bus.unregisterService(m_serviceName);
    }
}

void LinuxStatusItem::registerWithWatcher() {
    QDBusMessage call = QDBusMessage::createMethodCall(kWatcherService, QStringLiteral("/StatusNotifierWatcher"),
                                                       kWatcherService, QStringLiteral("RegisterStatusNotifierItem"));
    call << m_serviceName;
    auto* pending = new QDBusPendingCallWatcher(QDBusConnection::sessionBus().asyncCall(call), this);
    connect(pending, &QDBusPendingCallWatcher::finished, this, [this](QDBusPendingCallWatcher* self) {
        self->deleteLater();
        const QDBusPendingReply<> reply = *self;
        m_registered = !reply.isError();
        if (!m_registered)
            logLine(QStringLiteral("[StatusItem] enregistrement refusé : ") + reply.error().message());
        showFallback(!m_registered);
    });
}

void LinuxStatusItem::onWatcherOwnerChanged(const QString&, const QString&, const QString& newOwner) {
    m_registered = false;
    if (!newOwner.isEmpty() && m_busOk)
        registerWithWatcher();
    else
        showFallback(true);
}

void LinuxStatusItem::showFallback(bool shown) {
    if (!shown) {
        m_fallback.reset();
        return;
    }
    if (m_fallback || !QSystemTrayIcon::isSystemTrayAvailable())
        return;
    m_fallback = std::make_unique<QSystemTrayIcon>();
    connect(m_fallback.get(), &QSystemTrayIcon::activated, this,
            [this](QSystemTrayIcon::ActivationReason) { activate(QCursor::pos()); });
    refreshFallback();
    m_fallback->show();
}

void LinuxStatusItem::refreshFallback() {
    if (!m_fallback)
        return;
    QIcon icon;
    for (int sizePx : kPixmapSizesPx)
        icon.addPixmap(QPixmap::fromImage(currentImage(sizePx)));
    m_fallback->setIcon(icon);
    const QString text = toolTipText();
    m_fallback->setToolTip(text.isEmpty() ? QStringLiteral("TaVREL Recorder")
                                          : QStringLiteral("TaVREL Recorder — ") + text);
}

QString LinuxStatusItem::toolTipText() const {
    if (m_toolTipDetail.isEmpty())
        return m_title;
    return m_title.isEmpty() ? m_toolTipDetail : m_title + QLatin1Char('\n') + m_toolTipDetail;
}

void LinuxStatusItem::setToolTipDetail(const QString& detail) {
    if (detail == m_toolTipDetail)
        return;
    m_toolTipDetail = detail;
    emit m_adaptor->NewToolTip();
    refreshFallback();
}

bool LinuxStatusItem::isShown() const {
    return m_registered || (m_fallback && m_fallback->isVisible());
}

void LinuxStatusItem::setIcon(StatusIcon icon) {
    if (icon == m_state)
        return;
    m_state = icon;
    emit m_adaptor->NewIcon();
    emit m_adaptor->NewToolTip();
    refreshFallback();
}

void LinuxStatusItem::setTitle(const QString& title) {
    if (title == m_title)
        return;
    m_title = title;
    emit m_adaptor->XAyatanaNewLabel(m_title, m_adaptor->labelGuide());
    emit m_adaptor->NewToolTip();
    refreshFallback();
}

QString LinuxStatusItem::iconName() const {
    // A host that finds the name in the theme uses it instead of the pixels; only the idle image is
    // installed there, so the other states travel as pixels.
    return m_state == StatusIcon::idle && themeHasOurIcon() ? QStringLiteral("tavrel-icon") : QString();
}

SniPixmapList LinuxStatusItem::iconPixmaps() const {
    SniPixmapList pixmaps;
    for (int sizePx : kPixmapSizesPx) {
        const QImage image = currentImage(sizePx);
        if (!image.isNull())
            pixmaps << toSniPixmap(image);
    }
    return pixmaps;
}

QImage LinuxStatusItem::currentImage(int sizePx) const {
    if (m_icon.isNull() && m_state == StatusIcon::idle)
        return {};
    QImage image(sizePx, sizePx, QImage::Format_ARGB32_Premultiplied);
    image.fill(Qt::transparent);
    QPainter painter(&image);
    painter.setRenderHint(QPainter::Antialiasing);
    if (!m_icon.isNull())
        m_icon.paint(&painter, image.rect());
    if (m_state != StatusIcon::idle) {
        // A badge in the lower right corner: red while recording, amber while uploads are under way.
        const qreal diameter = sizePx * 0.5;
        const QRectF badge(sizePx - diameter, sizePx - diameter, diameter, diameter);
        painter.setPen(QPen(Qt::white, qMax(1.0, sizePx / 16.0)));
        painter.setBrush(m_state == StatusIcon::recording ? QColor(0xe5, 0x32, 0x2d) : QColor(0xf0, 0xa0, 0x20));
        painter.drawEllipse(badge.adjusted(0.5, 0.5, -0.5, -0.5));
    }
    painter.end();
    return image.convertToFormat(QImage::Format_ARGB32);
}

void LinuxStatusItem::activate(QPoint pos) {
    // Several hosts send 0,0 when they do not know where the click was.
    emit clicked(pos.isNull() ? QCursor::pos() : pos);
}

std::unique_ptr<StatusItem> makeStatusItem(const QIcon& icon) {
    return std::make_unique<LinuxStatusItem>(icon);
}

} // namespace tavrel
