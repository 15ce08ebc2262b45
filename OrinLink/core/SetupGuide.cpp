#include "OrinLink/core/SetupGuide.h"

#include <algorithm>
#include <cmath>

namespace orin {

namespace {

// The pieces between separators, empty ones left out.
std::vector<std::string_view> pieces(std::string_view text, char separator) {
  std::vector<std::string_view> result;
  std::size_t start = 0;
  while (start <= text.size()) {
    const std::size_t end = std::min(text.find(separator, start), text.size());
    if (end > start) result.push_back(text.substr(start, end - start));
    start = end + 1;
  }
  return result;
}

}  // namespace

std::string defaultModelForMemory(std::uint64_t physicalMemoryGB) {
  if (physicalMemoryGB >= 32) return "gemma4:26b";
  if (physicalMemoryGB >= 18) return "gemma4:12b";
  return "gemma4:e4b";
}

std::string recommendationSentence(std::uint64_t physicalMemoryGB) {
  return "Recommended for " + std::to_string(physicalMemoryGB) +
         " GB of memory: " + defaultModelForMemory(physicalMemoryGB) + ".";
}

std::string shortModelName(std::string_view model) {
  std::string_view name = model;
  if (const auto parts = pieces(name, '/'); !parts.empty()) name = parts.back();
  if (const auto parts = pieces(name, ':'); !parts.empty()) name = parts.front();
  return std::string(name);
}

std::optional<SetupIssue> setupIssue(const StateSnapshot& state) {
  using Kind = SetupIssue::Kind;
  if (!state.isServerRunning) {
    return SetupIssue{Kind::serverStopped, "Server is stopped",
                      "Start the Orin Link server so your devices can reach this Mac.",
                      "Start Server", std::nullopt};
  }
  if (!state.isOllamaAvailable && state.installState != OllamaInstallState::notInstalled) {
    return SetupIssue{Kind::ollamaNotRunning, "Ollama isn't running",
                      "Ollama is installed but not running right now. Start it and Orin Link will "
                      "connect on its own. (It looks for Ollama at " +
                          state.baseURLText + ").",
                      "Start Ollama", "ollama serve"};
  }
  if (!state.isOllamaAvailable) {
    return SetupIssue{
        Kind::ollamaNotInstalled, "Ollama isn't installed yet",
        "Orin Link uses Ollama to run models on this Mac. It's a free download \u2014 "
        "install it and open it once, and Orin Link will pick it up automatically.",
        "Download Ollama", std::nullopt};
  }
  if (!state.isActiveModelInstalled) {
    return SetupIssue{Kind::modelMissing, state.activeModel + " isn't downloaded yet",
                      "Ollama is running, but this model isn't on this Mac yet. Download it here "
                      "and keep using your Mac meanwhile. " +
                          recommendationSentence(state.physicalMemoryGB),
                      "Download Model", "ollama pull " + state.activeModel};
  }
  if (state.pairedDevices == 0) {
    return SetupIssue{
        Kind::noDevicePaired, "No device paired yet",
        "Pair your Vision Pro, iPhone, or iPad by scanning or entering the pairing code.",
        "New Code", std::nullopt};
  }
  if (state.stream.isEnabled && state.stream.blocked) {
    switch (*state.stream.blocked) {
      case StreamBlock::sharingDeclined:
        return SetupIssue{Kind::screenSharingBlocked, "Screen sharing was declined",
                          "Your desktop asks before it lets Orin Link share the screen with your "
                          "headset. Ask again and choose a screen to share.",
                          "Ask Again", std::nullopt};
      case StreamBlock::pipeWireMissing:
        return SetupIssue{Kind::screenSharingBlocked, "PipeWire isn't running",
                          "This desktop shares its screen through PipeWire. Install PipeWire and "
                          "WirePlumber, log out and in again, then check again.",
                          "Check Again", "sudo apt install pipewire wireplumber"};
      case StreamBlock::screenCastMissing:
        return SetupIssue{Kind::screenSharingBlocked, "This desktop can't share its screen yet",
                          "Streaming on Wayland needs your desktop's portal "
                          "(xdg-desktop-portal-gnome, -kde or -wlr). Install it, log out and in "
                          "again, then check again.",
                          "Check Again", std::nullopt};
    }
  }
  return std::nullopt;
}

std::string presenceSentence(const StateSnapshot& state) {
  if (state.activeGenerations >= 1) {
    return "Answering " + state.busyDeviceName.value_or("a device") + "\u2026";
  }
  if (state.stream.isCapturing && !state.stream.clients.empty()) {
    return "Streaming your desktop to " + state.stream.clients.front() + ".";
  }
  if (auto issue = setupIssue(state)) return issue->title;
  const std::string model = shortModelName(state.activeModel);
  if (!state.isModelResident) return "Orin's ready \u2014 " + model + " loads on first use.";
  return "Orin's ready \u2014 " + model + " is loaded and warm.";
}

OrbMood orbMood(const StateSnapshot& state) {
  if (state.activeGenerations > 0) return OrbMood::thinking;
  if (state.stream.isCapturing) return OrbMood::streaming;
  if (!state.isServerRunning) return OrbMood::dormant;
  return setupIssue(state) ? OrbMood::dormant : OrbMood::idle;
}

std::optional<std::string> statsLine(const StateSnapshot& state) {
  std::vector<std::string> parts;
  if (state.tokensPerSecond) {
    const std::string rate = std::to_string(std::llround(*state.tokensPerSecond));
    parts.push_back(state.activeGenerations >= 1 ? rate + " tokens/s right now"
                                                 : "last reply " + rate + " tokens/s");
  }
  if (state.repliesToday >= 1) {
    parts.push_back(std::to_string(state.repliesToday) +
                    (state.repliesToday == 1 ? " reply" : " replies") + " today");
  }
  if (parts.empty()) return std::nullopt;
  std::string line = parts.front();
  for (std::size_t i = 1; i < parts.size(); ++i)
    line += " \u00b7 " + parts[i];
  return line;
}

std::string streamStatusValue(const StateSnapshot& state) {
  if (!state.stream.isEnabled) return "Off";
  if (state.stream.clients.empty()) return "Waiting";
  return "Streaming (" + std::to_string(state.stream.clients.size()) + ")";
}

std::optional<std::string> badgeText(std::size_t streamClients, std::int64_t activeGenerations) {
  const std::int64_t count = static_cast<std::int64_t>(streamClients) + activeGenerations;
  if (count < 1) return std::nullopt;
  return std::to_string(count);
}

}  // namespace orin
