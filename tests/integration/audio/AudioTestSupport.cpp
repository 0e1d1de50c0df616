#include "AudioTestSupport.h"

#include "core/RecordingFiles.h"

#include <QDir>
#include <QFile>

namespace tavrel::test {

namespace {

// QCoro's waitFor never returns when the task throws: the failure is caught inside and handed back (in a
// struct: a task cannot yield an exception_ptr itself).
struct StartOutcome {
    std::exception_ptr failure;
};

QCoro::Task<StartOutcome> startCatching(AudioRecorder* recorder) {
    StartOutcome outcome;
    try {
        auto starting = recorder->startRecording();
        co_await starting;
    } catch (...) {
        outcome.failure = std::current_exception();
    }
    co_return outcome;
}

} // namespace

std::exception_ptr startAndWait(AudioRecorder& recorder) {
    return QCoro::waitFor(startCatching(&recorder)).failure;
}

std::optional<QString> stopAndWait(AudioRecorder& recorder) {
    return QCoro::waitFor(recorder.stopRecording());
}

RecordingHome::RecordingHome() : m_dir(QStringLiteral("tavrel-rec")) {
    m_env.set("XDG_DATA_HOME", QFile::encodeName(m_dir.filePath("data")));
    m_env.set("XDG_STATE_HOME", QFile::encodeName(m_dir.filePath("state")));
}

QString RecordingHome::recordingsDir() const {
    return m_dir.filePath("data") + QStringLiteral("/TavrelRecorder/Enregistrements");
}

QStringList RecordingHome::recordings() const {
    return QDir(recordingsDir()).entryList(QDir::Files | QDir::Hidden, QDir::Name);
}

QStringList RecordingHome::tempFiles() const {
    return QDir(RecordingFiles::captureDir()).entryList(QDir::Files | QDir::Hidden, QDir::Name);
}

std::unique_ptr<PulseAudioFixture> PulseSuite::s_pulse;

void PulseSuite::SetUpTestSuite() {
    AudioServerFixture::Options options;
    options.warmUp = true;
    s_pulse = std::make_unique<PulseAudioFixture>(options);
    const auto started = s_pulse->start();
    if (!started)
        ADD_FAILURE() << started.message();
}

void PulseSuite::TearDownTestSuite() {
    s_pulse.reset();
}

void PulseSuite::SetUp() {
    ASSERT_TRUE(s_pulse && s_pulse->isRunning()) << "the private PulseAudio did not start";
}

} // namespace tavrel::test
