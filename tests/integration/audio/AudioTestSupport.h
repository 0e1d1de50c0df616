#pragma once

// Pieces shared by the audio integration tests: one private PulseAudio per suite, coroutine drivers that
// keep exceptions, and scripted system-audio sources.

#include "PulseAudioFixture.h"
#include "ScopedEnvironment.h"
#include "TempDir.h"
#include "audio/AudioRecorder.h"

#include <QCoro/QCoroTask>
#include <QCoro/QCoroTimer>
#include <exception>
#include <gtest/gtest.h>
#include <memory>
#include <optional>

namespace tavrel::test {

/// Runs `recorder.startRecording()` to its end; the exception it threw, if any.
std::exception_ptr startAndWait(AudioRecorder& recorder);
/// Runs `recorder.stopRecording()` to its end.
std::optional<QString> stopAndWait(AudioRecorder& recorder);

/// The recordings folder and the capture directory of one test, inside its own temp dir.
class RecordingHome {
public:
    RecordingHome();
    QString recordingsDir() const;
    QStringList recordings() const;
    QStringList tempFiles() const; ///< in the capture directory

private:
    TempDir m_dir;
    ScopedEnvironment m_env;
};

/// A private PulseAudio shared by the tests of one suite, warmed up once.
class PulseSuite : public ::testing::Test {
protected:
    static void SetUpTestSuite();
    static void TearDownTestSuite();
    void SetUp() override;
    static PulseAudioFixture& pulse() { return *s_pulse; }

private:
    static std::unique_ptr<PulseAudioFixture> s_pulse;
};

} // namespace tavrel::test
