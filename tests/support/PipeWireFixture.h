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

    /// False (with the missing programs in `missing`) when PipeWire is not installed; tests skip then.
    static bool isAvailable(QString* missing = nullptr);

    ::testing::AssertionResult start() override;
    AudioServerKind kind() const override { return AudioServerKind::PipeWire; }
};

} // namespace tavrel::test
