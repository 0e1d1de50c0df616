#pragma once

#include "audio/pipewire/PipeWireHandles.h"

#include <QString>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <pipewire/extensions/metadata.h>

namespace tavrel {

class PipeWireConnection;

/// Follows, on a PipeWire connection, where the default output's sound ends up: the registry's nodes and
/// links, the default output of the "default" metadata, and filter chains (a filter's sink shares a
/// "node.link-group" with the playback stream that carries its output on to the device). `onChange` runs on the
/// loop thread after anything it follows changed, so that the owner can move its capture stream.
///
/// Made, used and dropped under the connection's lock.
class PipeWireOutputWatcher {
public:
    PipeWireOutputWatcher(PipeWireConnection& connection, std::function<void()> onChange);
    ~PipeWireOutputWatcher();
    PipeWireOutputWatcher(const PipeWireOutputWatcher&) = delete;
    PipeWireOutputWatcher& operator=(const PipeWireOutputWatcher&) = delete;

    /// False when the registry cannot be had.
    bool isValid() const { return m_registry != nullptr; }
    /// The default output as the user chose it (empty until the "default" metadata said so).
    QString defaultSink() const { return m_defaultSink; }
    /// The output device at the end of the default output's chain: what to capture.
    QString targetSink() const;
    /// The node linked into `node`'s input, if any.
    std::optional<uint32_t> linkedSourceOf(uint32_t node) const;
    /// Whether `node` is an output device (an audio sink).
    bool isOutputDevice(uint32_t node) const;
    /// Whether some application stream plays into the sink named `sink`.
    bool isPlayedInto(const QString& sink) const;

private:
    struct NodeFacts {
        QString name;
        QString mediaClass;
        QString masterDevice;
        QString linkGroup;
    };
    /// Filters show how they are chained only in their full properties, which the registry leaves out:
    /// sinks and playback streams are bound to read them.
    struct BoundNode {
        PipeWireOutputWatcher* owner = nullptr;
        uint32_t id = 0;
        PwProxyPtr proxy;
        spa_hook listener{};
    };
    struct LinkFacts {
        uint32_t outputNode = 0;
        uint32_t inputNode = 0;
    };

    static const pw_registry_events kRegistryEvents;
    static const pw_metadata_events kMetadataEvents;
    static const pw_node_events kNodeEvents;
    static void onGlobal(void* data, uint32_t id, uint32_t permissions, const char* type, uint32_t version,
                         const spa_dict* props);
    static void onGlobalRemove(void* data, uint32_t id);
    static void onNodeInfo(void* data, const pw_node_info* info);
    static int onMetadataProperty(void* data, uint32_t subject, const char* key, const char* type, const char* value);
    void bindNode(uint32_t id);
    void unbindNode(uint32_t id);
    void changed();

    PipeWireConnection& m_connection;
    std::function<void()> m_onChange;
    PwProxyPtr m_registry;
    PwProxyPtr m_metadata;
    spa_hook m_registryListener{};
    spa_hook m_metadataListener{};
    std::map<uint32_t, NodeFacts> m_nodes;
    std::map<uint32_t, LinkFacts> m_links;
    std::map<uint32_t, std::unique_ptr<BoundNode>> m_boundNodes;
    QString m_defaultSink;
};

} // namespace tavrel
