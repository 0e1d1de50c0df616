#include "ui/AppIcon.h"

#include <QPainter>
#include <QSvgRenderer>
#include <cmath>

namespace tavrel {

QIcon appIcon() {
    QIcon icon;
    const QPixmap png(QStringLiteral(":/tavrel-icon.png"));
    if (!png.isNull())
        icon.addPixmap(png);
    for (const int edgePx : {16, 22, 24, 32, 48, 64}) {
        const QPixmap small = appIconPixmap(edgePx);
        if (!small.isNull())
            icon.addPixmap(small);
    }
    return icon;
}

QPixmap appIconPixmap(int edgePx, qreal devicePixelRatio) {
    QSvgRenderer renderer(QStringLiteral(":/tavrel-icon.svg"));
    if (!renderer.isValid() || edgePx <= 0)
        return {};
    const int devicePx = static_cast<int>(std::lround(edgePx * devicePixelRatio));
    QImage image(devicePx, devicePx, QImage::Format_ARGB32_Premultiplied);
    image.fill(Qt::transparent);
    {
        QPainter painter(&image);
        painter.setRenderHints(QPainter::Antialiasing | QPainter::SmoothPixmapTransform);
        renderer.render(&painter, QRectF(0, 0, devicePx, devicePx));
    }
    QPixmap pixmap = QPixmap::fromImage(std::move(image));
    pixmap.setDevicePixelRatio(devicePixelRatio);
    return pixmap;
}

} // namespace tavrel
