#pragma once

#include <QStringList>
#include <optional>

namespace tavrel {

/// Asks the audio server which applications are capturing audio input right now. Called off the main
/// thread, one call at a time.
class MicInputQuery {
public:
    virtual ~MicInputQuery() = default;
    /// One application identifier per capture stream, in the server's order, duplicates kept; empty when
    /// nothing captures input. Nothing when the server could not be asked (no server, a lost connection,
    /// a slow answer): who captures is then unknown, not nobody.
    virtual std::optional<QStringList> inputApplications() = 0;
};

} // namespace tavrel
