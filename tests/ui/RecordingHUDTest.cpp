#include "ui/RecordingHUD.h"

#include "Wait.h"
#include "ui/PulsingDot.h"

#include <QGuiApplication>
#include <QPropertyAnimation>
#include <QScreen>
#include <QTest>
#include <gtest/gtest.h>

using tavrel::RecordingHUD;
using namespace std::chrono_literals;

namespace {

void flushDeletes() {
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    QCoreApplication::processEvents();
}

// At the top right of the available area of whichever screen, 1440 x 900 without a screen. (The panel's window,
// its place, stacking and workspaces under a window manager are the end-to-end test's.)
TEST(RecordingHUD, PanelSitsAtTheTopRightOfTheAvailableArea) {
    // With compositing the window is larger than the card, for its shadow: the card still sits in its place.
    RecordingHUD hud;
    hud.show(false);
    EXPECT_TRUE(hud.panel()->testAttribute(Qt::WA_TranslucentBackground));
    EXPECT_EQ(hud.panelFrame(), RecordingHUD::panelRect(QGuiApplication::primaryScreen()->availableGeometry()));
    EXPECT_EQ(RecordingHUD::panelRect(QRect(0, 25, 1512, 920)).topLeft(), QPoint(1432, 45));
    EXPECT_EQ(RecordingHUD::panelRect(QRect(1920, 0, 1280, 1024)).topLeft(), QPoint(3120, 20));
    EXPECT_EQ(RecordingHUD::panelRect(QRect()), QRect(1360, 20, 60, 262));
}

// Hiding stops everything and is harmless twice (or before any show); the clock is kept until the next show.
TEST(RecordingHUD, ClockShowsMinutesAndSecondsWithoutHoursUntilHiddenAndShowingAgainChangesNothing) {
    RecordingHUD hud;
    hud.hide();
    EXPECT_FALSE(hud.isShown());
    int pins = 0;
    hud.pinToAllWorkspaces = [&](QWindow& window) {
        ++pins;
        EXPECT_FALSE(window.isVisible()) << "pinned before it is shown";
    };
    hud.show(true);
    ASSERT_TRUE(hud.ticker()->isActive() && hud.meterTimer()->isActive());
    EXPECT_EQ(hud.ticker()->interval(), 1000) << "the clock counts seconds";
    QPointer<QWidget> panel = hud.panel();
    int ticks = 0;
    for (const auto& [at, text] :
         {std::pair{0, "0:00"}, {7, "0:07"}, {599, "9:59"}, {3599, "59:59"}, {3600, "60:00"}, {3665, "61:05"}}) {
        for (; ticks < at; ++ticks)
            hud.tickClock();
        EXPECT_EQ(hud.timerLabel()->text(), QString::fromUtf8(text)) << at;
    }
    hud.show(false);
    EXPECT_EQ(hud.panel(), panel.data());
    EXPECT_NE(hud.sysMeter(), nullptr);
    EXPECT_EQ(hud.timerLabel()->text(), QStringLiteral("61:05"));
    EXPECT_EQ(pins, 1);

    hud.hide();
    hud.hide();
    EXPECT_TRUE(!hud.ticker() && !hud.meterTimer() && !hud.vuMeter() && !hud.sysMeter());
    EXPECT_EQ(hud.elapsed(), 3665) << "kept until the next show";
    flushDeletes();
    EXPECT_TRUE(panel.isNull());
    hud.show(false);
    EXPECT_EQ(hud.timerLabel()->text(), QStringLiteral("0:00"));
    EXPECT_EQ(hud.sysMeter(), nullptr);
}

TEST(RecordingHUD, MeterTickAsksTheSystemLevelOnlyWithAMicrophoneLevel) {
    struct Case {
        bool systemAudio;
        bool micProvider;
        int expectedSystemCalls;
    };
    for (const Case c : {Case{true, true, 1}, Case{false, true, 1}, Case{true, false, 0}}) {
        SCOPED_TRACE(testing::Message() << c.systemAudio << c.micProvider);
        RecordingHUD hud;
        int systemCalls = 0;
        if (c.micProvider)
            hud.levelProvider = [] { return 0.7f; };
        hud.systemLevelProvider = [&] { return ++systemCalls, 0.3f; };
        hud.show(c.systemAudio);
        hud.tickMeters();
        EXPECT_EQ(hud.sysMeter() != nullptr, c.systemAudio) << "one meter per side recorded";
        EXPECT_EQ(systemCalls, c.expectedSystemCalls);
        EXPECT_NEAR(hud.vuMeter()->barRect().height(), c.micProvider ? 0.7 * 42 : 0.0, 1e-4);
        if (hud.sysMeter()) {
            EXPECT_NEAR(hud.sysMeter()->barRect().height(), c.micProvider ? 0.3 * 42 : 0.0, 1e-4);
        }
    }
}

TEST(RecordingHUD, TimersDriveTheMetersAndTheDot) {
    RecordingHUD hud;
    int calls = 0;
    hud.levelProvider = [&] { return ++calls, 0.4f; };
    hud.show(false);
    EXPECT_EQ(hud.meterTimer()->interval(), 50) << "twenty meter updates a second";
    // Counted, not timed: a loaded machine delivers fewer timer events.
    EXPECT_TRUE(tavrel::test::waitUntil([&] { return calls >= 4; }, 10s)) << calls;
    auto* dot = hud.view()->findChild<tavrel::PulsingDot*>();
    ASSERT_TRUE(dot && dot->pulse());
    EXPECT_EQ(dot->pulse()->state(), QAbstractAnimation::Running);
    EXPECT_TRUE(tavrel::test::waitUntil([&] { return dot->dotOpacity() < 0.95; }, 10s));
    EXPECT_GE(dot->dotOpacity(), 0.15);
}

TEST(RecordingHUD, ButtonsCallTheirClosuresOnceStopMayHideThePanelAndTheBackgroundDrags) {
    RecordingHUD hud;
    hud.show(false);
    EXPECT_FALSE(hud.stopButton()->icon().isNull() || hud.noteButton()->icon().isNull());
    QTest::mouseClick(hud.stopButton(), Qt::LeftButton); // no closure set: nothing happens
    QTest::mouseClick(hud.noteButton(), Qt::LeftButton);
    int notes = 0;
    hud.onNote = [&] { ++notes; };
    QTest::mouseClick(hud.noteButton(), Qt::LeftButton);
    EXPECT_EQ(notes, 1);
    // A stop takes a while: a second click before the panel goes is not a second stop.
    int stops = 0;
    hud.onStop = [&] { ++stops; };
    QTest::mouseClick(hud.stopButton(), Qt::LeftButton);
    hud.didStop();
    EXPECT_EQ(stops, 1);
    EXPECT_FALSE(hud.stopButton()->isEnabled());
    hud.hide();
    flushDeletes();
    hud.show(false);
    // The stop closure removes the panel from inside a click on its own button.
    hud.onStop = [&] { hud.hide(); };
    QTest::mouseClick(hud.stopButton(), Qt::LeftButton);
    EXPECT_FALSE(hud.isShown());
    flushDeletes();
    hud.show(false);
    EXPECT_TRUE(hud.isShown());

    // Dragging the background moves the panel.
    const QPoint before = hud.panel()->pos();
    QWidget* view = hud.view();
    const QPoint grab(30, 150); // between the separator and the meter heading: background
    const QPoint to = grab + QPoint(-100, 40);
    QTest::mousePress(view, Qt::LeftButton, {}, grab);
    QMouseEvent move(QEvent::MouseMove, QPointF(to), QPointF(view->mapToGlobal(to)), Qt::NoButton, Qt::LeftButton,
                     Qt::NoModifier);
    QCoreApplication::sendEvent(view, &move);
    QTest::mouseRelease(view, Qt::LeftButton, {}, to);
    EXPECT_EQ(hud.panel()->pos(), before + QPoint(-100, 40));
}

} // namespace
