#pragma once

#include "AudioServerFixture.h"

namespace tavrel::test {

/// A private PulseAudio daemon (own runtime directory and socket) with the virtual devices of
/// AudioServerFixture, the speaker as default sink and the virtual microphone as default source.
class PulseAudioFixture : public AudioServerFixture {
public:
    explicit PulseAudioFixture(Options options = {});
    ~PulseAudioFixture() override;

    ::testing::AssertionResult start() override;
    void stop() override;
    AudioServerKind kind() const override { return AudioServerKind::PulseAudio; }
    QString logs() const override;

    pid_t daemonPid() const { return m_daemon.pid(); }
    /// Milliseconds from spawning the daemon to the devices being present.
    qint64 startupMs() const { return m_startupMs; }

private:
    ManagedProcess m_daemon;
    qint64 m_startupMs = 0;
};

} // namespace tavrel::test
