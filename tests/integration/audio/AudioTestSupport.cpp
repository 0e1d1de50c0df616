#include "AudioTestSupport.h"

#include "core/RecordingFiles.h"

#include <QDir>
#include <QFile>

namespace tavrel::test {

std::exception_ptr startAndWait(AudioRecorder& recorder) {
    std::exception_ptr failure;
    QCoro::waitFor([&]() -> QCoro::Task<> {
        try {
            co_await recorder.startRecording();
        } catch (...) {
            failure = std::current_exception();
        }
    }());
    return failure;
}

std::optional<QString> stopAndWait(AudioRecorder& recorder) {
    std::optional<QString> result;
    QCoro::waitFor([&]() -> QCoro::Task<> { result = co_await recorder.stopRecording(); }());
    return result;
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

QString RecordingHome::tempDir() const {
    return RecordingFiles::captureDir();
}

QStringList RecordingHome::tempFiles() const {
    return QDir(tempDir()).entryList(QDir::Files | QDir::Hidden, QDir::Name);
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
