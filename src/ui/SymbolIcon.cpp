#include "ui/SymbolIcon.h"

#include <QFile>
#include <QPainter>
#include <QSvgRenderer>
#include <array>
#include <cmath>
#include <utility>

namespace tavrel::SymbolIcon {

namespace {

struct Mapping {
    const char* symbol;
    const char* themeName;
};

// Symbolic (monochrome) theme icons only: they are the ones that take a tint without looking odd.
constexpr std::array kMappings{
    Mapping{"mic.fill", "audio-input-microphone-symbolic"},
    Mapping{"stop.fill", "media-playback-stop-symbolic"},
    Mapping{"pause.fill", "media-playback-pause-symbolic"},
    Mapping{"play.fill", "media-playback-start-symbolic"},
    Mapping{"xmark", "window-close-symbolic"},
    Mapping{"gearshape", "emblem-system-symbolic"},
    Mapping{"square.on.square", "edit-copy-symbolic"},
    Mapping{"record.circle.fill", "media-record-symbolic"},
    Mapping{"pencil", "document-edit-symbolic"},
    Mapping{"speaker.wave.2.fill", "audio-volume-high-symbolic"},
    Mapping{"mic.and.signal.meter.fill", "microphone-sensitivity-high-symbolic"},
    Mapping{"exclamationmark.triangle.fill", "dialog-warning-symbolic"},
    Mapping{"hourglass", "content-loading-symbolic"},
};

constexpr qreal kGlyphBoxPerPoint = 1.2;

QPixmap renderUntinted(const QString& name, int edgePx) {
    QImage image(edgePx, edgePx, QImage::Format_ARGB32_Premultiplied);
    image.fill(Qt::transparent);

    const QIcon themed = QIcon::fromTheme(name);
    if (!themed.isNull()) {
        QPainter painter(&image);
        themed.paint(&painter, QRect(0, 0, edgePx, edgePx));
        return QPixmap::fromImage(std::move(image));
    }
    QSvgRenderer renderer(QStringLiteral(":/icons/symbols/%1.svg").arg(name));
    if (!renderer.isValid())
        return {};
    QPainter painter(&image);
    painter.setRenderHint(QPainter::Antialiasing);
    renderer.render(&painter, QRectF(0, 0, edgePx, edgePx));
    return QPixmap::fromImage(std::move(image));
}

} // namespace

QString themeName(const QString& symbol) {
    for (const Mapping& mapping : kMappings) {
        if (symbol == QLatin1String(mapping.symbol))
            return QString::fromLatin1(mapping.themeName);
    }
    return {};
}

QStringList knownSymbols() {
    QStringList symbols;
    for (const Mapping& mapping : kMappings)
        symbols << QString::fromLatin1(mapping.symbol);
    return symbols;
}

int pixelSize(qreal pointSize) {
    return std::max(1, static_cast<int>(std::lround(pointSize * kGlyphBoxPerPoint)));
}

QPixmap pixmap(const QString& symbol, qreal pointSize, const QColor& tint, qreal devicePixelRatio) {
    const QString name = themeName(symbol);
    if (name.isEmpty())
        return {};
    const int edgePx = static_cast<int>(std::lround(pixelSize(pointSize) * devicePixelRatio));
    QPixmap picture = renderUntinted(name, edgePx);
    if (picture.isNull())
        return {};
    {
        QPainter painter(&picture);
        painter.setCompositionMode(QPainter::CompositionMode_SourceIn);
        painter.fillRect(picture.rect(), tint);
    }
    picture.setDevicePixelRatio(devicePixelRatio);
    return picture;
}

QIcon icon(const QString& symbol, qreal pointSize, const QColor& tint) {
    QIcon result;
    for (const qreal ratio : {1.0, 2.0}) {
        const QPixmap picture = pixmap(symbol, pointSize, tint, ratio);
        if (picture.isNull())
            return {};
        result.addPixmap(picture, QIcon::Normal);
        result.addPixmap(picture, QIcon::Disabled);
    }
    return result;
}

} // namespace tavrel::SymbolIcon
