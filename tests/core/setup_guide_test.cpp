#include <gtest/gtest.h>

#include "OrinLink/core/Diagnostics.h"
#include "OrinLink/core/SetupGuide.h"

#include "tests/support/FakeDesktopIntegration.h"

namespace orin {
namespace {

using Kind = SetupIssue::Kind;

// Everything in order: nothing stands in the way.
StateSnapshot ready() {
  StateSnapshot s;
  s.isServerRunning = true;
  s.serverPort = 38141;
  s.isOllamaAvailable = true;
  s.installState = OllamaInstallState::running;
  s.activeModel = "gemma4:12b";
  s.isActiveModelInstalled = true;
  s.baseURLText = "http://localhost:11434";
  s.physicalMemoryGB = 24;
  s.pairedDevices = 1;
  s.lastEvent = "Ollama is ready with gemma4:12b.";
  return s;
}

template <class... Change>
StateSnapshot readyBut(Change... changes) {
  StateSnapshot s = ready();
  (changes(s), ...);
  return s;
}

TEST(SetupGuide, TheFirstProblemInOrderIsTheIssue) {
  const auto stopped = [](StateSnapshot& s) { s.isServerRunning = false; };
  const auto ollamaGone = [](StateSnapshot& s) {
    s.isOllamaAvailable = false;
    s.installState = OllamaInstallState::notInstalled;
    s.isActiveModelInstalled = false;
  };
  const auto ollamaStopped = [&](StateSnapshot& s) {
    ollamaGone(s);
    s.installState = OllamaInstallState::installed;
  };
  const auto modelMissing = [](StateSnapshot& s) { s.isActiveModelInstalled = false; };
  const auto unpaired = [](StateSnapshot& s) { s.pairedDevices = 0; };
  const auto declined = [](StateSnapshot& s) {
    s.stream.isEnabled = true;
    s.stream.blocked = StreamBlock::sharingDeclined;
  };
  struct Case {
    std::string name;
    StateSnapshot state;
    std::optional<Kind> kind;
  };
  const Case cases[] = {
      {"all set", ready(), std::nullopt},
      {"stopped and no Ollama", readyBut(stopped, ollamaGone), Kind::serverStopped},
      {"stopped", readyBut(stopped), Kind::serverStopped},
      {"not installed and unpaired", readyBut(ollamaGone, unpaired), Kind::ollamaNotInstalled},
      {"installed, not running", readyBut(ollamaStopped), Kind::ollamaNotRunning},
      {"model missing and unpaired", readyBut(modelMissing, unpaired), Kind::modelMissing},
      {"unpaired", readyBut(unpaired), Kind::noDevicePaired},
      {"sharing declined while unpaired", readyBut(unpaired, declined), Kind::noDevicePaired},
      {"sharing declined", readyBut(declined), Kind::screenSharingBlocked},
      {"declined, streaming off", readyBut(declined, [](auto& s) { s.stream.isEnabled = false; }),
       std::nullopt},
  };
  for (const auto& c : cases) {
    const auto issue = setupIssue(c.state);
    EXPECT_EQ(issue ? std::optional(issue->kind) : std::nullopt, c.kind) << c.name;
  }
}

TEST(SetupGuide, PresenceAndMoodFollowWhatIsHappening) {
  const auto streaming = [](StateSnapshot& s) {
    s.stream.isEnabled = true;
    s.stream.isCapturing = true;
    s.stream.clients = {"Vantaro", "Desk"};
  };
  struct Case {
    std::string name;
    StateSnapshot state;
    std::string sentence;
    OrbMood mood;
  };
  const Case cases[] = {
      {"answering while streaming",
       readyBut(streaming,
                [](auto& s) {
                  s.activeGenerations = 1;
                  s.busyDeviceName = "Phone";
                }),
       "Answering Phone\u2026", OrbMood::thinking},
      {"answering someone unnamed", readyBut([](auto& s) { s.activeGenerations = 2; }),
       "Answering a device\u2026", OrbMood::thinking},
      {"streaming", readyBut(streaming), "Streaming your desktop to Vantaro.", OrbMood::streaming},
      {"capturing for nobody", readyBut([](auto& s) {
         s.stream.isCapturing = true;
         s.pairedDevices = 0;
       }),
       "No device paired yet", OrbMood::streaming},
      {"clients but no capture yet", readyBut([](auto& s) { s.stream.clients = {"Vantaro"}; }),
       "Orin's ready \u2014 gemma4 loads on first use.", OrbMood::idle},
      {"stopped", readyBut([](auto& s) { s.isServerRunning = false; }), "Server is stopped",
       OrbMood::dormant},
      {"an issue", readyBut([](auto& s) { s.pairedDevices = 0; }), "No device paired yet",
       OrbMood::dormant},
      {"warm", readyBut([](auto& s) { s.isModelResident = true; }),
       "Orin's ready \u2014 gemma4 is loaded and warm.", OrbMood::idle},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(presenceSentence(c.state), c.sentence);
    EXPECT_EQ(orbMood(c.state), c.mood);
  }
}

TEST(SetupGuide, PanelTextsCountWhatHappened) {
  struct Case {
    std::optional<double> rate;
    std::int64_t active;
    std::int64_t replies;
    std::optional<std::string> line;
  };
  const Case cases[] = {
      {std::nullopt, 0, 0, std::nullopt},
      {41.5, 0, 0, "last reply 42 tokens/s"},
      {41.4, 1, 1, "41 tokens/s right now \u00b7 1 reply today"},
      {std::nullopt, 0, 3, "3 replies today"},
  };
  for (const auto& c : cases) {
    const auto state = readyBut([&](auto& s) {
      s.tokensPerSecond = c.rate;
      s.activeGenerations = c.active;
      s.repliesToday = c.replies;
    });
    EXPECT_EQ(statsLine(state), c.line);
  }

  struct Stream {
    bool enabled;
    std::vector<std::string> clients;
    std::string value;
  };
  const Stream streams[] = {
      {false, {}, "Off"}, {true, {}, "Waiting"}, {true, {"A", "B"}, "Streaming (2)"}};
  for (const auto& c : streams) {
    const auto state = readyBut([&](auto& s) {
      s.stream.isEnabled = c.enabled;
      s.stream.clients = c.clients;
    });
    EXPECT_EQ(streamStatusValue(state), c.value);
  }

  const std::pair<std::string, std::string> names[] = {
      {"gemma4:12b", "gemma4"}, {"library/gemma4:12b", "gemma4"},
      {":latest", "latest"},    {"///", "///"},
      {"hf.co/x/y:Q4", "y"},
  };
  for (const auto& [model, shortName] : names)
    EXPECT_EQ(shortModelName(model), shortName) << model;

  EXPECT_EQ(badgeText(2, 1), std::optional<std::string>("3"));
  EXPECT_EQ(badgeText(0, 0), std::nullopt);
}

TEST(Diagnostics, TheReportNamesEverythingInItsOrder) {
  StateSnapshot s = ready();
  s.pairedDevices = 2;
  s.reliabilityModeEnabled = true;
  s.stream.isEnabled = true;
  s.stream.port = 38142;
  s.stream.statusText = "Streaming to Vantaro.";
  s.stream.capture = "GNOME screen cast through PipeWire";
  s.ollamaError = "Could not connect to the server.";
  s.availabilityError = "Start at Login: Permission denied";
  s.missingFacilities = {MissingFacility::notifications, MissingFacility::presence,
                         MissingFacility::discovery};
  s.endpoints = {
      {Uuid::random(), "Local 192.168.1.20", "192.168.1.20", 38141,
       OrinLinkConnectionKind::localNetwork, false},
      {Uuid::random(), "Tailscale", "desk.tail0.ts.net", 38141, OrinLinkConnectionKind::tailscale,
       false},
  };
  EXPECT_EQ(diagnosticSummary(s), R"(Orin Link Diagnostics
Server: running on port 38141
Runtime: Ollama reachable
Active model: gemma4:12b
Ollama base URL: http://localhost:11434
Paired devices: 2
Reliability Mode: on
Start at Login: off
Screen streaming: enabled on port 38142
Streaming status: Streaming to Vantaro.
Streaming error: none
Capture: GNOME screen cast through PipeWire
Virtual displays: available
Last event: Ollama is ready with gemma4:12b.
Server error: none
Ollama error: Could not connect to the server.
Availability error: Start at Login: Permission denied
Missing on this machine: notifications, tray icon, network discovery

Endpoints:
- Local 192.168.1.20: 192.168.1.20:38141 [localNetwork]
- Tailscale: desk.tail0.ts.net:38141 [tailscale])");

  const std::string bare = diagnosticSummary(StateSnapshot{});
  EXPECT_NE(bare.find("\nScreen streaming: off\nStreaming status: Streaming is off.\n"),
            std::string::npos);
  EXPECT_TRUE(bare.ends_with("Availability error: none\n\nEndpoints:\n- none detected")) << bare;
}

TEST(Diagnostics, AFacilityIsMissingWhenAbsentOrUnavailable) {
  auto record = std::make_shared<test::DesktopRecord>();
  DesktopIntegration desktop = test::makeFakeDesktop(record);
  EXPECT_TRUE(missingFacilities(desktop, true).empty());
  EXPECT_TRUE(missingFacilities(desktop, std::nullopt).empty());
  desktop.sound.reset();
  desktop.availability.notifications = false;
  EXPECT_EQ(missingFacilities(desktop, false),
            (std::vector<MissingFacility>{MissingFacility::notifications, MissingFacility::sound,
                                          MissingFacility::discovery}));
}

}  // namespace
}  // namespace orin
