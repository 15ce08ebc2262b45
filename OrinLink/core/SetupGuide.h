#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "OrinLinkShared/AIRecords.h"
#include "OrinLinkShared/Enum.h"

namespace orin {

enum class OllamaInstallState { running, installed, notInstalled };

// The one thing that most stands in the way of serving devices, with its fix.
struct SetupIssue {
  enum class Kind {
    serverStopped,
    ollamaNotInstalled,
    ollamaNotRunning,
    modelMissing,
    noDevicePaired,
    screenSharingBlocked
  };

  Kind kind = Kind::serverStopped;
  std::string title;
  std::string message;
  std::string actionTitle;
  // A terminal command that does the same, where one exists.
  std::optional<std::string> copyCommand;

  bool operator==(const SetupIssue&) const = default;
};

template <>
struct EnumTraits<SetupIssue::Kind> {
  static constexpr std::array<std::string_view, 6> rawValues{
      "serverStopped", "ollamaNotInstalled", "ollamaNotRunning",
      "modelMissing",  "noDevicePaired",     "screenSharingBlocked"};
};

// What keeps a Wayland desktop from sharing its screen.
enum class StreamBlock { sharingDeclined, pipeWireMissing, screenCastMissing };

// How the orb moves.
enum class OrbMood { dormant, idle, thinking, streaming };

template <>
struct EnumTraits<OrbMood> {
  static constexpr std::array<std::string_view, 4> rawValues{"dormant", "idle", "thinking",
                                                             "streaming"};
};

// A facility of this machine that the application could not find.
enum class MissingFacility {
  sleepPrevention,
  loginItem,
  notifications,
  sound,
  presence,
  graphicalSession,
  discovery
};

// The values the derived views read, copied out of the application state so that the views are
// plain functions.
struct StateSnapshot {
  bool isServerRunning = false;
  std::uint16_t serverPort = 0;
  std::optional<std::string> serverError;

  bool isOllamaAvailable = false;
  OllamaInstallState installState = OllamaInstallState::notInstalled;
  std::optional<std::string> ollamaError;
  std::string activeModel;
  bool isActiveModelInstalled = false;
  std::string baseURLText;
  std::uint64_t physicalMemoryGB = 0;
  bool isModelResident = false;

  std::size_t pairedDevices = 0;
  std::int64_t activeGenerations = 0;
  std::optional<std::string> busyDeviceName;
  std::optional<double> tokensPerSecond;
  std::int64_t repliesToday = 0;

  bool reliabilityModeEnabled = false;
  bool startAtLoginEnabled = false;
  std::string lastEvent;
  std::optional<std::string> availabilityError;
  std::vector<OrinLinkEndpoint> endpoints;

  struct Stream {
    bool isEnabled = false;
    // Capture and encoding run: what "streaming" means to the orb.
    bool isCapturing = false;
    std::vector<std::string> clients;
    std::uint16_t port = 0;
    std::string statusText = "Streaming is off.";
    std::optional<std::string> error;
    // How the screen is captured, or why it cannot be; empty until first asked.
    std::string capture;
    // What a Wayland desktop lacks for streaming, while it lacks it.
    std::optional<StreamBlock> blocked;
    // Why no virtual display can be made here; nothing while one can.
    std::optional<std::string> virtualDisplayProblem;
  };
  Stream stream;

  std::vector<MissingFacility> missingFacilities;
};

std::optional<SetupIssue> setupIssue(const StateSnapshot& state);
std::string presenceSentence(const StateSnapshot& state);
OrbMood orbMood(const StateSnapshot& state);
// Speed and the day's count; nothing when neither is known yet.
std::optional<std::string> statsLine(const StateSnapshot& state);
std::string streamStatusValue(const StateSnapshot& state);

// "library/gemma4:12b" is "gemma4".
std::string shortModelName(std::string_view model);
// Which model suits a machine with this much memory, as a sentence.
std::string recommendationSentence(std::uint64_t physicalMemoryGB);
// The count of busy things on the tray badge; nothing when idle.
std::optional<std::string> badgeText(std::size_t streamClients, std::int64_t activeGenerations);

// The model recommended for a machine with this much memory (rounded GiB).
std::string defaultModelForMemory(std::uint64_t physicalMemoryGB);

}  // namespace orin
