#include "audio/AudioRecorder.h"
#include "audio/sources/SystemAudioSource.h"

namespace tavrel {

QString errorDescription(RecordError error) {
    switch (error) {
    case RecordError::recordFailed:
        return QStringLiteral("Impossible de démarrer l'enregistrement audio.");
    case RecordError::microphoneDenied:
        return QStringLiteral("Accès au microphone refusé \u2014 activez-le dans Réglages Système \u2192 "
                              "Confidentialité \u2192 Microphone.");
    }
    return {};
}

QString caseName(RecordError error) {
    switch (error) {
    case RecordError::recordFailed:
        return QStringLiteral("recordFailed");
    case RecordError::microphoneDenied:
        return QStringLiteral("microphoneDenied");
    }
    return {};
}

QString errorDescription(SystemAudioError error) {
    switch (error) {
    case SystemAudioError::permissionDenied:
        return QStringLiteral("Autorisation d'enregistrement d'écran refusée.\nActivez-la dans Réglages Système "
                              "\u2192 Confidentialité \u2192 Enregistrement d'écran.");
    case SystemAudioError::noDisplay:
        return QStringLiteral("Aucun écran détecté.");
    case SystemAudioError::mergeFailed:
        return QStringLiteral("Impossible de fusionner les pistes audio.");
    case SystemAudioError::tapFailed:
        return QStringLiteral("Impossible de démarrer la capture audio système (process-tap).");
    }
    return {};
}

QString caseName(SystemAudioError error) {
    switch (error) {
    case SystemAudioError::permissionDenied:
        return QStringLiteral("permissionDenied");
    case SystemAudioError::noDisplay:
        return QStringLiteral("noDisplay");
    case SystemAudioError::mergeFailed:
        return QStringLiteral("mergeFailed");
    case SystemAudioError::tapFailed:
        return QStringLiteral("tapFailed");
    }
    return {};
}

} // namespace tavrel
