#include "OrinLink/system/SdBus.h"

#include <cerrno>
#include <cstring>

namespace orin::sdbus {

Bus open(BusKind kind, std::uint64_t callTimeout, int& status) {
  sd_bus* bus = nullptr;
  status = kind == BusKind::system ? sd_bus_open_system(&bus) : sd_bus_open_user(&bus);
  if (status < 0) return nullptr;
  Bus owned(bus);
  status = sd_bus_set_method_call_timeout(bus, callTimeout);
  if (status < 0) return nullptr;
  return owned;
}

namespace {

constexpr const char* busName = "org.freedesktop.DBus";
constexpr const char* busPath = "/org/freedesktop/DBus";

bool hasOwner(sd_bus* bus, const char* name) {
  BusError error;
  sd_bus_message* reply = nullptr;
  if (sd_bus_call_method(bus, busName, busPath, busName, "NameHasOwner", error.get(), &reply, "s",
                         name) < 0) {
    return false;
  }
  const Message answer(reply);
  int owned = 0;
  return sd_bus_message_read(reply, "b", &owned) >= 0 && owned != 0;
}

bool activatable(sd_bus* bus, const char* name) {
  BusError error;
  sd_bus_message* reply = nullptr;
  if (sd_bus_call_method(bus, busName, busPath, busName, "ListActivatableNames", error.get(),
                         &reply, "") < 0) {
    return false;
  }
  const Message answer(reply);
  if (sd_bus_message_enter_container(reply, 'a', "s") < 0) return false;
  const char* listed = nullptr;
  while (sd_bus_message_read(reply, "s", &listed) > 0) {
    if (std::strcmp(listed, name) == 0) return true;
  }
  return false;
}

}  // namespace

bool serviceReachable(sd_bus* bus, const char* name) {
  return hasOwner(bus, name) || activatable(bus, name);
}

void drain(sd_bus* bus) {
  while (sd_bus_process(bus, nullptr) > 0) {
  }
}

int processUntil(sd_bus* bus, std::chrono::steady_clock::time_point deadline,
                 const std::function<bool()>& done) {
  while (!done()) {
    const int handled = sd_bus_process(bus, nullptr);
    if (handled < 0) return handled;
    if (handled > 0) continue;
    const auto left = std::chrono::duration_cast<std::chrono::microseconds>(
        deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) return 0;
    const int waited = sd_bus_wait(bus, static_cast<std::uint64_t>(left.count()));
    if (waited < 0 && waited != -EINTR) return waited;
  }
  return 1;
}

}  // namespace orin::sdbus
