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

#include "tests/support/ChildProcess.h"

namespace orin::test {

using Clock = std::chrono::steady_clock;

inline constexpr auto trayBound = std::chrono::seconds(10);

struct BusDeleter {
  void operator()(sd_bus* bus) const { sd_bus_flush_close_unref(bus); }
};
struct MessageDeleter {
  void operator()(sd_bus_message* message) const { sd_bus_message_unref(message); }
};
using Message = std::unique_ptr<sd_bus_message, MessageDeleter>;

// The tray host's side: a client of the private bus that can also play the watcher.
class Host {
 public:
  explicit Host(const std::string& address) {
    sd_bus* bus = nullptr;
    EXPECT_GE(sd_bus_new(&bus), 0);
    sd_bus_set_address(bus, address.c_str());
    sd_bus_set_bus_client(bus, 1);
    EXPECT_GE(sd_bus_start(bus), 0);
    bus_.reset(bus);
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
    const auto deadline = Clock::now() + trayBound;
    for (;;) {
      while (sd_bus_process(bus_.get(), nullptr) > 0) {
      }
      if (condition()) return true;
      const auto left = deadline - Clock::now();
      if (left <= Clock::duration::zero()) return false;
      sd_bus_wait(bus_.get(),
                  static_cast<std::uint64_t>(
                      std::chrono::duration_cast<std::chrono::microseconds>(left).count()));
    }
  }

  Message call(const std::string& member, const char* types, auto... arguments) {
    sd_bus_error error = SD_BUS_ERROR_NULL;
    sd_bus_message* reply = nullptr;
    const int status =
        sd_bus_call_method(bus_.get(), itemName.c_str(), "/MenuBar", "com.canonical.dbusmenu",
                           member.c_str(), &error, &reply, types, arguments...);
    EXPECT_GE(status, 0) << member << ": " << (error.message ? error.message : "");
    sd_bus_error_free(&error);
    return Message(reply);
  }

  Message property(const char* name, const char* type) {
    sd_bus_error error = SD_BUS_ERROR_NULL;
    sd_bus_message* reply = nullptr;
    const int status =
        sd_bus_get_property(bus_.get(), itemName.c_str(), "/StatusNotifierItem",
                            "org.kde.StatusNotifierItem", name, &error, &reply, type);
    EXPECT_GE(status, 0) << name << ": " << (error.message ? error.message : "");
    sd_bus_error_free(&error);
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
    const char* icon = nullptr;
    const char* title = nullptr;
    const char* text = nullptr;
    sd_bus_message_enter_container(reply.get(), 'r', "sa(iiay)ss");
    sd_bus_message_read(reply.get(), "s", &icon);
    sd_bus_message_skip(reply.get(), "a(iiay)");
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
      sd_bus_message_enter_container(m, 'a', "{sv}");
      while (sd_bus_message_enter_container(m, 'e', "sv") > 0) {
        const char* key = nullptr;
        sd_bus_message_read(m, "s", &key);
        const std::string name = key;
        if (name == "label") {
          const char* label = nullptr;
          sd_bus_message_read(m, "v", "s", &label);
          item.label = label;
        } else if (name == "enabled") {
          int on = 1;
          sd_bus_message_read(m, "v", "b", &on);
          item.enabled = on != 0;
        } else if (name == "toggle-state") {
          std::int32_t state = 0;
          sd_bus_message_read(m, "v", "i", &state);
          item.toggleState = state;
        } else {
          sd_bus_message_skip(m, "v");
        }
        sd_bus_message_exit_container(m);
      }
      sd_bus_message_exit_container(m);
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

  std::unique_ptr<sd_bus, BusDeleter> bus_;
};

}  // namespace orin::test
