#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "OrinLink/system/SdBus.h"

namespace orin::screen {

// A monitor as GNOME's display configuration lists it.
struct MutterMonitor {
  std::string connector;
  std::string vendor;
  std::string product;
  std::string serial;
  // What the desktop's settings call it; empty when it gives no name.
  std::string displayName;
  // The current mode; 0 × 0 when the monitor is off.
  int width = 0;
  int height = 0;
  double refreshRate = 0;
  // The current mode's id, as a configuration names it.
  std::string modeId;
  bool operator==(const MutterMonitor&) const = default;
};

// One area of the desktop and the monitors that show it.
struct MutterLogicalMonitor {
  int x = 0;
  int y = 0;
  double scale = 1;
  std::uint32_t transform = 0;
  bool primary = false;
  std::vector<std::string> connectors;
  bool operator==(const MutterLogicalMonitor&) const = default;
};

struct MutterDisplayState {
  std::uint32_t serial = 0;
  std::vector<MutterMonitor> monitors;
  std::vector<MutterLogicalMonitor> layout;
};

// GNOME's own screen-cast and display-configuration services on the session bus. Every call
// blocks for at most `timeout` and throws DisplayCaptureError.
class MutterScreenCast {
 public:
  // One running screen cast. It belongs to the bus connection that made it: destroying this
  // stops it, and so does the process dying, which takes a virtual monitor away with it.
  class Session {
   public:
    ~Session();
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;
    // The PipeWire node that carries the frames.
    std::uint32_t nodeId() const { return nodeId_; }

   private:
    friend class MutterScreenCast;
    Session() = default;
    sdbus::Bus bus_;
    std::string path_;
    std::uint32_t nodeId_ = 0;
  };

  explicit MutterScreenCast(std::chrono::milliseconds timeout = std::chrono::seconds(5));

  // Whether the screen-cast service answers, and whether it can make virtual monitors.
  bool isAvailable();
  bool canRecordVirtual();
  std::vector<MutterMonitor> monitors() { return displayState().monitors; }
  MutterDisplayState displayState();
  // Lays the desktop out anew for this login session only (the user's stored layout stays), each
  // monitor in the mode `modes` gives it. `serial` is that of the state it changes.
  void applyLayout(std::uint32_t serial, const std::vector<MutterLogicalMonitor>& layout,
                   const std::vector<MutterMonitor>& modes);

  // The monitor on `connector`, cursor drawn in.
  std::unique_ptr<Session> recordMonitor(const std::string& connector);
  // A new monitor beside the desktop, as large as the stream's consumer asks.
  std::unique_ptr<Session> recordVirtual();

 private:
  // Null when there is no session bus.
  sdbus::Bus openBus() const;
  sdbus::Bus connect();
  std::unique_ptr<Session> record(bool isVirtual, const std::string& connector);

  std::chrono::milliseconds timeout_;
};

// The monitors of `after` that `before` does not have, by connector.
std::vector<MutterMonitor> addedMonitors(const std::vector<MutterMonitor>& before,
                                         const std::vector<MutterMonitor>& after);

}  // namespace orin::screen
