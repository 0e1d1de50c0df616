#pragma once

#include <QStringList>

namespace tavrel {

/// Asks the audio server which applications are capturing audio input right now.
class MicInputQuery {
public:
    virtual ~MicInputQuery() = default;
    /// One application identifier per capture stream, in the server's order, duplicates kept. Empty when
    /// nothing captures input or when the server cannot be asked (a failed query reports nothing).
    virtual QStringList inputApplications() = 0;
};

} // namespace tavrel
