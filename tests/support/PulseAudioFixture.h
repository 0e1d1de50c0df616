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

private:
    ManagedProcess m_daemon;
};

} // namespace tavrel::test
