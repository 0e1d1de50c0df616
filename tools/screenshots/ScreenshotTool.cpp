// Draws every widget of the program offscreen and writes one PNG each, so that the look can be
// reviewed without a desktop. Also renders the application icon's PNG from its SVG.
//
//   tavrel_screenshots <outdir>
//   tavrel_screenshots --icon <in.svg> <out.png> <edge px>
//   tavrel_screenshots --x11 <outdir>      on an X server: the real panel window, captured from the screen

#include "platform/WindowPinning.h"
#include "ui/AppIcon.h"
#include "ui/MainPopoverController.h"
#include "ui/NoteField.h"
#include "ui/QtAlertPresenter.h"
#include "ui/RecordingHUD.h"
#include "ui/SettingsForm.h"
#include "ui/UploadDialog.h"
#include "ui/VUMeterView.h"

#include <QApplication>
#include <QDialog>
#include <QDir>
#include <QEventLoop>
#include <QJsonObject>
#include <QPainter>
#include <QPainterPath>
#include <QScreen>
#include <QSvgRenderer>
#include <QTextStream>
#include <QTimer>
#include <cmath>
#include <cstdio>
#include <functional>

namespace {

using namespace tavrel;

constexpr qreal kScale = 2.0; // pictures at twice the logical size, as on a HiDPI screen

bool writePng(const QImage& image, const QString& path) {
    if (!image.save(path, "PNG")) {
        QTextStream(stderr) << "cannot write " << path << "\n";
        return false;
    }
    QTextStream(stdout) << path << "\n";
    return true;
}

/// Renders a widget at kScale with the soft backdrop of a desktop behind it (the panel and popover
/// are not opaque rectangles).
QImage render(QWidget& widget, const QColor& backdrop) {
    // Rendered alone first: a translucent window clears what lies under it.
    QImage alone((QSizeF(widget.size()) * kScale).toSize(), QImage::Format_ARGB32_Premultiplied);
    alone.setDevicePixelRatio(kScale);
    alone.fill(Qt::transparent);
    {
        QPainter painter(&alone);
        painter.setRenderHints(QPainter::Antialiasing | QPainter::TextAntialiasing | QPainter::SmoothPixmapTransform);
        widget.render(&painter, QPoint(), QRegion(), QWidget::DrawWindowBackground | QWidget::DrawChildren);
    }
    QImage image(alone.size(), QImage::Format_ARGB32_Premultiplied);
    image.setDevicePixelRatio(kScale);
    image.fill(backdrop);
    QPainter painter(&image);
    painter.drawImage(QPointF(0, 0), alone);
    return image;
}

QImage framedPopover(QWidget& popover) {
    // The popover as the desktop shows it: rounded corners and a soft shadow under a popup.
    constexpr int kMarginPx = 24;
    const QImage content = render(popover, Qt::white);
    QImage image((QSizeF(popover.size() + QSize(2 * kMarginPx, 2 * kMarginPx)) * kScale).toSize(),
                 QImage::Format_ARGB32_Premultiplied);
    image.setDevicePixelRatio(kScale);
    image.fill(QColor(0xdd, 0xe3, 0xec));
    QPainter painter(&image);
    painter.setRenderHint(QPainter::Antialiasing);
    const QRectF box(kMarginPx, kMarginPx, popover.width(), popover.height());
    for (int i = 12; i > 0; --i) {
        painter.setPen(Qt::NoPen);
        painter.setBrush(QColor(0, 0, 0, 5));
        painter.drawRoundedRect(box.adjusted(-i / 2.0, -i / 3.0, i / 2.0, i), 10 + i / 2.0, 10 + i / 2.0);
    }
    QPainterPath clip;
    clip.addRoundedRect(box, 10, 10);
    painter.setClipPath(clip);
    painter.drawImage(box, content);
    painter.setClipping(false);
    painter.setPen(QPen(QColor(0, 0, 0, 40), 0.5));
    painter.setBrush(Qt::NoBrush);
    painter.drawRoundedRect(box, 10, 10);
    return image;
}

bool shootPopover(const QString& outdir, bool recording, bool paused, const QString& name) {
    MainPopoverController popover(QStringLiteral(TAVREL_VERSION));
    popover.setIsRecording(recording);
    popover.setIsPaused(paused);
    popover.show();
    QApplication::processEvents();
    QApplication::processEvents();
    return writePng(framedPopover(popover), outdir + QLatin1Char('/') + name);
}

bool shootPanel(const QString& outdir, bool systemAudio, const QString& name) {
    RecordingHUD hud;
    // Speech-like levels: the microphone louder than the other party, each with a recent peak.
    const std::vector<float> micLevels{0.2f, 0.45f, 0.71f, 0.66f, 0.58f, 0.52f};
    const std::vector<float> sysLevels{0.3f, 0.5f, 0.42f, 0.38f, 0.35f, 0.33f};
    size_t step = 0;
    hud.levelProvider = [&] { return micLevels[std::min(step, micLevels.size() - 1)]; };
    hud.systemLevelProvider = [&] { return sysLevels[std::min(step, sysLevels.size() - 1)]; };
    hud.show(systemAudio);
    for (int second = 0; second < 754; ++second)
        hud.tickClock();
    for (step = 0; step < micLevels.size(); ++step)
        hud.tickMeters();
    QApplication::processEvents();
    return writePng(render(*hud.panel(), QColor(0xdd, 0xe3, 0xec)), outdir + QLatin1Char('/') + name);
}

bool shootAlert(const QString& outdir, const AlertSpec& alertSpec, const QString& name) {
    QtAlertPresenter presenter;
    bool written = false;
    presenter.onShown = [&](QDialog& dialog) {
        written = writePng(render(dialog, QColor(0xf6, 0xf6, 0xf6)), outdir + QLatin1Char('/') + name);
        dialog.done(0);
    };
    presenter.run(alertSpec);
    return written;
}

/// The panel as an X server shows it (no compositing manager under Xvfb: the window is cut to the
/// card's shape), over a light backdrop window, captured from the screen itself.
int shootLivePanel(const QString& outdir) {
    QWidget backdrop(nullptr, Qt::FramelessWindowHint | Qt::WindowStaysOnBottomHint);
    backdrop.setAutoFillBackground(true);
    QPalette palette = backdrop.palette();
    palette.setColor(QPalette::Window, QColor(0xdd, 0xe3, 0xec));
    backdrop.setPalette(palette);
    QScreen* screen = QGuiApplication::primaryScreen();
    backdrop.setGeometry(screen->geometry());
    backdrop.show();

    RecordingHUD hud;
    hud.pinToAllWorkspaces = [](QWindow& window) { showOnAllWorkspaces(window); };
    hud.compositingAvailable = [] { return isCompositingAvailable(); };
    float level = 0.2f;
    hud.levelProvider = [&] { return level; };
    hud.systemLevelProvider = [&] { return level * 0.6f; };
    hud.show(true);
    for (float step : {0.3f, 0.55f, 0.72f, 0.6f, 0.5f}) {
        level = step;
        hud.tickMeters();
    }
    for (int second = 0; second < 83; ++second)
        hud.tickClock();
    QEventLoop settle; // mapped, placed and painted by the X server
    QTimer::singleShot(600, &settle, &QEventLoop::quit);
    settle.exec();
    const QRect area = hud.panelFrame().adjusted(-24, -24, 24, 24);
    const QPixmap shot = screen->grabWindow(0, area.x(), area.y(), area.width(), area.height());
    return writePng(shot.toImage(), outdir + QStringLiteral("/panel-x11.png")) ? 0 : 1;
}

int renderIcon(const QString& svgPath, const QString& pngPath, int edgePx) {
    QSvgRenderer renderer(svgPath);
    if (!renderer.isValid() || edgePx <= 0) {
        QTextStream(stderr) << "cannot read " << svgPath << "\n";
        return 1;
    }
    QImage image(edgePx, edgePx, QImage::Format_ARGB32_Premultiplied);
    image.fill(Qt::transparent);
    QPainter painter(&image);
    painter.setRenderHints(QPainter::Antialiasing | QPainter::SmoothPixmapTransform);
    renderer.render(&painter, QRectF(0, 0, edgePx, edgePx));
    painter.end();
    return writePng(image.convertToFormat(QImage::Format_ARGB32), pngPath) ? 0 : 1;
}

} // namespace

int main(int argc, char** argv) {
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM"))
        qputenv("QT_QPA_PLATFORM", "offscreen");
    // Widgets then make their pictures for a HiDPI screen, so the PNGs are sharp at twice the size.
    qputenv("QT_SCALE_FACTOR", QByteArray::number(kScale));
    if (argc == 3 && QByteArray(argv[1]) == "--x11")
        qunsetenv("QT_SCALE_FACTOR"); // the X server's own pixels
    QApplication app(argc, argv);
    const QStringList args = QApplication::arguments();
    if (args.size() == 3 && args[1] == QLatin1String("--x11")) {
        QDir().mkpath(args[2]);
        return shootLivePanel(args[2]);
    }
    if (args.size() == 5 && args[1] == QLatin1String("--icon"))
        return renderIcon(args[2], args[3], args[4].toInt());
    if (args.size() != 2) {
        QTextStream(stderr) << "usage: tavrel_screenshots <outdir> | --icon <in.svg> <out.png> <edge px>\n";
        return 2;
    }
    const QString outdir = args[1];
    QDir().mkpath(outdir);

    bool ok = true;
    ok &= shootPopover(outdir, false, false, QStringLiteral("popover-idle.png"));
    ok &= shootPopover(outdir, true, false, QStringLiteral("popover-recording.png"));
    ok &= shootPopover(outdir, true, true, QStringLiteral("popover-paused.png"));
    ok &= shootPanel(outdir, false, QStringLiteral("panel-one-meter.png"));
    ok &= shootPanel(outdir, true, QStringLiteral("panel-two-meters.png"));

    SettingsForm form(SettingsFormValues{QStringLiteral(TAVREL_DEFAULT_SERVER "/backend"),
                                         QStringLiteral(TAVREL_DEFAULT_SERVER "/backend"),
                                         QStringLiteral(TAVREL_DEFAULT_SERVER "/tavrel/index.html"),
                                         QStringLiteral(TAVREL_DEFAULT_SERVER "/tavrel/index.html"),
                                         QStringLiteral("eyJhbGciOiJIUzI1NiJ9.secret"), false, true});
    ok &= shootAlert(outdir,
                     AlertSpec{QStringLiteral("Paramètres TaVREL Recorder"),
                               QStringLiteral("Version " TAVREL_VERSION),
                               {QStringLiteral("Enregistrer"), QStringLiteral("Annuler")},
                               AlertStyle::informational,
                               &form},
                     QStringLiteral("settings.png"));

    NoteField note;
    ok &= shootAlert(outdir,
                     AlertSpec{QStringLiteral("Ajouter une note"),
                               QString(),
                               {QStringLiteral("OK"), QStringLiteral("Annuler")},
                               AlertStyle::informational,
                               &note},
                     QStringLiteral("note-prompt.png"));
    ok &= shootAlert(
        outdir,
        AlertSpec{QStringLiteral("⚠️ Audio du correspondant non capté"),
                  QStringLiteral("Activez « Enregistrement d'écran » pour TaVREL Recorder : c'est cette permission qui "
                                 "lui permet de capter automatiquement la voix de vos correspondants — "
                                 "visioconférences (Teams/Zoom/Meet) COMME appels téléphoniques — sans aucun réglage "
                                 "audio à faire.\n\nCliquez sur « Ouvrir les réglages », activez TaVREL Recorder, "
                                 "puis relancez un enregistrement."),
                  {QStringLiteral("Ouvrir les réglages"), QStringLiteral("Continuer (micro seul)")},
                  AlertStyle::warning,
                  nullptr},
        QStringLiteral("warning.png"));

    QList<QJsonObject> clients;
    for (const char* name : {"Cabinet Martin", "Durand & Fils", "Société Générale des Eaux"})
        clients << QJsonObject{{QStringLiteral("id"), clients.size() + 1},
                               {QStringLiteral("name"), QString::fromUtf8(name)}};
    UploadDialog upload(clients);
    ok &= shootAlert(outdir,
                     AlertSpec{QStringLiteral("Enregistrement terminé"),
                               QStringLiteral("Options de transcription :"),
                               {QStringLiteral("Envoyer"), QStringLiteral("Annuler")},
                               AlertStyle::informational,
                               &upload},
                     QStringLiteral("upload-dialog.png"));
    return ok ? 0 : 1;
}
