#include "ui/VUMeterView.h"

#include <QImage>
#include <QPainter>
#include <gtest/gtest.h>

using tavrel::VUMeterView;

namespace {

const QColor kBlue = QColor::fromRgbF(0.39f, 0.59f, 1.0f);
const QColor kGreen = QColor::fromRgbF(0.2f, 0.78f, 0.5f);
const QColor kRed = QColor::fromRgbF(0.95f, 0.3f, 0.25f);

TEST(VUMeterView, BarTakesTheBandColourAndTheLevelsHeight) {
    const std::pair<double, QColor> bands[] = {{0.0, kBlue}, {0.59, kBlue}, {0.6, kGreen}, {0.849, kGreen},
                                               {0.85, kRed}, {1.0, kRed},   {1.5, kRed},   {-0.1, kRed}};
    for (const auto& [level, color] : bands) {
        SCOPED_TRACE(level);
        VUMeterView meter;
        meter.setLevel(level);
        EXPECT_EQ(meter.barColor(), color);
        EXPECT_DOUBLE_EQ(meter.barRect().height(), level * VUMeterView::kHeightPx);
        EXPECT_DOUBLE_EQ(meter.barRect().y(), 0.0);
        EXPECT_DOUBLE_EQ(meter.barRect().width(), VUMeterView::kWidthPx);
    }
}

TEST(VUMeterView, PeakHoldsFifteenUpdatesThenSinksUntilALevelCatchesIt) {
    VUMeterView meter;
    for (int update = 0; update < 40; ++update)
        meter.setLevel(0.0);
    // Silence keeps the line just below the bar, visible.
    EXPECT_DOUBLE_EQ(meter.peak(), 0.0);
    EXPECT_EQ(meter.peakHoldCount(), 0);
    EXPECT_DOUBLE_EQ(meter.peakOpacity(), 0.8);
    EXPECT_DOUBLE_EQ(meter.peakRect().y(), -2.0);

    meter.setLevel(1.0);
    EXPECT_DOUBLE_EQ(meter.peak(), 1.0);
    EXPECT_DOUBLE_EQ(meter.peakOpacity(), 0.8);
    EXPECT_DOUBLE_EQ(meter.peakRect().y(), VUMeterView::kHeightPx - 2.0);

    for (int update = 1; update <= 15; ++update) {
        meter.setLevel(0.0);
        EXPECT_DOUBLE_EQ(meter.peak(), 1.0) << "update " << update;
        EXPECT_EQ(meter.peakHoldCount(), update);
    }
    EXPECT_DOUBLE_EQ(meter.barRect().height(), 0.0);
    EXPECT_DOUBLE_EQ(meter.peakRect().y(), VUMeterView::kHeightPx - 2.0);

    int sinkingSteps = 0;
    double previous = meter.peak();
    while (meter.peakOpacity() > 0.0 && sinkingSteps < 100) {
        meter.setLevel(0.0);
        ++sinkingSteps;
        EXPECT_NEAR(previous - meter.peak(), 0.03, 1e-9);
        EXPECT_NEAR(meter.peakRect().y(), meter.peak() * VUMeterView::kHeightPx - 2.0, 1e-9);
        previous = meter.peak();
    }
    EXPECT_EQ(sinkingSteps, 33);
    EXPECT_NEAR(meter.peak(), 0.01, 1e-9);
    EXPECT_EQ(meter.peakHoldCount(), 15 + 33);

    // A level at the sinking line catches it, and the hold starts again.
    meter.setLevel(0.9);
    for (int update = 0; update < 20; ++update)
        meter.setLevel(0.1);
    const double sinking = meter.peak();
    ASSERT_LT(sinking, 0.9);
    meter.setLevel(sinking);
    EXPECT_DOUBLE_EQ(meter.peak(), sinking);
    EXPECT_EQ(meter.peakHoldCount(), 0);
    meter.setLevel(0.1);
    EXPECT_DOUBLE_EQ(meter.peak(), sinking);
}

TEST(VUMeterView, BarIsPaintedFromTheBottomUp) {
    VUMeterView meter;
    meter.setLevel(0.5);
    QImage image(meter.size(), QImage::Format_ARGB32_Premultiplied);
    image.fill(Qt::white);
    meter.render(&image);
    const int x = VUMeterView::kWidthPx / 2;
    // Bottom quarter is the bar's colour, top quarter is the light track on white.
    const QColor bottom = image.pixelColor(x, VUMeterView::kHeightPx - 8);
    const QColor top = image.pixelColor(x, 6);
    EXPECT_NEAR(bottom.redF(), kBlue.redF(), 0.02);
    EXPECT_NEAR(bottom.blueF(), kBlue.blueF(), 0.02);
    EXPECT_GT(top.redF(), 0.85);
    EXPECT_GT(top.greenF(), 0.85);

    // The mark of a side that delivers only digital silence: a red outline, gone with the mark.
    const auto edge = [&] {
        image.fill(Qt::white);
        meter.render(&image);
        return image.pixelColor(0, VUMeterView::kHeightPx / 4);
    };
    EXPECT_GT(edge().greenF(), 0.85);
    meter.setWarning(true);
    EXPECT_NEAR(edge().greenF(), kRed.greenF(), 0.1);
    meter.setWarning(false);
    EXPECT_GT(edge().greenF(), 0.85);
}

} // namespace
