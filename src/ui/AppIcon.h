#pragma once

#include <QIcon>
#include <QPixmap>

namespace tavrel {

/// The application's picture, bundled as the resources ":/tavrel-icon.png" (256 px) and
/// ":/tavrel-icon.svg". Null when the resources are missing.
QIcon appIcon();

/// The picture drawn from the SVG at an exact size, sharp at any scale; null when the resource is missing.
QPixmap appIconPixmap(int edgePx, qreal devicePixelRatio = 1.0);

} // namespace tavrel
