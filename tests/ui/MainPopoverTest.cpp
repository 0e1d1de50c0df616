#include "ScopedEnvironment.h"
#include "TempDir.h"
#include "core/SettingsManager.h"
#include "ui/MainPopoverController.h"

#include <QCoreApplication>
#include <QTest>
#include <gtest/gtest.h>

using tavrel::MainPopoverController;

namespace {

TEST(MainPopover, ShowsEachStateAfterTheQueuedUpdate) {
    const QColor systemRed = QColor::fromRgbF(1.0f, 0.231f, 0.188f);
    const QColor darkerRed = QColor::fromRgbF(0.75f, 0.12f, 0.12f);
    const struct {
        bool recording;
        bool paused;
        const char* caption;
        QColor disc;
        const char* discSymbol;
        const char* pauseTitle;
        const char* pauseSymbol;
        double pauseOpacity;
    } states[] = {
        {false, false, "Démarrer l'enregistrement", systemRed, "record.circle.fill", " Pause", "pause.fill", 0.4},
        {true, false, "Arrêter l'enregistrement", darkerRed, "stop.fill", " Pause", "pause.fill", 1.0},
        {true, true, "Arrêter l'enregistrement", darkerRed, "stop.fill", " Reprendre", "play.fill", 1.0}};
    for (const auto& state : states) {
        SCOPED_TRACE(testing::Message() << state.recording << state.paused);
        // A controller deleted before its queued update is no harm.
        std::make_unique<MainPopoverController>(QStringLiteral("1.0"))->setIsRecording(state.recording);
        MainPopoverController popover(QStringLiteral("1.2.0"));
        popover.setIsRecording(state.recording);
        popover.setIsPaused(state.paused);
        EXPECT_EQ(popover.actionLabel()->text(), QStringLiteral("Démarrer l'enregistrement")) << "not yet updated";
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
        // Everything fits inside the popover, the caption uncut.
        for (QWidget* widget :
             std::initializer_list<QWidget*>{popover.circleButton(), popover.pauseContainer(), popover.quitButton(),
                                             popover.historyButton(), popover.settingsButton()})
            EXPECT_TRUE(popover.rect().contains(QRect(widget->mapTo(&popover, QPoint(0, 0)), widget->size())));
        EXPECT_GE(popover.actionLabel()->width(), popover.actionLabel()->sizeHint().width());
        QTest::mouseClick(popover.pauseButton(), Qt::LeftButton);
        EXPECT_EQ(pauses, state.recording ? 1 : 0) << "the dimmed row ignores clicks";
    }
}

TEST(MainPopover, EachClickIsOneCallAndAReleaseOutsideTheDiscsSquareCancels) {
    MainPopoverController popover(QStringLiteral("1.0"));
    int startStops = 0, settings = 0, quits = 0;
    popover.onStartStop = [&] { ++startStops; };
    popover.onSettings = [&] { ++settings; };
    popover.onQuit = [&] { ++quits; };
    popover.show();
    QTest::mouseClick(popover.circleButton(), Qt::LeftButton);
    QTest::mouseClick(popover.actionLabel(), Qt::LeftButton);
    // The gap between the disc and its caption belongs to the same row.
    QTest::mouseClick(popover.startRow(), Qt::LeftButton, {},
                      popover.circleButton()->geometry().topRight() + QPoint(5, 18));
    EXPECT_EQ(startStops, 3);

    auto* disc = popover.circleButton();
    QTest::mousePress(disc, Qt::LeftButton, {}, QPoint(18, 18));
    EXPECT_DOUBLE_EQ(disc->opacity(), 0.7);
    QTest::mouseRelease(disc, Qt::LeftButton, {}, QPoint(60, 18));
    EXPECT_DOUBLE_EQ(disc->opacity(), 1.0);
    EXPECT_EQ(startStops, 3);
    QTest::mousePress(disc, Qt::LeftButton, {}, QPoint(18, 18));
    QTest::mouseRelease(disc, Qt::LeftButton, {}, QPoint(35, 1)); // off the disc, in its square: still a click
    EXPECT_EQ(startStops, 4);

    QTest::mouseClick(popover.settingsButton(), Qt::LeftButton);
    QTest::mouseClick(popover.quitButton(), Qt::LeftButton);
    EXPECT_EQ(settings, 1);
    EXPECT_EQ(quits, 1);
    EXPECT_EQ(startStops, 4);

    // While a start or stop runs the row says so and no click reaches the closures, until it ends.
    int pauses = 0;
    popover.onPause = [&] { ++pauses; };
    popover.setIsRecording(true);
    QCoreApplication::processEvents();
    popover.setBusyCaption(QStringLiteral("Arrêt de l'enregistrement…"));
    EXPECT_EQ(popover.actionLabel()->text(), QStringLiteral("Arrêt de l'enregistrement…"));
    EXPECT_FALSE(popover.circleButton()->iconPixmap().isNull());
    QTest::mouseClick(popover.circleButton(), Qt::LeftButton);
    QTest::mouseClick(popover.actionLabel(), Qt::LeftButton);
    popover.didTapStartRow();
    QTest::mouseClick(popover.pauseButton(), Qt::LeftButton);
    EXPECT_EQ(startStops, 4);
    EXPECT_EQ(pauses, 0);
    popover.setBusyCaption(QString());
    EXPECT_EQ(popover.actionLabel()->text(), QStringLiteral("Arrêter l'enregistrement"));
    QTest::mouseClick(popover.circleButton(), Qt::LeftButton);
    QTest::mouseClick(popover.pauseButton(), Qt::LeftButton);
    EXPECT_EQ(startStops, 5);
    EXPECT_EQ(pauses, 1);
}

TEST(MainPopover, HistoryOpensTheWebApplicationsRecordings) {
    tavrel::test::TempDir config;
    tavrel::test::ScopedEnvironment environment;
    environment.set("XDG_CONFIG_HOME", config.path().toUtf8());
    const QString fallback = tavrel::SettingsManager::defaultWebURL() + QStringLiteral("#recordings");
    const struct {
        const char* webURL; ///< nullptr: nothing stored, the default applies
        QString opened;     ///< empty: nothing is opened
    } cases[] = {{"https://tavrel.example.org/tavrel/index.html",
                  QStringLiteral("https://tavrel.example.org/tavrel/index.html#recordings")},
                 {"http://127.0.0.1:8642/tavrel/index.html",
                  QStringLiteral("http://127.0.0.1:8642/tavrel/index.html#recordings")},
                 {nullptr, fallback},
                 {"", {}},
                 {"pas une adresse", {}},
                 {"https://exa mple.org/", {}}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.webURL ? c.webURL : "(nothing stored)");
        MainPopoverController popover(QStringLiteral("1.0"));
        if (c.webURL)
            popover.webURLProvider = [&] { return QString::fromUtf8(c.webURL); };
        QStringList opened;
        popover.openURL = [&](const QUrl& url) { opened << url.toString(); };
        popover.show();
        QTest::mouseClick(popover.historyButton(), Qt::LeftButton);
        EXPECT_EQ(opened, c.opened.isEmpty() ? QStringList() : QStringList{c.opened});
    }
}

} // namespace
