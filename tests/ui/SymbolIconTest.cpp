#include "ui/SymbolIcon.h"

#include "ui/AppIcon.h"

#include <QFile>
#include <QImage>
#include <QSvgRenderer>
#include <gtest/gtest.h>

namespace SymbolIcon = tavrel::SymbolIcon;

namespace {

TEST(SymbolIcon, EveryDesignSymbolHasItsOwnBundledDrawingTintedAtItsSizeAndUnknownNamesGiveNothing) {
    for (const char* name :
         {"mic.fill", "stop.fill", "pause.fill", "play.fill", "xmark", "gearshape", "square.on.square",
          "record.circle.fill", "pencil", "speaker.wave.2.fill", "mic.and.signal.meter.fill"}) {
        SCOPED_TRACE(name);
        const QString symbol = QString::fromLatin1(name);
        const QString theme = SymbolIcon::themeName(symbol);
        ASSERT_FALSE(theme.isEmpty());
        EXPECT_TRUE(QSvgRenderer(QStringLiteral(":/icons/symbols/%1.svg").arg(theme)).isValid()) << theme.toStdString();

        const QColor tint = QColor::fromRgbF(0.85f, 0.18f, 0.2f);
        const QImage image = SymbolIcon::pixmap(symbol, 14, tint).toImage().convertToFormat(QImage::Format_ARGB32);
        ASSERT_FALSE(image.isNull());
        EXPECT_EQ(image.width(), SymbolIcon::pixelSize(14));
        EXPECT_EQ(image.height(), SymbolIcon::pixelSize(14));
        int opaque = 0;
        for (int y = 0; y < image.height(); ++y) {
            for (int x = 0; x < image.width(); ++x) {
                const QColor pixel = image.pixelColor(x, y);
                if (pixel.alpha() < 200)
                    continue;
                ++opaque;
                EXPECT_NEAR(pixel.red(), tint.red(), 2);
                EXPECT_NEAR(pixel.green(), tint.green(), 2);
                EXPECT_NEAR(pixel.blue(), tint.blue(), 2);
            }
        }
        EXPECT_GT(opaque, 6) << "the picture is not empty";

        const QPixmap sharp = SymbolIcon::pixmap(symbol, 13, Qt::black, 2.0);
        EXPECT_EQ(sharp.width(), 2 * SymbolIcon::pixelSize(13));
        EXPECT_EQ(sharp.deviceIndependentSize().toSize(), QSize(SymbolIcon::pixelSize(13), SymbolIcon::pixelSize(13)));
    }
    // Names map one to one; unknown names give nothing.
    QStringList themes;
    for (const QString& symbol : SymbolIcon::knownSymbols())
        themes << SymbolIcon::themeName(symbol);
    themes.removeDuplicates();
    EXPECT_EQ(themes.size(), SymbolIcon::knownSymbols().size());
    EXPECT_TRUE(SymbolIcon::themeName(QStringLiteral("waveform.badge.plus")).isEmpty());
    EXPECT_TRUE(SymbolIcon::pixmap(QStringLiteral("waveform.badge.plus"), 13, Qt::white).isNull());
    EXPECT_TRUE(SymbolIcon::icon(QStringLiteral(""), 13, Qt::white).isNull());
}

TEST(AppIcon, IsBundledAsPngAndSvg) {
    const QImage png(QStringLiteral(":/tavrel-icon.png"));
    EXPECT_EQ(png.size(), QSize(256, 256));
    EXPECT_TRUE(QSvgRenderer(QStringLiteral(":/tavrel-icon.svg")).isValid());
    const QImage small = tavrel::appIconPixmap(24).toImage();
    ASSERT_EQ(small.size(), QSize(24, 24));
    EXPECT_EQ(small.pixelColor(12, 12).alpha(), 255);
    EXPECT_EQ(small.pixelColor(0, 0).alpha(), 0) << "rounded corners";
    EXPECT_FALSE(tavrel::appIcon().isNull());
}

} // namespace
