#include "audio/pulse/PulseMicInputQuery.h"

#include "audio/pulse/PulseContext.h"

#include <QCoreApplication>
#include <QHash>
#include <vector>

namespace tavrel {

namespace {

// Level meters read a source at a few dozen frames a second; no voice call runs below 8 kHz.
constexpr uint32_t kMeterRateCeilingHz = 1000;

bool isMixerApplication(const QString& applicationId) {
    static const QStringList kMixers{
        QStringLiteral("org.PulseAudio.pavucontrol"), QStringLiteral("org.gnome.VolumeControl"),
        QStringLiteral("org.kde.plasma-pa"),          QStringLiteral("org.kde.kmix"),
        QStringLiteral("com.saivert.pwvucontrol"),    QStringLiteral("org.xfce.xfce4-pulseaudio-plugin"),
    };
    for (const QString& mixer : kMixers) {
        if (applicationId.compare(mixer, Qt::CaseInsensitive) == 0)
            return true;
    }
    return false;
}

struct ClientFacts {
    QString applicationId;
    QString flatpakId;
    QString processId;
    QString processBinary;
    QString applicationName;
};

struct OutputFacts {
    uint32_t source = PA_INVALID_INDEX;
    uint32_t client = PA_INVALID_INDEX;
    PulseMicInputQuery::StreamFacts stream;
};

std::pair<uint32_t, ClientFacts> toClient(const pa_client_info* info) {
    return {info->index, ClientFacts{pulseProperty(info->proplist, PA_PROP_APPLICATION_ID),
                                     pulseProperty(info->proplist, "pipewire.access.portal.app_id"),
                                     pulseProperty(info->proplist, PA_PROP_APPLICATION_PROCESS_ID),
                                     pulseProperty(info->proplist, PA_PROP_APPLICATION_PROCESS_BINARY),
                                     pulseProperty(info->proplist, PA_PROP_APPLICATION_NAME)}};
}

OutputFacts toOutput(const pa_source_output_info* info) {
    OutputFacts output;
    output.source = info->source;
    output.client = info->client;
    PulseMicInputQuery::StreamFacts& facts = output.stream;
    facts.sampleRateHz = info->sample_spec.rate;
    facts.capturesOutput = pulseProperty(info->proplist, "stream.capture.sink") == QLatin1String("true");
    facts.mediaRole = pulseProperty(info->proplist, PA_PROP_MEDIA_ROLE);
    facts.mediaName = pulseProperty(info->proplist, PA_PROP_MEDIA_NAME);
    facts.applicationId = pulseProperty(info->proplist, PA_PROP_APPLICATION_ID);
    facts.flatpakId = pulseProperty(info->proplist, "pipewire.access.portal.app_id");
    facts.processId = pulseProperty(info->proplist, PA_PROP_APPLICATION_PROCESS_ID);
    facts.processBinary = pulseProperty(info->proplist, PA_PROP_APPLICATION_PROCESS_BINARY);
    facts.applicationName = pulseProperty(info->proplist, PA_PROP_APPLICATION_NAME);
    return output;
}

struct Snapshot {
    QHash<uint32_t, bool> sourceIsMonitor;
    QHash<uint32_t, ClientFacts> clients;
    std::vector<OutputFacts> outputs;
};

QString firstNonEmpty(const QString& a, const QString& b) {
    return a.isEmpty() ? b : a;
}

} // namespace

QString PulseMicInputQuery::identifierForBinary(const QString& binary) {
    static const QHash<QString, QString> kBinaries{
        {QStringLiteral("chrome"), QStringLiteral("com.google.Chrome")},
        {QStringLiteral("chromium"), QStringLiteral("com.google.Chrome")},
        {QStringLiteral("chromium-browser"), QStringLiteral("com.google.Chrome")},
        {QStringLiteral("google-chrome"), QStringLiteral("com.google.Chrome")},
        {QStringLiteral("google-chrome-stable"), QStringLiteral("com.google.Chrome")},
        {QStringLiteral("google-chrome-beta"), QStringLiteral("com.google.Chrome")},
        {QStringLiteral("google-chrome-unstable"), QStringLiteral("com.google.Chrome")},
        {QStringLiteral("msedge"), QStringLiteral("com.microsoft.edgemac")},
        {QStringLiteral("microsoft-edge"), QStringLiteral("com.microsoft.edgemac")},
        {QStringLiteral("microsoft-edge-stable"), QStringLiteral("com.microsoft.edgemac")},
        {QStringLiteral("microsoft-edge-beta"), QStringLiteral("com.microsoft.edgemac")},
        {QStringLiteral("microsoft-edge-dev"), QStringLiteral("com.microsoft.edgemac")},
        {QStringLiteral("brave"), QStringLiteral("com.brave.Browser")},
        {QStringLiteral("brave-browser"), QStringLiteral("com.brave.Browser")},
        {QStringLiteral("brave-browser-stable"), QStringLiteral("com.brave.Browser")},
        {QStringLiteral("firefox"), QStringLiteral("org.mozilla.firefox")},
        {QStringLiteral("firefox-esr"), QStringLiteral("org.mozilla.firefox")},
        {QStringLiteral("firefox-bin"), QStringLiteral("org.mozilla.firefox")},
        {QStringLiteral("teams"), QStringLiteral("com.microsoft.teams")},
        {QStringLiteral("teams-for-linux"), QStringLiteral("com.microsoft.teams")},
        {QStringLiteral("zoom"), QStringLiteral("us.zoom.xos")},
        {QStringLiteral("zoomlauncher"), QStringLiteral("us.zoom.xos")},
        {QStringLiteral("webex"), QStringLiteral("com.webex.meetingmanager")},
        {QStringLiteral("ciscocollabhost"), QStringLiteral("com.webex.meetingmanager")},
        {QStringLiteral("slack"), QStringLiteral("com.tinyspeck.slackmacgap")},
        {QStringLiteral("discord"), QStringLiteral("com.hnc.Discord")},
        {QStringLiteral("discordcanary"), QStringLiteral("com.hnc.Discord")},
        {QStringLiteral("discordptb"), QStringLiteral("com.hnc.Discord")},
        {QStringLiteral("whatsapp-for-linux"), QStringLiteral("net.whatsapp.WhatsApp")},
        {QStringLiteral("whatsdesk"), QStringLiteral("net.whatsapp.WhatsApp")},
        {QStringLiteral("whatsapp-desktop-linux"), QStringLiteral("net.whatsapp.WhatsApp")},
        {QStringLiteral("zapzap"), QStringLiteral("net.whatsapp.WhatsApp")},
    };
    // Some servers report a path; executables are matched by name, case aside (Discord ships "Discord").
    const QString name = binary.section(QLatin1Char('/'), -1);
    return kBinaries.value(name.toLower(), name);
}

QString PulseMicInputQuery::normalizedApplicationId(const QString& applicationId) {
    // Flatpak ids (and desktop ids used as application.id) that the conferencing prefixes do not cover.
    static const QHash<QString, QString> kApplicationIds{
        {QStringLiteral("org.chromium.Chromium"), QStringLiteral("com.google.Chrome")},
        {QStringLiteral("com.github.Eloston.UngoogledChromium"), QStringLiteral("com.google.Chrome")},
        {QStringLiteral("io.github.ungoogled_software.ungoogled_chromium"), QStringLiteral("com.google.Chrome")},
        {QStringLiteral("com.microsoft.Edge"), QStringLiteral("com.microsoft.edgemac")},
        {QStringLiteral("com.microsoft.Teams"), QStringLiteral("com.microsoft.teams")},
        {QStringLiteral("com.github.IsmaelMartinez.teams_for_linux"), QStringLiteral("com.microsoft.teams")},
        {QStringLiteral("com.slack.Slack"), QStringLiteral("com.tinyspeck.slackmacgap")},
        {QStringLiteral("com.discordapp.Discord"), QStringLiteral("com.hnc.Discord")},
        {QStringLiteral("com.discordapp.DiscordCanary"), QStringLiteral("com.hnc.Discord")},
        {QStringLiteral("com.cisco.Webex"), QStringLiteral("com.webex.meetingmanager")},
        {QStringLiteral("com.github.eneshecan.WhatsAppForLinux"), QStringLiteral("net.whatsapp.WhatsApp")},
        {QStringLiteral("io.github.mimbrero.WhatsAppDesktop"), QStringLiteral("net.whatsapp.WhatsApp")},
        {QStringLiteral("com.rtosta.zapzap"), QStringLiteral("net.whatsapp.WhatsApp")},
        {QStringLiteral("google-chrome"), QStringLiteral("com.google.Chrome")},
        {QStringLiteral("chromium"), QStringLiteral("com.google.Chrome")},
        {QStringLiteral("firefox"), QStringLiteral("org.mozilla.firefox")},
        {QStringLiteral("Zoom"), QStringLiteral("us.zoom.xos")},
    };
    return kApplicationIds.value(applicationId, applicationId);
}

std::optional<QString> PulseMicInputQuery::identify(const StreamFacts& stream, qint64 ownPid) {
    // Monitors carry what is played, not what is said.
    if (stream.onMonitorSource || stream.capturesOutput)
        return std::nullopt;
    // Streams without a client are made by the server's own modules (virtual sources, loopbacks, echo
    // cancellers); filters made by clients declare the role.
    if (!stream.hasClient || stream.mediaRole == QLatin1String("filter"))
        return std::nullopt;
    // Level meters of volume controls (PA_STREAM_PEAK_DETECT streams) keep sources open without anyone talking.
    if (stream.sampleRateHz > 0 && stream.sampleRateHz < kMeterRateCeilingHz)
        return std::nullopt;
    if (isMixerApplication(stream.applicationId) || stream.mediaName == QLatin1String("Peak detect"))
        return std::nullopt;
    // A corked stream still holds the microphone: meeting clients cork theirs while the user is muted.
    if (!stream.processId.isEmpty() && stream.processId == QString::number(ownPid))
        return QString::fromLatin1(kOwnApplicationId);
    if (!stream.applicationId.isEmpty())
        return normalizedApplicationId(stream.applicationId);
    if (!stream.flatpakId.isEmpty())
        return normalizedApplicationId(stream.flatpakId);
    if (!stream.processBinary.isEmpty())
        return identifierForBinary(stream.processBinary);
    return stream.applicationName;
}

std::optional<QStringList> PulseMicInputQuery::inputApplications() {
    Snapshot snapshot;
    try {
        const std::shared_ptr<PulseContext> pulse = PulseContext::instance(kQueryTimeoutMs);
        snapshot.outputs =
            pulse->list<pa_source_output_info>(&pa_context_get_source_output_info_list, &toOutput, kQueryTimeoutMs);
        // Most polls find nobody recording: the other two lists are only needed to judge streams.
        if (snapshot.outputs.empty())
            return QStringList{};
        for (const PulseDeviceInfo& source : pulse->sources(kQueryTimeoutMs))
            snapshot.sourceIsMonitor.insert(source.index, source.isMonitor());
        for (const auto& [index, client] :
             pulse->list<pa_client_info>(&pa_context_get_client_info_list, &toClient, kQueryTimeoutMs))
            snapshot.clients.insert(index, client);
    } catch (const Error&) {
        // No server, a lost connection or a slow answer: who captures is unknown until the next poll.
        return std::nullopt;
    }

    const qint64 ownPid = QCoreApplication::applicationPid();
    QStringList applications;
    for (OutputFacts& output : snapshot.outputs) {
        StreamFacts& facts = output.stream;
        // A source that appeared after the record streams were read is not known to be a monitor.
        facts.onMonitorSource = snapshot.sourceIsMonitor.value(output.source, false);
        facts.hasClient = output.client != PA_INVALID_INDEX;
        // Native PipeWire clients keep the process properties on the client, not on the stream.
        const auto client = snapshot.clients.constFind(output.client);
        if (client != snapshot.clients.cend()) {
            facts.applicationId = firstNonEmpty(facts.applicationId, client->applicationId);
            facts.flatpakId = firstNonEmpty(facts.flatpakId, client->flatpakId);
            facts.processId = firstNonEmpty(facts.processId, client->processId);
            facts.processBinary = firstNonEmpty(facts.processBinary, client->processBinary);
            facts.applicationName = firstNonEmpty(facts.applicationName, client->applicationName);
        }
        if (std::optional<QString> identifier = identify(facts, ownPid); identifier && !identifier->isEmpty())
            applications.append(*identifier);
    }
    return applications;
}

} // namespace tavrel
