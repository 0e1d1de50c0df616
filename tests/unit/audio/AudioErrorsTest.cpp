#include "audio/AudioRecorder.h"
#include "audio/sources/SystemAudioSource.h"

#include <gtest/gtest.h>

using namespace tavrel;

namespace {

struct Described {
    QString caseName;
    QString description;
    QString debugDescription;
    QString localizedDescription;
};

template <typename Code>
Described describe(Code code) {
    const CodedError<Code> error(code);
    return {caseName(code), errorDescription(code), error.debugDescription(), error.localizedDescription()};
}

struct Expected {
    Described actual;
    const char* caseName;
    const char* description;
};

class ErrorTexts : public ::testing::TestWithParam<Expected> {};

} // namespace

TEST_P(ErrorTexts, carryTheirFrenchDescriptionAndTheirCaseNameForTheLog) {
    const Expected& expected = GetParam();
    EXPECT_EQ(expected.actual.caseName, QString::fromUtf8(expected.caseName));
    EXPECT_EQ(expected.actual.description, QString::fromUtf8(expected.description));
    EXPECT_EQ(expected.actual.localizedDescription, expected.actual.description);
    EXPECT_EQ(expected.actual.debugDescription, expected.actual.caseName);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, ErrorTexts,
    ::testing::Values(
        Expected{describe(RecordError::recordFailed), "recordFailed", "Impossible de démarrer l'enregistrement audio."},
        Expected{describe(RecordError::microphoneDenied), "microphoneDenied",
                 "Accès au microphone refusé \u2014 activez-le dans Réglages Système \u2192 Confidentialité \u2192 "
                 "Microphone."},
        Expected{describe(SystemAudioError::permissionDenied), "permissionDenied",
                 "Autorisation d'enregistrement d'écran refusée.\nActivez-la dans Réglages Système \u2192 "
                 "Confidentialité \u2192 Enregistrement d'écran."},
        Expected{describe(SystemAudioError::noDisplay), "noDisplay", "Aucun écran détecté."},
        Expected{describe(SystemAudioError::mergeFailed), "mergeFailed", "Impossible de fusionner les pistes audio."},
        Expected{describe(SystemAudioError::tapFailed), "tapFailed",
                 "Impossible de démarrer la capture audio système (process-tap)."}),
    [](const auto& info) { return std::string(info.param.caseName); });
