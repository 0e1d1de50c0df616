#pragma once

#include "AudioServerFixture.h"

namespace tavrel::test {

/// A private PipeWire: its own session bus (for WirePlumber), pipewire, wireplumber and
/// pipewire-pulse, with the devices of AudioServerFixture created through the pulse protocol
/// (module-remap-source stands in for module-virtual-source, which pipewire-pulse lacks).
/// In-process libpipewire clients reach it through the exported XDG_RUNTIME_DIR/PIPEWIRE_RUNTIME_DIR.
class PipeWireFixture : public AudioServerFixture {
public:
    explicit PipeWireFixture(Options options = {});
    ~PipeWireFixture() override;

    /// False (with the missing programs in `missing`) when PipeWire is not installed; tests skip then.
    static bool isAvailable(QString* missing = nullptr);

    ::testing::AssertionResult start() override;
    void stop() override;
    AudioServerKind kind() const override { return AudioServerKind::PipeWire; }
    QString logs() const override;

    /// pw-record of what is played into `sink` (a native stream with stream.capture.sink=true);
    /// stop() it to finish the WAV file.
    ManagedProcess startSinkCapture(const QString& sink, const QString& wavPath);
    /// A native PipeWire record stream (pw-cat) posing as a conferencing app: application.id and
    /// application.name on the stream node, application.process.binary (the name it runs under) on
    /// its client, where native clients carry it. stop() it to close the stream.
    ManagedProcess startNativeRecordingClient(const RecordingClientOptions& options = {});
    /// pw-dump's JSON array of every object (nodes, clients, links...).
    QJsonArray dump();

    /// The private bus WirePlumber runs on.
    QString busAddress() const { return m_busAddress; }

private:
    ::testing::AssertionResult startDaemon(ManagedProcess& daemon, const QString& program, const QStringList& args,
                                           const QProcessEnvironment& env);

    ManagedProcess m_bus;
    ManagedProcess m_pipewire;
    ManagedProcess m_wireplumber;
    ManagedProcess m_pipewirePulse;
    QString m_busAddress;
};

} // namespace tavrel::test
