#pragma once

#include <cstdint>
#include <filesystem>
#include <mutex>
#include <optional>
#include <string>
#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>
#include <thread>
#include <utility>
#include <vector>

#include "tests/support/BusPeer.h"

namespace orin::test {

// Plays the desktop portal's ScreenCast interface, with its Request and Session objects, on a
// private bus, from a thread of its own. It owns org.freedesktop.portal.Desktop once constructed.
class PortalStandIn {
 public:
  struct Stream {
    std::uint32_t nodeId = 0;
    std::optional<std::pair<std::int32_t, std::int32_t>> size{};
  };

  struct Behaviour {
    bool screenCast = true;
    std::uint32_t version = 5;
    std::uint32_t sourceTypes = 1 | 4;
    std::uint32_t cursorModes = 1 | 2 | 4;
    std::uint32_t createResponse = 0;
    std::uint32_t selectResponse = 0;
    std::uint32_t startResponse = 0;
    // Start is answered at once, never, or by leaving the bus.
    enum class Start { answer, ignore, vanish } start = Start::answer;
    std::optional<Stream> stream = Stream{42, std::make_pair(1280, 720)};
    // Start hands out "token-1", "token-2"... unless this is off.
    bool handOutTokens = true;
    // Once a token was handed out, SelectSources answers 2 unless it brings that one back.
    bool requireLastToken = false;
    // OpenPipeWireRemote connects to this socket; without it, to a socket pair whose other end
    // says "pipewire".
    std::filesystem::path pipeWireSocket{};
  };

  // What the client sent.
  struct Seen {
    int selects = 0;
    std::uint32_t types = 0;
    std::optional<std::uint32_t> cursorMode;
    std::optional<std::uint32_t> persistMode;
    std::optional<bool> multiple;
    std::optional<std::string> restoreToken;
    int sessionsClosed = 0;
    int requestsClosed = 0;
  };

  PortalStandIn(const std::string& address, Behaviour behaviour);
  ~PortalStandIn();
  PortalStandIn(const PortalStandIn&) = delete;
  PortalStandIn& operator=(const PortalStandIn&) = delete;

  Seen seen() const;

 private:
  friend struct PortalCalls;  // what the bus calls

  int respond(const std::string& request, std::uint32_t code,
              const std::vector<std::pair<std::string, std::string>>& texts,
              bool withStream = false);

  const Behaviour behaviour_;
  sdbus::Bus bus_;
  sd_event* loop_ = nullptr;
  int stopFd_ = -1;
  std::string lastToken_;
  int tokens_ = 0;
  mutable std::mutex mutex_;
  Seen seen_;
  std::thread thread_;
};

}  // namespace orin::test
