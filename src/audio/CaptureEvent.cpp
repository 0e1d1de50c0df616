#include "audio/CaptureEvent.h"

#include "audio/ffmpeg/FfmpegHandles.h"
#include "audio/files/TrackFile.h"

#include <cerrno>
#include <cstring>

namespace tavrel {

QString sideName(CaptureSide side) {
    switch (side) {
    case CaptureSide::microphone:
        return QStringLiteral("le micro");
    case CaptureSide::systemAudio:
        return QStringLiteral("le son de l'ordinateur");
    case CaptureSide::virtualDevice:
        return QStringLiteral("le périphérique BlackHole");
    }
    return {};
}

std::optional<Notification> notificationFor(const CaptureEvent& event) {
    const QString side = sideName(event.side);
    switch (event.kind) {
    case CaptureEvent::Kind::sideLost:
        return Notification{QStringLiteral("⚠️ Capture interrompue"),
                            QStringLiteral("Impossible de reprendre %1 depuis 10 s. Ce qui a été enregistré est "
                                           "conservé ; la reprise continue d'être tentée.")
                                .arg(side)};
    case CaptureEvent::Kind::writeFailed:
        return Notification{
            QStringLiteral("⚠️ ") + event.detail,
            QStringLiteral("L'enregistrement de %1 s'arrête ici ; ce qui a été écrit est conservé.").arg(side)};
    case CaptureEvent::Kind::silenceStarted:
        return Notification{QStringLiteral("⚠️ Aucun son capté"),
                            QStringLiteral("Rien n'arrive de %1 depuis 15 s alors qu'il est en service. Vérifiez le "
                                           "périphérique choisi dans les réglages du son.")
                                .arg(side)};
    case CaptureEvent::Kind::sideBack:
    case CaptureEvent::Kind::silenceEnded:
        return std::nullopt;
    }
    return std::nullopt;
}

QString writeFailureReason(const std::exception_ptr& failure) {
    int errorNumber = 0;
    try {
        std::rethrow_exception(failure);
    } catch (const FileWriteError& error) {
        errorNumber = error.errorNumber();
    } catch (const FfmpegError& error) {
        errorNumber = error.averror() < 0 ? -error.averror() : 0;
    } catch (...) {
    }
    if (errorNumber == ENOSPC)
        return QStringLiteral("Espace disque insuffisant");
    if (errorNumber > 0 && errorNumber < 4096)
        return QString::fromLocal8Bit(std::strerror(errorNumber));
    return localizedDescription(failure);
}

} // namespace tavrel
