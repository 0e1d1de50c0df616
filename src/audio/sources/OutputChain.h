#pragma once

// Where the sound of an output really ends up.
//
// A default output is often not a device but a filter in front of one: an echo canceller's reference sink,
// a remapping or equaliser sink. Its monitor only carries what is played into the filter itself; a
// conferencing app that picked the device directly is not heard there. The device's monitor carries
// everything that reaches the speakers, through the filter or not, so that is the one to record.
//
//   std::vector<OutputChainSink> sinks = ...;      // every sink, with how it is chained
//   std::vector<OutputChainStream> streams = ...;  // every playback stream and the sink it feeds
//   const OutputChainSink* device = endOfOutputChain(sinks, streams, defaultSinkName);
//
// A filter names its device in one of two ways: PulseAudio's filters set "device.master_device" to the
// device's name; PipeWire's filters share a "node.link-group" between their sink and the playback stream
// that carries their output, and that stream is linked to the device.

#include <QString>
#include <cstdint>
#include <vector>

namespace tavrel {

struct OutputChainSink {
    uint32_t id = 0;
    QString name;
    QString masterDevice; ///< "device.master_device", empty when none
    QString linkGroup;    ///< "node.link-group", empty when none
};

struct OutputChainStream {
    QString linkGroup; ///< empty for an ordinary app stream
    uint32_t sinkId = 0;
};

/// The sink at the end of the chain that starts at the sink named `sinkName` (that sink itself when it is
/// not a filter); nullptr when there is no such sink. A chain that loops stops where the loop closes.
const OutputChainSink* endOfOutputChain(const std::vector<OutputChainSink>& sinks,
                                        const std::vector<OutputChainStream>& streams, const QString& sinkName);

} // namespace tavrel
