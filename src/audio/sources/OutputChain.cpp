#include "audio/sources/OutputChain.h"

#include <algorithm>

namespace tavrel {

namespace {

const OutputChainSink* nextInChain(const std::vector<OutputChainSink>& sinks,
                                   const std::vector<OutputChainStream>& streams, const OutputChainSink& sink) {
    const auto byId = [&](uint32_t id) -> const OutputChainSink* {
        const auto found = std::find_if(sinks.begin(), sinks.end(), [id](const auto& s) { return s.id == id; });
        return found == sinks.end() ? nullptr : &*found;
    };
    if (!sink.masterDevice.isEmpty()) {
        const auto master =
            std::find_if(sinks.begin(), sinks.end(), [&](const auto& s) { return s.name == sink.masterDevice; });
        if (master != sinks.end())
            return &*master;
    }
    if (!sink.linkGroup.isEmpty()) {
        for (const OutputChainStream& stream : streams)
            if (stream.linkGroup == sink.linkGroup && stream.sinkId != sink.id)
                if (const OutputChainSink* next = byId(stream.sinkId))
                    return next;
    }
    return nullptr;
}

} // namespace

const OutputChainSink* endOfOutputChain(const std::vector<OutputChainSink>& sinks,
                                        const std::vector<OutputChainStream>& streams, const QString& sinkName) {
    const auto start =
        std::find_if(sinks.begin(), sinks.end(), [&sinkName](const auto& s) { return s.name == sinkName; });
    if (start == sinks.end())
        return nullptr;
    const OutputChainSink* current = &*start;
    std::vector<uint32_t> visited{current->id};
    while (const OutputChainSink* next = nextInChain(sinks, streams, *current)) {
        if (std::find(visited.begin(), visited.end(), next->id) != visited.end())
            break;
        visited.push_back(next->id);
        current = next;
    }
    return current;
}

} // namespace tavrel
