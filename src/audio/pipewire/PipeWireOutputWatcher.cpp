#include "audio/pipewire/PipeWireOutputWatcher.h"

#include "audio/pipewire/PipeWireConnection.h"
#include "audio/sources/OutputChain.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <cstring>
#include <pipewire/extensions/metadata.h>
#include <spa/utils/dict.h>
#include <vector>

namespace tavrel {

namespace {

QString lookup(const spa_dict* props, const char* key) {
    const char* value = props ? spa_dict_lookup(props, key) : nullptr;
    return value ? QString::fromUtf8(value) : QString();
}

/// The metadata's default devices are JSON objects: { "name": "alsa_output..." }.
QString nameFromMetadataValue(const char* value) {
    if (!value)
        return {};
    return QJsonDocument::fromJson(QByteArray(value)).object().value(QStringLiteral("name")).toString();
}

const QString kSinkClass = QStringLiteral("Audio/Sink");
const QString kPlaybackClass = QStringLiteral("Stream/Output/Audio");

} // namespace

const pw_registry_events PipeWireOutputWatcher::kRegistryEvents{
    .version = PW_VERSION_REGISTRY_EVENTS,
    .global = &PipeWireOutputWatcher::onGlobal,
    .global_remove = &PipeWireOutputWatcher::onGlobalRemove,
};

const pw_metadata_events PipeWireOutputWatcher::kMetadataEvents{
    .version = PW_VERSION_METADATA_EVENTS,
    .property = &PipeWireOutputWatcher::onMetadataProperty,
};

const pw_node_events PipeWireOutputWatcher::kNodeEvents{
    .version = PW_VERSION_NODE_EVENTS,
    .info = &PipeWireOutputWatcher::onNodeInfo,
};

PipeWireOutputWatcher::PipeWireOutputWatcher(PipeWireConnection& connection, std::function<void()> onChange)
    : m_connection(connection), m_onChange(std::move(onChange)) {
    m_registry.reset(reinterpret_cast<pw_proxy*>(pw_core_get_registry(connection.core(), PW_VERSION_REGISTRY, 0)));
    if (m_registry)
        pw_registry_add_listener(reinterpret_cast<pw_registry*>(m_registry.get()), &m_registryListener,
                                 &kRegistryEvents, this);
}

PipeWireOutputWatcher::~PipeWireOutputWatcher() {
    while (!m_boundNodes.empty())
        unbindNode(m_boundNodes.begin()->first);
    if (m_metadata) {
        spa_hook_remove(&m_metadataListener);
        m_metadata.reset();
    }
    if (m_registry) {
        spa_hook_remove(&m_registryListener);
        m_registry.reset();
    }
}

QString PipeWireOutputWatcher::targetSink() const {
    std::vector<OutputChainSink> sinks;
    std::vector<OutputChainStream> streams;
    for (const auto& [id, node] : m_nodes) {
        if (node.mediaClass == kSinkClass) {
            sinks.push_back(OutputChainSink{id, node.name, node.masterDevice, node.linkGroup});
        } else if (node.mediaClass == kPlaybackClass && !node.linkGroup.isEmpty()) {
            for (const auto& [linkId, link] : m_links)
                if (link.outputNode == id)
                    streams.push_back(OutputChainStream{node.linkGroup, link.inputNode});
        }
    }
    const OutputChainSink* end = endOfOutputChain(sinks, streams, m_defaultSink);
    return end ? end->name : m_defaultSink;
}

std::optional<uint32_t> PipeWireOutputWatcher::linkedSourceOf(uint32_t node) const {
    for (const auto& [id, link] : m_links)
        if (link.inputNode == node)
            return link.outputNode;
    return std::nullopt;
}

bool PipeWireOutputWatcher::isOutputDevice(uint32_t node) const {
    const auto found = m_nodes.find(node);
    return found != m_nodes.end() && found->second.mediaClass == kSinkClass;
}

bool PipeWireOutputWatcher::isPlayedInto(const QString& sink) const {
    for (const auto& [id, link] : m_links) {
        const auto from = m_nodes.find(link.outputNode);
        const auto to = m_nodes.find(link.inputNode);
        if (from != m_nodes.end() && to != m_nodes.end() && from->second.mediaClass == kPlaybackClass &&
            to->second.name == sink)
            return true;
    }
    return false;
}

void PipeWireOutputWatcher::changed() {
    if (m_onChange)
        m_onChange();
    m_connection.signal();
}

void PipeWireOutputWatcher::onGlobal(void* data, uint32_t id, uint32_t, const char* type, uint32_t,
                                     const spa_dict* props) {
    auto* self = static_cast<PipeWireOutputWatcher*>(data);
    if (std::strcmp(type, PW_TYPE_INTERFACE_Node) == 0) {
        NodeFacts& node = self->m_nodes[id];
        node.name = lookup(props, PW_KEY_NODE_NAME);
        node.mediaClass = lookup(props, PW_KEY_MEDIA_CLASS);
        if ((node.mediaClass == kSinkClass || node.mediaClass == kPlaybackClass) && !self->m_boundNodes.contains(id))
            self->bindNode(id);
    } else if (std::strcmp(type, PW_TYPE_INTERFACE_Link) == 0) {
        self->m_links[id] =
            LinkFacts{lookup(props, PW_KEY_LINK_OUTPUT_NODE).toUInt(), lookup(props, PW_KEY_LINK_INPUT_NODE).toUInt()};
    } else if (std::strcmp(type, PW_TYPE_INTERFACE_Metadata) == 0 && !self->m_metadata &&
               lookup(props, PW_KEY_METADATA_NAME) == QLatin1String("default")) {
        self->m_metadata.reset(static_cast<pw_proxy*>(pw_registry_bind(
            reinterpret_cast<pw_registry*>(self->m_registry.get()), id, type, PW_VERSION_METADATA, 0)));
        if (self->m_metadata)
            pw_metadata_add_listener(reinterpret_cast<pw_metadata*>(self->m_metadata.get()), &self->m_metadataListener,
                                     &kMetadataEvents, self);
    } else {
        return;
    }
    self->changed();
}

void PipeWireOutputWatcher::onGlobalRemove(void* data, uint32_t id) {
    auto* self = static_cast<PipeWireOutputWatcher*>(data);
    self->unbindNode(id);
    const bool node = self->m_nodes.erase(id) > 0;
    const bool link = self->m_links.erase(id) > 0;
    if (node || link)
        self->changed();
}

void PipeWireOutputWatcher::bindNode(uint32_t id) {
    auto bound = std::make_unique<BoundNode>();
    bound->owner = this;
    bound->id = id;
    bound->proxy.reset(static_cast<pw_proxy*>(pw_registry_bind(reinterpret_cast<pw_registry*>(m_registry.get()), id,
                                                               PW_TYPE_INTERFACE_Node, PW_VERSION_NODE, 0)));
    if (!bound->proxy)
        return;
    pw_node_add_listener(reinterpret_cast<pw_node*>(bound->proxy.get()), &bound->listener, &kNodeEvents, bound.get());
    m_boundNodes[id] = std::move(bound);
}

void PipeWireOutputWatcher::unbindNode(uint32_t id) {
    const auto found = m_boundNodes.find(id);
    if (found == m_boundNodes.end())
        return;
    spa_hook_remove(&found->second->listener);
    m_boundNodes.erase(found);
}

void PipeWireOutputWatcher::onNodeInfo(void* data, const pw_node_info* info) {
    auto* bound = static_cast<BoundNode*>(data);
    PipeWireOutputWatcher* self = bound->owner;
    if (!info || !(info->change_mask & PW_NODE_CHANGE_MASK_PROPS))
        return;
    const auto node = self->m_nodes.find(bound->id);
    if (node == self->m_nodes.end())
        return;
    node->second.masterDevice = lookup(info->props, "device.master_device");
    node->second.linkGroup = lookup(info->props, "node.link-group");
    self->changed();
}

int PipeWireOutputWatcher::onMetadataProperty(void* data, uint32_t subject, const char* key, const char*,
                                              const char* value) {
    auto* self = static_cast<PipeWireOutputWatcher*>(data);
    if (subject != PW_ID_CORE || !key || std::strcmp(key, "default.audio.sink") != 0)
        return 0;
    self->m_defaultSink = nameFromMetadataValue(value);
    self->changed();
    return 0;
}

} // namespace tavrel
