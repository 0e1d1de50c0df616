#include "ScopedEnvironment.h"
#include "TempDir.h"
#include "core/SettingsManager.h"
#include "ui/MainPopoverController.h"

#include <QCoreApplication>
#include <QTest>
#include <gtest/gtest.h>

using tavrel::MainPopoverController;

namespace {

const QColor kSystemRed = QColor::fromRgbF(1.0f, 0.231f, 0.188f);
const QColor kDarkerRed = QColor::fromRgbF(0.75f, 0.12f, 0.12f);

struct PopoverState {
    const char* name;
    bool recording;
    bool paused;
    const char* caption;
    QColor disc;
    const char* discSymbol;
    const char* pauseTitle;
    const char* pauseSymbol;
    double pauseOpacity;
};

class PopoverStateTest : public ::testing::TestWithParam<PopoverState> {};

TEST_P(PopoverStateTest, ShowsTheStateAfterTheQueuedUpdate) {
    const PopoverState& state = GetParam();
    MainPopoverController popover(QStringLiteral("1.2.0"));
    popover.setIsRecording(state.recording);
    popover.setIsPaused(state.paused);
    QCoreApplication::processEvents();

    EXPECT_EQ(popover.actionLabel()->text(), QString::fromUtf8(state.caption));
    EXPECT_EQ(popover.circleButton()->color(), state.disc);
    EXPECT_EQ(popover.circleButton()->symbol(), QString::fromUtf8(state.discSymbol));
    EXPECT_FALSE(popover.circleButton()->iconPixmap().isNull());
    EXPECT_EQ(popover.pauseButton()->text(), QString::fromUtf8(state.pauseTitle));
    EXPECT_EQ(popover.pauseSymbol(), QString::fromUtf8(state.pauseSymbol));
    EXPECT_DOUBLE_EQ(popover.pauseContainerOpacity(), state.pauseOpacity);
    EXPECT_EQ(popover.pauseButton()->isEnabled(), state.recording);
    EXPECT_TRUE(popover.pauseContainer()->isVisibleTo(&popover));

    int pauses = 0;
    popover.onPause = [&] { ++pauses; };
    popover.show();
    QTest::mouseClick(popover.pauseButton(), Qt::LeftButton);
    EXPECT_EQ(pauses, state.recording ? 1 : 0) << "the dimmed row ignores clicks";
}

INSTANTIATE_TEST_SUITE_P(States, PopoverStateTest,
                         ::testing::Values(PopoverState{"idle", false, false, "Démarrer l'enregistrement", kSystemRed,
                                                        "record.circle.fill", " Pause", "pause.fill", 0.4},
                                           PopoverState{"recording", true, false, "Arrêter l'enregistrement",
                                                        kDarkerRed, "stop.fill", " Pause", "pause.fill", 1.0},
                                           PopoverState{"paused", true, true, "Arrêter l'enregistrement", kDarkerRed,
                                                        "stop.fill", " Reprendre", "play.fill", 1.0}),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(MainPopover, FlagChangesShowOnlyAfterTheCurrentWork) {
    MainPopoverController popover(QStringLiteral("1.0"));
    popover.setIsRecording(true);
    EXPECT_TRUE(popover.isRecording());
    EXPECT_EQ(popover.actionLabel()->text(), QStringLiteral("Démarrer l'enregistrement"));
    QCoreApplication::processEvents();
    EXPECT_EQ(popover.actionLabel()->text(), QStringLiteral("Arrêter l'enregistrement"));

    popover.setIsPaused(true);
    popover.setIsPaused(false);
    QCoreApplication::processEvents();
    EXPECT_EQ(popover.pauseButton()->text(), QStringLiteral(" Pause"));
}

TEST(MainPopover, ControllerDeletedBeforeItsQueuedUpdateIsSafe) {
    auto popover = std::make_unique<MainPopoverController>(QStringLiteral("1.0"));
    popover->setIsRecording(true);
    popover.reset();
    QCoreApplication::processEvents();
}

class MainPopoverClicks : public ::testing::Test {
protected:
    void SetUp() override {
        popover.onStartStop = [this] { ++startStops; };
        popover.show();
    }
    MainPopoverController popover{QStringLiteral("1.0")};
    int startStops = 0;
};

TEST_F(MainPopoverClicks, OneClickOnTheDiscIsOneCall) {
    QTest::mouseClick(popover.circleButton(), Qt::LeftButton);
    EXPECT_EQ(startStops, 1);
}

TEST_F(MainPopoverClicks, ClickOnTheCaptionStartsAsWell) {
    QTest::mouseClick(popover.actionLabel(), Qt::LeftButton);
    EXPECT_EQ(startStops, 1);
    const QPoint gap = popover.circleButton()->geometry().topRight() + QPoint(5, 18);
    QTest::mouseClick(popover.startRow(), Qt::LeftButton, {}, gap);
    EXPECT_EQ(startStops, 2);
}

TEST_F(MainPopoverClicks, ReleaseOutsideTheDiscCancels) {
    auto* disc = popover.circleButton();
    QTest::mousePress(disc, Qt::LeftButton, {}, QPoint(18, 18));
    EXPECT_DOUBLE_EQ(disc->opacity(), 0.7);
    QTest::mouseRelease(disc, Qt::LeftButton, {}, QPoint(60, 18));
    EXPECT_DOUBLE_EQ(disc->opacity(), 1.0);
    EXPECT_EQ(startStops, 0);
    QTest::mousePress(disc, Qt::LeftButton, {}, QPoint(18, 18));
    QTest::mouseRelease(disc, Qt::LeftButton, {}, QPoint(35, 1)); // the square's corner, off the disc
    EXPECT_EQ(startStops, 1);
}

TEST_F(MainPopoverClicks, HeaderAndQuitButtonsReport) {
    int settings = 0;
    int quits = 0;
    popover.onSettings = [&] { ++settings; };
    popover.onQuit = [&] { ++quits; };
    QTest::mouseClick(popover.settingsButton(), Qt::LeftButton);
    QTest::mouseClick(popover.quitButton(), Qt::LeftButton);
    EXPECT_EQ(settings, 1);
    EXPECT_EQ(quits, 1);
    EXPECT_EQ(startStops, 0);
}

struct HistoryCase {
    const char* webURL;
    const char* opened; ///< nullptr: nothing is opened
};

class HistoryButtonTest : public ::testing::TestWithParam<HistoryCase> {};

TEST_P(HistoryButtonTest, OpensTheWebApplicationsRecordings) {
    MainPopoverController popover(QStringLiteral("1.0"));
    popover.webURLProvider = [] { return QString::fromUtf8(GetParam().webURL); };
    QList<QUrl> opened;
    popover.openURL = [&](const QUrl& url) { opened << url; };
    popover.show();
    QTest::mouseClick(popover.historyButton(), Qt::LeftButton);
    if (GetParam().opened) {
        ASSERT_EQ(opened.size(), 1);
        EXPECT_EQ(opened.front().toString(), QString::fromUtf8(GetParam().opened));
    } else {
        EXPECT_TRUE(opened.isEmpty());
    }
}

INSTANTIATE_TEST_SUITE_P(URLs, HistoryButtonTest,
                         ::testing::Values(HistoryCase{"https://tavrel.example.org/tavrel/index.html",
                                                       "https://tavrel.example.org/tavrel/index.html#recordings"},
                                           HistoryCase{"http://127.0.0.1:8642/tavrel/index.html",
                                                       "http://127.0.0.1:8642/tavrel/index.html#recordings"},
                                           HistoryCase{"", nullptr}, HistoryCase{"pas une adresse", nullptr},
                                           HistoryCase{"https://exa mple.org/", nullptr}));

TEST(MainPopover, HistoryWithoutAStoredURLOpensTheDefault) {
    tavrel::test::TempDir config;
    tavrel::test::ScopedEnvironment environment;
    environment.set("XDG_CONFIG_HOME", config.path().toUtf8());
    MainPopoverController popover(QStringLiteral("1.0"));
    QList<QUrl> opened;
    popover.openURL = [&](const QUrl& url) { opened << url; };
    popover.didTapHistory();
    ASSERT_EQ(opened.size(), 1);
    EXPECT_EQ(opened.front().toString(), tavrel::SettingsManager::defaultWebURL() + QStringLiteral("#recordings"));
}

TEST(MainPopover, EverythingFitsInsideThePopover) {
    MainPopoverController popover(QStringLiteral("10.20.30"));
    popover.show();
    QCoreApplication::processEvents();
    EXPECT_EQ(popover.size(), QSize(300, 148));
    const QRect bounds = popover.rect();
    auto placed = [&](QWidget* widget) { return QRect(widget->mapTo(&popover, QPoint(0, 0)), widget->size()); };
    const QRect disc = placed(popover.circleButton());
    const QRect pause = placed(popover.pauseContainer());
    const QRect quit = placed(popover.quitButton());
    for (const QRect& rect : {disc, pause, quit, placed(popover.historyButton()), placed(popover.settingsButton())})
        EXPECT_TRUE(bounds.contains(rect))
            << rect.x() << "," << rect.y() << " " << rect.width() << "x" << rect.height();
    EXPECT_EQ(disc.size(), QSize(36, 36));
    EXPECT_EQ(pause.height(), 30);
    EXPECT_EQ(pause.width(), quit.width());
    EXPECT_LT(disc.bottom(), pause.top());
    EXPECT_EQ(placed(popover.historyButton()).size(), QSize(30, 30));
    EXPECT_GE(popover.actionLabel()->width(), popover.actionLabel()->sizeHint().width()) << "caption not cut";
}

} // namespace
