#include "audio/pulse/PulseMicInputQuery.h"
#include "core/CallMonitor.h"

#include <gtest/gtest.h>
#include <optional>

namespace tavrel {
namespace {

using Facts = PulseMicInputQuery::StreamFacts;
constexpr qint64 kOwnPid = 4242;

struct IdentityCase {
    const char* name;
    Facts facts; ///< a client's stream; 48 kHz, process id 100 and the name "Some App" unless said otherwise
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
    Facts facts = GetParam().facts;
    if (facts.sampleRateHz == 0)
        facts.sampleRateHz = 48000;
    facts.processId = QStringLiteral("100");
    facts.applicationName = QStringLiteral("Some App");
    const std::optional<QString> identifier = PulseMicInputQuery::identify(facts, kOwnPid);
    EXPECT_EQ(identifier, GetParam().expected);
    EXPECT_EQ(identifier && CallMonitor::isCallApplication(*identifier), GetParam().isCall);
}

const std::optional<QString> kSkipped;

INSTANTIATE_TEST_SUITE_P(
    Streams, StreamIdentity,
    ::testing::Values(
        IdentityCase{
            "declaredIdFirst", {.applicationId = "us.zoom.xos", .processBinary = "chrome"}, "us.zoom.xos", true},
        IdentityCase{"flatpakIdBeforeExecutable",
                     {.flatpakId = "com.slack.Slack", .processBinary = "electron"},
                     "com.tinyspeck.slackmacgap",
                     true},
        IdentityCase{"flatpakTeamsCapitalised", {.applicationId = "com.microsoft.Teams"}, "com.microsoft.teams", true},
        IdentityCase{"flatpakZoomAlreadyKnown", {.flatpakId = "us.zoom.Zoom"}, "us.zoom.Zoom", true},
        IdentityCase{"chromeExecutable", {.processBinary = "chrome"}, "com.google.Chrome", true},
        IdentityCase{"discordExecutable", {.processBinary = "Discord"}, "com.hnc.Discord", true},
        IdentityCase{
            "unknownDeclaredIdKept", {.applicationId = "org.example.Dictaphone"}, "org.example.Dictaphone", false},
        IdentityCase{"chromiumExecutable", {.processBinary = "chromium"}, "com.google.Chrome", true},
        IdentityCase{"edgeExecutable", {.processBinary = "msedge"}, "com.microsoft.edgemac", true},
        IdentityCase{"braveExecutable", {.processBinary = "brave-browser"}, "com.brave.Browser", true},
        IdentityCase{"firefoxEsrExecutable", {.processBinary = "firefox-esr"}, "org.mozilla.firefox", true},
        IdentityCase{"teamsForLinuxExecutable", {.processBinary = "teams-for-linux"}, "com.microsoft.teams", true},
        IdentityCase{"zoomLauncherExecutable", {.processBinary = "ZoomLauncher"}, "us.zoom.xos", true},
        IdentityCase{"webexExecutable", {.processBinary = "CiscoCollabHost"}, "com.webex.meetingmanager", true},
        IdentityCase{"slackExecutable", {.processBinary = "slack"}, "com.tinyspeck.slackmacgap", true},
        IdentityCase{"whatsappExecutable", {.processBinary = "whatsapp-for-linux"}, "net.whatsapp.WhatsApp", true},
        IdentityCase{"executableGivenAsPath", {.processBinary = "/opt/zoom/zoom"}, "us.zoom.xos", true},
        IdentityCase{"unknownExecutableNamed", {.processBinary = "someapp"}, "someapp", false},
        IdentityCase{"noExecutableFallsBackToName", {}, "Some App", false},
        IdentityCase{"tapsAnOutput", {.capturesOutput = true, .processBinary = "zoom"}, kSkipped, false},
        IdentityCase{"madeByAModule", {.hasClient = false, .processBinary = "zoom"}, kSkipped, false},
        IdentityCase{"filterRole", {.mediaRole = "filter", .processBinary = "zoom"}, kSkipped, false},
        IdentityCase{"volumeControl", {.applicationId = "org.pulseaudio.pavucontrol"}, kSkipped, false},
        IdentityCase{"gnomeVolumeControl", {.applicationId = "org.gnome.VolumeControl"}, kSkipped, false},
        IdentityCase{"telephonyRateStillCounts", {.sampleRateHz = 8000, .processBinary = "zoom"}, "us.zoom.xos", true}),
    [](const ::testing::TestParamInfo<IdentityCase>& info) { return std::string(info.param.name); });

} // namespace
} // namespace tavrel
