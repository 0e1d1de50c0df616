#pragma once

#include "AudioServerFixture.h"

namespace tavrel::test {

/// A private PulseAudio daemon (own runtime directory and socket) with the virtual devices of
/// AudioServerFixture, the speaker as default sink and the virtual microphone as default source.
class PulseAudioFixture : public AudioServerFixture {
public:
    explicit PulseAudioFixture(Options options = {});

    ::testing::AssertionResult start() override;
    AudioServerKind kind() const override { return AudioServerKind::PulseAudio; }

    pid_t daemonPid() const { return m_daemons.empty() ? -1 : m_daemons.front().pid(); }
};

} // namespace tavrel::test
