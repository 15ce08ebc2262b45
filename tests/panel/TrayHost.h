#pragma once

#include <chrono>
#include <cstdio>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <systemd/sd-bus.h>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/BusPeer.h"
#include "tests/support/ChildProcess.h"

namespace orin::test {

using Clock = std::chrono::steady_clock;

inline constexpr auto trayBound = std::chrono::seconds(10);

using sdbus::Message;

// The tray host's side: a client of the private bus that can also play the watcher.
class Host {
 public:
  explicit Host(const std::string& address) : bus_(connectToBus(address)) {
    sd_bus* bus = bus_.get();
    sd_bus_add_match(bus, nullptr,
                     "type='signal',sender='org.freedesktop.DBus',member='NameOwnerChanged'",
                     &Host::nameOwnerChanged, this);
    sd_bus_add_match(bus, nullptr, "type='signal',interface='org.kde.StatusNotifierItem'",
                     &Host::itemSignal, this);
    sd_bus_add_match(bus, nullptr, "type='signal',interface='com.canonical.dbusmenu'",
                     &Host::itemSignal, this);
  }

  // Takes the watcher's name and answers registrations, as a tray host does.
  void becomeWatcher() {
    sd_bus_add_object(bus_.get(), nullptr, "/StatusNotifierWatcher", &Host::watcherCall, this);
    ASSERT_GE(sd_bus_request_name(bus_.get(), "org.kde.StatusNotifierWatcher", 0), 0);
  }

  // Handles what arrives until the condition holds; false at the deadline.
  bool waitUntil(const std::function<bool()>& condition) {
    return sdbus::processUntil(bus_.get(), Clock::now() + trayBound, condition) > 0;
  }

  Message call(const std::string& member, const char* types, auto... arguments) {
    sdbus::BusError error;
    sd_bus_message* reply = nullptr;
    EXPECT_GE(sd_bus_call_method(bus_.get(), itemName.c_str(), "/MenuBar", "com.canonical.dbusmenu",
                                 member.c_str(), error.get(), &reply, types, arguments...),
              0)
        << member << ": " << error.name();
    return Message(reply);
  }

  Message property(const char* name, const char* type) {
    sdbus::BusError error;
    sd_bus_message* reply = nullptr;
    EXPECT_GE(sd_bus_get_property(bus_.get(), itemName.c_str(), "/StatusNotifierItem",
                                  "org.kde.StatusNotifierItem", name, error.get(), &reply, type),
              0)
        << name << ": " << error.name();
    return Message(reply);
  }

  // The first pixmap's pixels and each pixmap's size.
  std::pair<std::vector<std::uint8_t>, std::vector<int>> icon() {
    Message reply = property("IconPixmap", "a(iiay)");
    std::vector<std::uint8_t> first;
    std::vector<int> sizes;
    sd_bus_message_enter_container(reply.get(), 'a', "(iiay)");
    while (sd_bus_message_enter_container(reply.get(), 'r', "iiay") > 0) {
      int width = 0, height = 0;
      const void* data = nullptr;
      std::size_t size = 0;
      sd_bus_message_read(reply.get(), "ii", &width, &height);
      sd_bus_message_read_array(reply.get(), 'y', &data, &size);
      EXPECT_EQ(size, static_cast<std::size_t>(width * height * 4));
      if (first.empty()) {
        const auto* bytes = static_cast<const std::uint8_t*>(data);
        first.assign(bytes, bytes + size);
      }
      sizes.push_back(width);
      sd_bus_message_exit_container(reply.get());
    }
    return {first, sizes};
  }

  std::pair<std::string, std::string> tooltip() {
    Message reply = property("ToolTip", "(sa(iiay)ss)");
    const char* title = nullptr;
    const char* text = nullptr;
    sd_bus_message_enter_container(reply.get(), 'r', "sa(iiay)ss");
    sd_bus_message_skip(reply.get(), "sa(iiay)");
    sd_bus_message_read(reply.get(), "ss", &title, &text);
    return {title ? title : "", text ? text : ""};
  }

  struct MenuItem {
    std::int32_t id = 0;
    std::string label;
    bool enabled = true;
    std::optional<std::int32_t> toggleState;
  };
  std::pair<std::uint32_t, std::vector<MenuItem>> menu() {
    Message reply = call("GetLayout", "iias", 0, -1, 0);
    sd_bus_message* m = reply.get();
    std::uint32_t revision = 0;
    std::int32_t root = -1;
    sd_bus_message_read(m, "u", &revision);
    sd_bus_message_enter_container(m, 'r', "ia{sv}av");
    sd_bus_message_read(m, "i", &root);
    EXPECT_EQ(root, 0);
    sd_bus_message_skip(m, "a{sv}");
    std::vector<MenuItem> items;
    sd_bus_message_enter_container(m, 'a', "v");
    while (sd_bus_message_enter_container(m, 'v', "(ia{sv}av)") > 0) {
      MenuItem item;
      sd_bus_message_enter_container(m, 'r', "ia{sv}av");
      sd_bus_message_read(m, "i", &item.id);
      VarDict properties;
      readVarDict(m, properties);
      item.label = properties.texts["label"];
      item.enabled = properties.numbers.try_emplace("enabled", 1).first->second != 0;
      if (const auto state = properties.numbers.find("toggle-state");
          state != properties.numbers.end()) {
        item.toggleState = static_cast<std::int32_t>(state->second);
      }
      sd_bus_message_skip(m, "av");
      sd_bus_message_exit_container(m);
      sd_bus_message_exit_container(m);
      items.push_back(item);
    }
    return {revision, items};
  }

  void click(std::int32_t id) { call("Event", "isvu", id, "clicked", "i", 0, 0u); }

  std::string itemName;    // the tray item's bus name, once it has one
  std::string registered;  // what it registered with the watcher
  std::map<std::string, int> signals;

 private:
  static int nameOwnerChanged(sd_bus_message* m, void* userdata, sd_bus_error*) {
    const char* name = nullptr;
    const char* before = nullptr;
    const char* after = nullptr;
    sd_bus_message_read(m, "sss", &name, &before, &after);
    if (std::string_view(name).starts_with("org.kde.StatusNotifierItem-") && *after != '\0') {
      static_cast<Host*>(userdata)->itemName = name;
    }
    return 0;
  }
  static int itemSignal(sd_bus_message* m, void* userdata, sd_bus_error*) {
    ++static_cast<Host*>(userdata)->signals[sd_bus_message_get_member(m)];
    return 0;
  }
  static int watcherCall(sd_bus_message* m, void* userdata, sd_bus_error*) {
    if (sd_bus_message_is_method_call(m, "org.kde.StatusNotifierWatcher",
                                      "RegisterStatusNotifierItem") == 0) {
      return 0;
    }
    const char* service = nullptr;
    sd_bus_message_read(m, "s", &service);
    static_cast<Host*>(userdata)->registered = service;
    return sd_bus_reply_method_return(m, "");
  }

  sdbus::Bus bus_;
};

}  // namespace orin::test
