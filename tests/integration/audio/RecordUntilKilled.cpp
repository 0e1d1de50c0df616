// Records the microphone until the process is killed, as a crash would end it; prints "recording <file>"
// once the microphone runs.
#include "audio/AudioRecorder.h"

#include <QCoreApplication>
#include <QDir>
#include <cstdio>

namespace {

QCoro::Task<> record(tavrel::AudioRecorder& recorder) {
    try {
        co_await recorder.startRecording();
        const QStringList files = QDir(tavrel::AudioRecorder::recordingsDir()).entryList({"tavrel_mic_*.m4a"});
        std::printf("recording %s/%s\n", qPrintable(tavrel::AudioRecorder::recordingsDir()),
                    qPrintable(files.value(0)));
    } catch (const tavrel::Error& error) {
        std::printf("failed %s\n", qPrintable(error.debugDescription()));
        QCoreApplication::exit(1);
    } catch (const std::exception& error) {
        std::printf("failed %s\n", error.what());
        QCoreApplication::exit(1);
    }
    std::fflush(stdout);
}

} // namespace

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    tavrel::AudioRecorder recorder;
    auto task = record(recorder);
    return app.exec();
}
