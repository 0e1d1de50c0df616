#include "ui/RecordingHUD.h"

#include "ui/PulsingDot.h"

#include <QGuiApplication>
#include <QPropertyAnimation>
#include <QScreen>
#include <QSignalSpy>
#include <QTest>
#include <gtest/gtest.h>

using tavrel::RecordingHUD;
using tavrel::VUMeterView;

namespace {

void flushDeletes() {
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    QCoreApplication::processEvents();
}

struct MeterLayout {
    bool systemAudio;
    QPoint micMeter;
    std::optional<QPoint> systemMeter;
};

class HUDMeterLayoutTest : public ::testing::TestWithParam<MeterLayout> {};

TEST_P(HUDMeterLayoutTest, MetersSitWhereTheirCountSays) {
    RecordingHUD hud;
    hud.show(GetParam().systemAudio);
    ASSERT_NE(hud.vuMeter(), nullptr);
    EXPECT_EQ(hud.vuMeter()->geometry(), QRect(GetParam().micMeter, QSize(14, 42)));
    EXPECT_EQ(hud.vuMeter()->parentWidget(), hud.view());
    if (GetParam().systemMeter) {
        ASSERT_NE(hud.sysMeter(), nullptr);
        EXPECT_EQ(hud.sysMeter()->geometry(), QRect(*GetParam().systemMeter, QSize(14, 42)));
    } else {
        EXPECT_EQ(hud.sysMeter(), nullptr);
    }
    EXPECT_EQ(hud.view()->size(), QSize(60, 262));
    EXPECT_EQ(hud.timerLabel()->geometry(), QRect(0, 55, 60, 16));
    EXPECT_EQ(hud.stopButton()->geometry(), QRect(12, 100, 36, 36));
    EXPECT_EQ(hud.noteButton()->geometry(), QRect(12, 224, 36, 36));
    EXPECT_FALSE(hud.stopButton()->icon().isNull());
    EXPECT_FALSE(hud.noteButton()->icon().isNull());
}

INSTANTIATE_TEST_SUITE_P(Sources, HUDMeterLayoutTest,
                         ::testing::Values(MeterLayout{false, QPoint(23, 170), std::nullopt},
                                           MeterLayout{true, QPoint(10, 170), QPoint(36, 170)}));

TEST(RecordingHUD, PanelIsAFloatingToolWindowAtTheTopRight) {
    RecordingHUD hud;
    hud.show(false);
    QWidget* panel = hud.panel();
    ASSERT_NE(panel, nullptr);
    const Qt::WindowFlags flags = panel->windowFlags();
    EXPECT_TRUE(flags.testFlag(Qt::Tool));
    EXPECT_TRUE(flags.testFlag(Qt::FramelessWindowHint));
    EXPECT_TRUE(flags.testFlag(Qt::WindowStaysOnTopHint));
    EXPECT_TRUE(flags.testFlag(Qt::WindowDoesNotAcceptFocus));
    EXPECT_TRUE(panel->testAttribute(Qt::WA_ShowWithoutActivating));
    EXPECT_TRUE(panel->testAttribute(Qt::WA_TranslucentBackground));
    EXPECT_TRUE(panel->isVisible());

    const QRect area = QGuiApplication::primaryScreen()->availableGeometry();
    EXPECT_EQ(hud.panelFrame(), QRect(area.x() + area.width() - 80, area.y() + 20, 60, 262));
}

TEST(RecordingHUD, WithoutCompositingThePanelIsTheCardCutToItsShape) {
    RecordingHUD hud;
    hud.compositingAvailable = [] { return false; };
    hud.show(true);
    QWidget* panel = hud.panel();
    EXPECT_EQ(panel->size(), QSize(60, 262));
    EXPECT_FALSE(panel->testAttribute(Qt::WA_TranslucentBackground));
    const QRegion mask = panel->mask();
    EXPECT_TRUE(mask.contains(QPoint(30, 131)));
    EXPECT_FALSE(mask.contains(QPoint(1, 1))) << "rounded corner";
    const QRect area = QGuiApplication::primaryScreen()->availableGeometry();
    EXPECT_EQ(hud.panelFrame(), QRect(area.x() + area.width() - 80, area.y() + 20, 60, 262));
}

TEST(RecordingHUD, PanelRectFollowsTheAvailableArea) {
    EXPECT_EQ(RecordingHUD::panelRect(QRect(0, 25, 1512, 920)).topLeft(), QPoint(1432, 45));
    EXPECT_EQ(RecordingHUD::panelRect(QRect(1920, 0, 1280, 1024)).topLeft(), QPoint(3120, 20));
    EXPECT_EQ(RecordingHUD::panelRect(QRect()), QRect(1360, 20, 60, 262)) << "1440 x 900 without a screen";
}

TEST(RecordingHUD, ShowingAgainChangesNothing) {
    RecordingHUD hud;
    hud.show(false);
    QWidget* panel = hud.panel();
    for (int tick = 0; tick < 5; ++tick)
        hud.tickClock();
    hud.show(true);
    EXPECT_EQ(hud.panel(), panel);
    EXPECT_EQ(hud.sysMeter(), nullptr);
    EXPECT_EQ(hud.elapsed(), 5);
    EXPECT_EQ(hud.timerLabel()->text(), QStringLiteral("0:05"));
}

TEST(RecordingHUD, HideStopsEverythingAndIsHarmlessTwice) {
    RecordingHUD hud;
    hud.hide();
    EXPECT_FALSE(hud.isShown());

    hud.show(true);
    EXPECT_TRUE(hud.ticker()->isActive());
    EXPECT_EQ(hud.ticker()->interval(), 1000);
    EXPECT_TRUE(hud.meterTimer()->isActive());
    EXPECT_EQ(hud.meterTimer()->interval(), 50);
    QPointer<QWidget> panel = hud.panel();
    hud.tickClock();
    hud.hide();
    hud.hide();
    EXPECT_EQ(hud.ticker(), nullptr);
    EXPECT_EQ(hud.meterTimer(), nullptr);
    EXPECT_EQ(hud.vuMeter(), nullptr);
    EXPECT_EQ(hud.sysMeter(), nullptr);
    EXPECT_EQ(hud.elapsed(), 1) << "kept until the next show";
    flushDeletes();
    EXPECT_TRUE(panel.isNull());

    hud.show(false);
    EXPECT_EQ(hud.elapsed(), 0);
    EXPECT_EQ(hud.timerLabel()->text(), QStringLiteral("0:00"));
    EXPECT_EQ(hud.sysMeter(), nullptr);
}

struct ClockCase {
    int ticks;
    const char* text;
};

class HUDClockTest : public ::testing::TestWithParam<ClockCase> {};

TEST_P(HUDClockTest, ShowsMinutesAndSecondsWithoutHours) {
    RecordingHUD hud;
    hud.show(false);
    for (int tick = 0; tick < GetParam().ticks; ++tick)
        hud.tickClock();
    EXPECT_EQ(hud.timerLabel()->text(), QString::fromUtf8(GetParam().text));
}

INSTANTIATE_TEST_SUITE_P(Ticks, HUDClockTest,
                         ::testing::Values(ClockCase{0, "0:00"}, ClockCase{7, "0:07"}, ClockCase{599, "9:59"},
                                           ClockCase{3599, "59:59"}, ClockCase{3600, "60:00"},
                                           ClockCase{3665, "61:05"}));

TEST(RecordingHUD, MeterTickFeedsBothMetersFromTheProviders) {
    RecordingHUD hud;
    int systemCalls = 0;
    hud.levelProvider = [] { return 0.7f; };
    hud.systemLevelProvider = [&] {
        ++systemCalls;
        return 0.3f;
    };
    hud.show(true);
    hud.tickMeters();
    EXPECT_NEAR(hud.vuMeter()->barRect().height(), 0.7 * 42, 1e-4);
    EXPECT_NEAR(hud.sysMeter()->barRect().height(), 0.3 * 42, 1e-4);
    EXPECT_EQ(systemCalls, 1);
}

TEST(RecordingHUD, SingleMeterStillAsksForTheSystemLevel) {
    RecordingHUD hud;
    int systemCalls = 0;
    hud.levelProvider = [] { return 0.9f; };
    hud.systemLevelProvider = [&] {
        ++systemCalls;
        return 0.5f;
    };
    hud.show(false);
    hud.tickMeters();
    EXPECT_EQ(systemCalls, 1);
    EXPECT_NEAR(hud.vuMeter()->barRect().height(), 0.9 * 42, 1e-4);
}

TEST(RecordingHUD, NoMicrophoneProviderMeansTheTickDoesNothing) {
    RecordingHUD hud;
    int systemCalls = 0;
    hud.systemLevelProvider = [&] {
        ++systemCalls;
        return 0.5f;
    };
    hud.show(true);
    hud.tickMeters();
    EXPECT_EQ(systemCalls, 0);
    EXPECT_DOUBLE_EQ(hud.sysMeter()->peak(), 0.0);
}

TEST(RecordingHUD, TimersDriveTheMetersAndTheDot) {
    RecordingHUD hud;
    int calls = 0;
    hud.levelProvider = [&] {
        ++calls;
        return 0.4f;
    };
    hud.show(false);
    QTest::qWait(400);
    EXPECT_GE(calls, 4);
    EXPECT_LE(calls, 10);
    auto* dot = hud.view()->findChild<tavrel::PulsingDot*>();
    ASSERT_NE(dot, nullptr);
    ASSERT_NE(dot->pulse(), nullptr);
    EXPECT_EQ(dot->pulse()->state(), QAbstractAnimation::Running);
    EXPECT_LT(dot->dotOpacity(), 0.95);
    EXPECT_GE(dot->dotOpacity(), 0.15);
}

TEST(RecordingHUD, ButtonsCallTheirClosuresOnce) {
    RecordingHUD hud;
    int stops = 0;
    int notes = 0;
    hud.show(false);
    QTest::mouseClick(hud.stopButton(), Qt::LeftButton);
    QTest::mouseClick(hud.noteButton(), Qt::LeftButton);
    EXPECT_EQ(stops + notes, 0) << "no closure set: nothing happens";

    hud.onStop = [&] { ++stops; };
    hud.onNote = [&] { ++notes; };
    QTest::mouseClick(hud.stopButton(), Qt::LeftButton);
    QTest::mouseClick(hud.noteButton(), Qt::LeftButton);
    EXPECT_EQ(stops, 1);
    EXPECT_EQ(notes, 1);
}

TEST(RecordingHUD, StopThatHidesThePanelFromItsOwnButton) {
    RecordingHUD hud;
    hud.onStop = [&] { hud.hide(); };
    hud.show(true);
    QTest::mouseClick(hud.stopButton(), Qt::LeftButton);
    EXPECT_FALSE(hud.isShown());
    flushDeletes();
    hud.show(false);
    EXPECT_TRUE(hud.isShown());
}

TEST(RecordingHUD, DraggingTheBackgroundMovesThePanel) {
    RecordingHUD hud;
    hud.show(false);
    const QPoint before = hud.panel()->pos();
    QWidget* view = hud.view();
    const QPoint grab(30, 150); // between the separator and the meter heading: background
    QTest::mousePress(view, Qt::LeftButton, {}, grab);
    QMouseEvent move(QEvent::MouseMove, QPointF(grab + QPoint(-100, 40)),
                     QPointF(view->mapToGlobal(grab + QPoint(-100, 40))), Qt::NoButton, Qt::LeftButton, Qt::NoModifier);
    QCoreApplication::sendEvent(view, &move);
    QTest::mouseRelease(view, Qt::LeftButton, {}, grab + QPoint(-100, 40));
    EXPECT_EQ(hud.panel()->pos(), before + QPoint(-100, 40));
}

TEST(RecordingHUD, PinsTheNewPanelToEveryWorkspaceBeforeShowingIt) {
    RecordingHUD hud;
    int pins = 0;
    hud.pinToAllWorkspaces = [&](QWindow& window) {
        ++pins;
        EXPECT_FALSE(window.isVisible());
    };
    hud.show(false);
    hud.show(true);
    EXPECT_EQ(pins, 1);
}

} // namespace
