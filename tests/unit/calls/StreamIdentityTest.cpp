#include "audio/pulse/PulseMicInputQuery.h"
#include "core/CallMonitor.h"

#include <functional>
#include <gtest/gtest.h>
#include <optional>

namespace tavrel {
namespace {

using Facts = PulseMicInputQuery::StreamFacts;
constexpr qint64 kOwnPid = 4242;

struct IdentityCase {
    const char* name;
    std::function<void(Facts&)> shape; // applied to an ordinary 48 kHz stream of a client
    std::optional<QString> expected;
    bool isCall;
};

void PrintTo(const IdentityCase& c, std::ostream* os) {
    *os << c.name;
}

// Output monitors, level meters, corked streams, our own streams and the plain cases run against real
// servers in the integration tests; these are the rest of the executable table and the other exclusions.
class StreamIdentity : public ::testing::TestWithParam<IdentityCase> {};

TEST_P(StreamIdentity, namesTheApplicationOrSkipsTheStream) {
    Facts facts;
    facts.sampleRateHz = 48000;
    facts.processId = QStringLiteral("100");
    facts.processBinary = QStringLiteral("someapp");
    facts.applicationName = QStringLiteral("Some App");
    GetParam().shape(facts);
    const std::optional<QString> identifier = PulseMicInputQuery::identify(facts, kOwnPid);
    EXPECT_EQ(identifier, GetParam().expected);
    EXPECT_EQ(identifier && CallMonitor::isCallApplication(*identifier), GetParam().isCall);
}

const std::optional<QString> kSkipped;

INSTANTIATE_TEST_SUITE_P(
    Streams, StreamIdentity,
    ::testing::Values(
        IdentityCase{"declaredIdFirst",
                     [](Facts& f) {
                         f.applicationId = QStringLiteral("us.zoom.xos");
                         f.processBinary = QStringLiteral("chrome");
                     },
                     QStringLiteral("us.zoom.xos"), true},
        IdentityCase{"flatpakIdBeforeExecutable",
                     [](Facts& f) {
                         f.flatpakId = QStringLiteral("com.slack.Slack");
                         f.processBinary = QStringLiteral("electron");
                     },
                     QStringLiteral("com.tinyspeck.slackmacgap"), true},
        IdentityCase{"flatpakTeamsCapitalised",
                     [](Facts& f) { f.applicationId = QStringLiteral("com.microsoft.Teams"); },
                     QStringLiteral("com.microsoft.teams"), true},
        IdentityCase{"flatpakZoomAlreadyKnown", [](Facts& f) { f.flatpakId = QStringLiteral("us.zoom.Zoom"); },
                     QStringLiteral("us.zoom.Zoom"), true},
        IdentityCase{"chromeExecutable", [](Facts& f) { f.processBinary = QStringLiteral("chrome"); },
                     QStringLiteral("com.google.Chrome"), true},
        IdentityCase{"discordExecutable", [](Facts& f) { f.processBinary = QStringLiteral("Discord"); },
                     QStringLiteral("com.hnc.Discord"), true},
        IdentityCase{"unknownDeclaredIdKept",
                     [](Facts& f) { f.applicationId = QStringLiteral("org.example.Dictaphone"); },
                     QStringLiteral("org.example.Dictaphone"), false},
        IdentityCase{"chromiumExecutable", [](Facts& f) { f.processBinary = QStringLiteral("chromium"); },
                     QStringLiteral("com.google.Chrome"), true},
        IdentityCase{"edgeExecutable", [](Facts& f) { f.processBinary = QStringLiteral("msedge"); },
                     QStringLiteral("com.microsoft.edgemac"), true},
        IdentityCase{"braveExecutable", [](Facts& f) { f.processBinary = QStringLiteral("brave-browser"); },
                     QStringLiteral("com.brave.Browser"), true},
        IdentityCase{"firefoxEsrExecutable", [](Facts& f) { f.processBinary = QStringLiteral("firefox-esr"); },
                     QStringLiteral("org.mozilla.firefox"), true},
        IdentityCase{"teamsForLinuxExecutable", [](Facts& f) { f.processBinary = QStringLiteral("teams-for-linux"); },
                     QStringLiteral("com.microsoft.teams"), true},
        IdentityCase{"zoomLauncherExecutable", [](Facts& f) { f.processBinary = QStringLiteral("ZoomLauncher"); },
                     QStringLiteral("us.zoom.xos"), true},
        IdentityCase{"webexExecutable", [](Facts& f) { f.processBinary = QStringLiteral("CiscoCollabHost"); },
                     QStringLiteral("com.webex.meetingmanager"), true},
        IdentityCase{"slackExecutable", [](Facts& f) { f.processBinary = QStringLiteral("slack"); },
                     QStringLiteral("com.tinyspeck.slackmacgap"), true},
        IdentityCase{"whatsappExecutable", [](Facts& f) { f.processBinary = QStringLiteral("whatsapp-for-linux"); },
                     QStringLiteral("net.whatsapp.WhatsApp"), true},
        IdentityCase{"executableGivenAsPath", [](Facts& f) { f.processBinary = QStringLiteral("/opt/zoom/zoom"); },
                     QStringLiteral("us.zoom.xos"), true},
        IdentityCase{"noExecutableFallsBackToName", [](Facts& f) { f.processBinary.clear(); },
                     QStringLiteral("Some App"), false},
        IdentityCase{"tapsAnOutput",
                     [](Facts& f) {
                         f.capturesOutput = true;
                         f.processBinary = QStringLiteral("zoom");
                     },
                     kSkipped, false},
        IdentityCase{"madeByAModule", [](Facts& f) { f.hasClient = false; }, kSkipped, false},
        IdentityCase{"filterRole", [](Facts& f) { f.mediaRole = QStringLiteral("filter"); }, kSkipped, false},
        IdentityCase{"volumeControl", [](Facts& f) { f.applicationId = QStringLiteral("org.pulseaudio.pavucontrol"); },
                     kSkipped, false},
        IdentityCase{"gnomeVolumeControl",
                     [](Facts& f) { f.applicationId = QStringLiteral("org.gnome.VolumeControl"); }, kSkipped, false},
        IdentityCase{"telephonyRateStillCounts",
                     [](Facts& f) {
                         f.sampleRateHz = 8000;
                         f.processBinary = QStringLiteral("zoom");
                     },
                     QStringLiteral("us.zoom.xos"), true}),
    [](const ::testing::TestParamInfo<IdentityCase>& info) { return std::string(info.param.name); });

} // namespace
} // namespace tavrel
