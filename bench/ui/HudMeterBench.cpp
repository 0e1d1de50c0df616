// How much CPU the recording panel costs while it is shown, as a share of one core and as a ratio
// against an idle event loop measured in the same run (offscreen: painting goes to memory, no X
// server or compositor cost is included).
//
// Phases, each the same length:
//   idle         the event loop with no window
//   panel        the panel shown, meters fed speech-like levels at 20 Hz, the dot pulsing
//   meters only  the same with the dot's animation paused (the meter refresh alone)
//   silence      the panel with both levels at 0 and the dot paused (nothing changes on screen)

#include "ui/PulsingDot.h"
#include "ui/RecordingHUD.h"

#include <QApplication>
#include <QElapsedTimer>
#include <QPropertyAnimation>
#include <QTextStream>
#include <QTimer>
#include <cmath>
#include <ctime>
#include <random>

namespace {

double processCpuSeconds() {
    timespec now{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

struct Sample {
    double cpuSeconds = 0;
    double wallSeconds = 0;
    double share() const { return wallSeconds > 0 ? cpuSeconds / wallSeconds : 0; }
};

Sample runEventLoopFor(int seconds) {
    QElapsedTimer wall;
    const double cpuStart = processCpuSeconds();
    wall.start();
    QEventLoop loop;
    QTimer::singleShot(seconds * 1000, &loop, &QEventLoop::quit);
    loop.exec();
    return {processCpuSeconds() - cpuStart, static_cast<double>(wall.nsecsElapsed()) / 1e9};
}

} // namespace

int main(int argc, char** argv) {
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM"))
        qputenv("QT_QPA_PLATFORM", "offscreen");
    QApplication app(argc, argv);
    const int seconds = argc > 1 ? std::max(1, atoi(argv[1])) : 20;
    QTextStream out(stdout);

    std::mt19937 random(42);
    std::uniform_real_distribution<float> jitter(-0.08f, 0.08f);
    int ticks = 0;
    bool silent = false;
    // Syllables of about 200 ms over a slow phrase envelope, for both sides.
    auto speech = [&](double phase) {
        if (silent)
            return 0.0f;
        const double t = ticks * 0.05;
        const double syllable = 0.5 + 0.5 * std::sin(2 * M_PI * 5 * t + phase);
        const double phrase = 0.5 + 0.5 * std::sin(2 * M_PI * 0.3 * t + phase);
        return std::clamp(static_cast<float>(0.15 + 0.7 * syllable * phrase) + jitter(random), 0.0f, 1.0f);
    };

    tavrel::RecordingHUD hud;
    hud.levelProvider = [&] {
        ++ticks;
        return speech(0.0);
    };
    hud.systemLevelProvider = [&] { return speech(1.7); };

    const Sample idle = runEventLoopFor(seconds);

    hud.show(true);
    ticks = 0;
    const Sample panel = runEventLoopFor(seconds);
    const int panelTicks = ticks;

    auto* dot = hud.view()->findChild<tavrel::PulsingDot*>();
    if (dot && dot->pulse())
        dot->pulse()->pause();
    ticks = 0;
    const Sample metersOnly = runEventLoopFor(seconds);
    const int meterTicks = ticks;

    silent = true;
    ticks = 0;
    const Sample silence = runEventLoopFor(seconds);
    hud.hide();

    auto line = [&](const char* name, const Sample& sample, int tickCount) {
        out << QString::asprintf("%-12s cpu %7.3f s over %6.2f s  share %6.3f %%  ratio to idle %7.1f", name,
                                 sample.cpuSeconds, sample.wallSeconds, 100 * sample.share(),
                                 idle.share() > 0 ? sample.share() / idle.share() : 0.0);
        if (tickCount > 0)
            out << QString::asprintf("  %d meter ticks (%.1f Hz), %.1f us of CPU per tick above idle", tickCount,
                                     tickCount / sample.wallSeconds,
                                     1e6 * (sample.cpuSeconds - idle.share() * sample.wallSeconds) / tickCount);
        out << "\n";
    };
    line("idle", idle, 0);
    line("panel", panel, panelTicks);
    line("meters only", metersOnly, meterTicks);
    line("silence", silence, 0);
    return 0;
}
