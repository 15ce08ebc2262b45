#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <systemd/sd-bus.h>

namespace orin::sdbus {

// Owning handles for sd-bus objects, so that every early return closes what it opened.
struct BusClose {
  void operator()(sd_bus* bus) const { sd_bus_flush_close_unref(bus); }
};
using Bus = std::unique_ptr<sd_bus, BusClose>;

struct MessageUnref {
  void operator()(sd_bus_message* message) const { sd_bus_message_unref(message); }
};
using Message = std::unique_ptr<sd_bus_message, MessageUnref>;

struct SlotUnref {
  void operator()(sd_bus_slot* slot) const { sd_bus_slot_unref(slot); }
};
using Slot = std::unique_ptr<sd_bus_slot, SlotUnref>;

class BusError {
 public:
  BusError() = default;
  BusError(const BusError&) = delete;
  BusError& operator=(const BusError&) = delete;
  ~BusError() { sd_bus_error_free(&error_); }
  sd_bus_error* get() { return &error_; }
  bool isSet() const { return sd_bus_error_is_set(&error_) != 0; }
  std::string name() const { return error_.name != nullptr ? error_.name : ""; }

 private:
  sd_bus_error error_{};
};

enum class BusKind { system, session };

inline constexpr std::uint64_t millisecond = 1000;

// DBUS_SYSTEM_BUS_ADDRESS and DBUS_SESSION_BUS_ADDRESS are honoured, as sd-bus does. Method
// calls on the bus give up after `callTimeout` microseconds: callers run on the main loop.
// On failure the bus is null and `status` holds the negative errno.
Bus open(BusKind kind, std::uint64_t callTimeout, int& status);

// Whether someone owns `name` now or the bus can start it on demand.
bool serviceReachable(sd_bus* bus, const char* name);

// Handles what has arrived and sends what is queued, without waiting for more.
void drain(sd_bus* bus);

// Handles what arrives until `done()` holds (1) or `deadline` passes (0); a negative errno when
// the connection fails.
int processUntil(sd_bus* bus, std::chrono::steady_clock::time_point deadline,
                 const std::function<bool()>& done);

}  // namespace orin::sdbus
