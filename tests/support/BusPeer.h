#pragma once

#include <cstdint>
#include <cstring>
#include <map>
#include <stdexcept>
#include <string>
#include <systemd/sd-bus.h>

#include "OrinLink/system/SdBus.h"

namespace orin::test {

// What the stand-ins and hosts on a private bus share: connecting, serving objects, and reading
// the a{sv} options that most calls carry.

inline void busCheck(int status, const std::string& what) {
  if (status < 0) throw std::runtime_error(what + ": " + std::strerror(-status));
}

// A connection to the bus at `address` that can pass descriptors.
inline sdbus::Bus connectToBus(const std::string& address) {
  sd_bus* bus = nullptr;
  busCheck(sd_bus_new(&bus), "sd_bus_new");
  sdbus::Bus owned(bus);
  sd_bus_set_address(bus, address.c_str());
  sd_bus_set_bus_client(bus, 1);
  sd_bus_negotiate_fds(bus, 1);
  busCheck(sd_bus_start(bus), "connect to " + address);
  return owned;
}

// Serves `vtable` at `path`, or at every path below it with `below`, then owns `name` if given.
inline void serve(sd_bus* bus, const char* name, const char* path, const char* interface,
                  const sd_bus_vtable* vtable, void* userdata = nullptr, bool below = false) {
  busCheck(
      below ? sd_bus_add_fallback_vtable(bus, nullptr, path, interface, vtable, nullptr, userdata)
            : sd_bus_add_object_vtable(bus, nullptr, path, interface, vtable, userdata),
      interface);
  if (name != nullptr) busCheck(sd_bus_request_name(bus, name, 0), name);
}

// An a{sv}'s strings, and its u, i and b values as numbers; other values are skipped.
struct VarDict {
  std::map<std::string, std::string> texts;
  std::map<std::string, std::int64_t> numbers;
};

inline int readVarDict(sd_bus_message* m, VarDict& dict) {
  int r = sd_bus_message_enter_container(m, 'a', "{sv}");
  while (r >= 0 && (r = sd_bus_message_enter_container(m, 'e', "sv")) > 0) {
    const char* key = nullptr;
    const char* type = nullptr;
    r = sd_bus_message_read(m, "s", &key);
    if (r >= 0) r = sd_bus_message_peek_type(m, nullptr, &type);
    if (r < 0) return r;
    if (std::strcmp(type, "s") == 0) {
      const char* text = nullptr;
      r = sd_bus_message_read(m, "v", "s", &text);
      if (r >= 0) dict.texts[key] = text;
    } else if (std::strlen(type) == 1 && std::strchr("uib", type[0]) != nullptr) {
      // All three are read as four bytes; only u is unsigned.
      std::int32_t value = 0;
      r = sd_bus_message_read(m, "v", type, &value);
      dict.numbers[key] = type[0] == 'u' ? std::int64_t{static_cast<std::uint32_t>(value)} : value;
    } else {
      r = sd_bus_message_skip(m, "v");
    }
    if (r >= 0) r = sd_bus_message_exit_container(m);
  }
  return r < 0 ? r : sd_bus_message_exit_container(m);
}

}  // namespace orin::test
