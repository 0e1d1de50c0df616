#pragma once

#include <QColor>
#include <QIcon>
#include <QPixmap>
#include <QString>

namespace tavrel {

/// The design names its pictures after symbol names ("mic.fill", "stop.fill"...). Each one maps to a
/// freedesktop icon-theme name; the desktop's theme draws it when it has it, otherwise our own drawing
/// bundled under :/icons/symbols/<theme name>.svg does, so every button has a picture on a bare system.
namespace SymbolIcon {

/// Theme name of a symbol, empty for an unknown symbol.
QString themeName(const QString& symbol);

/// Every symbol the mapping knows, in a stable order.
QStringList knownSymbols();

/// Edge length in pixels of a symbol drawn at `pointSize` (the design's point sizes are glyph sizes;
/// a glyph box is a little larger than its point size).
int pixelSize(qreal pointSize);

/// The symbol as a square picture of `pixelSize(pointSize)` pixels (times `devicePixelRatio`), every
/// opaque pixel painted in `tint` with the picture's own alpha. Null for an unknown symbol.
QPixmap pixmap(const QString& symbol, qreal pointSize, const QColor& tint, qreal devicePixelRatio = 1.0);

/// The same as an icon (normal and disabled modes share the tint; the widget dims itself).
QIcon icon(const QString& symbol, qreal pointSize, const QColor& tint);

} // namespace SymbolIcon

} // namespace tavrel
