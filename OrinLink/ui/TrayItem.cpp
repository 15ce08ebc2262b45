#include "OrinLink/ui/TrayItem.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <poll.h>
#include <systemd/sd-bus.h>
#include <unistd.h>
#include <variant>

#include <boost/asio/posix/stream_descriptor.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>

#include "OrinLink/core/AppState.h"
#include "OrinLink/core/SetupGuide.h"

namespace orin {

namespace asio = boost::asio;

namespace {

constexpr const char* itemInterface = "org.kde.StatusNotifierItem";
constexpr const char* menuInterface = "com.canonical.dbusmenu";
constexpr const char* watcherName = "org.kde.StatusNotifierWatcher";
constexpr const char* watcherPath = "/StatusNotifierWatcher";
constexpr const char* appTitle = "Orin Link";
constexpr int iconSizes[] = {22, 44};

// The menu, flat under the root (id 0).
enum MenuID : std::int32_t {
  rootMenu = 0,
  openItem,
  firstSeparator,
  newCodeItem,
  serverItem,
  streamingItem,
  secondSeparator,
  quitItem
};

struct MenuEntry {
  std::int32_t id = rootMenu;
  std::string label;
  bool enabled = true;
  bool separator = false;
  std::optional<std::int32_t> toggleState;
};

MenuEntry item(std::int32_t id, std::string label, bool enabled = true,
               std::optional<std::int32_t> toggleState = std::nullopt) {
  MenuEntry entry;
  entry.id = id;
  entry.label = std::move(label);
  entry.enabled = enabled;
  entry.toggleState = toggleState;
  return entry;
}

MenuEntry separator(std::int32_t id) {
  MenuEntry entry;
  entry.id = id;
  entry.separator = true;
  return entry;
}

struct Colour {
  double r, g, b;
};

Colour mix(Colour a, Colour b, double t) {
  return {a.r + (b.r - a.r) * t, a.g + (b.g - a.g) * t, a.b + (b.b - a.b) * t};
}

constexpr Colour hex(std::uint32_t rgb) {
  return {static_cast<double>((rgb >> 16) & 0xFF) / 255.0,
          static_cast<double>((rgb >> 8) & 0xFF) / 255.0, static_cast<double>(rgb & 0xFF) / 255.0};
}

struct Palette {
  Colour centre, middle, edge;
};

// The panel's orb colours, the edges lifted so that the icon reads on a dark bar too.
Palette paletteFor(std::string_view mood) {
  if (mood == "idle") return {hex(0x7fe0ea), hex(0x2f8fb4), hex(0x1d4a6b)};
  if (mood == "thinking") return {hex(0xf2b8ff), hex(0x8a5cf0), hex(0x3d2378)};
  if (mood == "streaming") return {hex(0x9ff3ff), hex(0x2f7fe0), hex(0x173a7a)};
  return {hex(0xaab2c2), hex(0x687080), hex(0x3a3f4b)};
}

std::uint8_t byte(double value) {
  return static_cast<std::uint8_t>(std::lround(std::clamp(value, 0.0, 1.0) * 255.0));
}

std::uint64_t monotonicMicroseconds() {
  timespec now{};
  ::clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<std::uint64_t>(now.tv_sec) * 1'000'000u +
         static_cast<std::uint64_t>(now.tv_nsec) / 1'000u;
}

}  // namespace

std::vector<std::uint8_t> orbIcon(std::string_view mood, int size, bool badge) {
  const Palette palette = paletteFor(mood);
  const double s = size;
  const double radius = s * 0.46;
  const double dotX = s * 0.78, dotY = s * 0.22, dotRadius = s * 0.2;
  std::vector<std::uint8_t> pixels;
  pixels.reserve(static_cast<std::size_t>(size * size) * 4);
  for (int y = 0; y < size; ++y) {
    for (int x = 0; x < size; ++x) {
      const double px = x + 0.5, py = y + 0.5;
      const double distance = std::hypot(px - s / 2, py - s / 2);
      double alpha = std::clamp(radius - distance + 0.5, 0.0, 1.0);
      const double t = std::clamp(std::hypot(px - s / 2, py - s * 0.55) / radius, 0.0, 1.0);
      Colour colour = t < 0.52 ? mix(palette.centre, palette.middle, t / 0.52)
                               : mix(palette.middle, palette.edge, (t - 0.52) / 0.48);
      const double shine = std::max(0.0, 1 - std::hypot(px - s * 0.35, py - s * 0.27) / (s * 0.2));
      colour = mix(colour, {1, 1, 1}, shine * 0.55);
      if (badge) {
        // A warm dot in the corner, cut out of the orb by a transparent ring so it reads at 16px.
        const double fromDot = std::hypot(px - dotX, py - dotY);
        const double ring = std::clamp(dotRadius + s * 0.07 - fromDot + 0.5, 0.0, 1.0);
        const double dot = std::clamp(dotRadius - fromDot + 0.5, 0.0, 1.0);
        alpha *= 1 - ring;
        colour = mix(colour, hex(0xf0a848), dot);
        alpha = std::max(alpha, dot);
      }
      pixels.push_back(byte(alpha));
      pixels.push_back(byte(colour.r));
      pixels.push_back(byte(colour.g));
      pixels.push_back(byte(colour.b));
    }
  }
  return pixels;
}

struct TrayItem::Impl : std::enable_shared_from_this<Impl> {
  asio::any_io_executor main;
  sd_bus* bus = nullptr;
  std::optional<asio::posix::stream_descriptor> descriptor;
  std::optional<asio::steady_timer> timer;
  bool readArmed = false;
  bool writeArmed = false;
  std::vector<sd_bus_slot*> slots;
  std::string name;
  bool nameAcquired = false;
  std::string registeredName;
  TrayState state;
  std::optional<std::string> badge;
  TrayActions actions;
  std::uint32_t revision = 1;
  // Following the application.
  std::weak_ptr<AppState> app;
  std::uint64_t subscription = 0;
  bool refreshScheduled = false;

  explicit Impl(asio::any_io_executor executor) : main(std::move(executor)) {}
  ~Impl() { close(); }

  void close() {
    for (sd_bus_slot* slot : slots)
      sd_bus_slot_unref(slot);
    slots.clear();
    descriptor.reset();
    timer.reset();
    // Closing is enough for the tray host: it forgets an item whose name leaves the bus.
    if (bus != nullptr) sd_bus_close_unref(bus);
    bus = nullptr;
    registeredName.clear();
  }

  // Handles everything that has arrived, then waits for more without blocking the loop.
  void pump() {
    if (bus == nullptr) return;
    for (;;) {
      const int processed = sd_bus_process(bus, nullptr);
      if (processed < 0) {
        close();
        return;
      }
      if (processed == 0) break;
    }
    arm();
  }

  void arm() {
    if (bus == nullptr) return;
    const int events = sd_bus_get_events(bus);
    if (events < 0) {
      close();
      return;
    }
    awaitDescriptor(asio::posix::stream_descriptor::wait_read, &Impl::readArmed);
    if ((events & POLLOUT) != 0) {
      awaitDescriptor(asio::posix::stream_descriptor::wait_write, &Impl::writeArmed);
    }
    std::uint64_t until = 0;
    if (sd_bus_get_timeout(bus, &until) >= 0 && until != UINT64_MAX) {
      const std::uint64_t now = monotonicMicroseconds();
      timer->expires_after(std::chrono::microseconds(until > now ? until - now : 0));
      timer->async_wait([weak = weak_from_this()](const boost::system::error_code& error) {
        auto self = weak.lock();
        if (self && !error) self->pump();
      });
    }
  }

  // At most one wait per direction; `armed` says one is pending.
  void awaitDescriptor(asio::posix::stream_descriptor::wait_type direction, bool Impl::*armed) {
    if (this->*armed) return;
    this->*armed = true;
    descriptor->async_wait(
        direction, [weak = weak_from_this(), armed](const boost::system::error_code& error) {
          auto self = weak.lock();
          if (!self) return;
          self.get()->*armed = false;
          if (!error) self->pump();
        });
  }

  void keep(sd_bus_slot* slot) { slots.push_back(slot); }

  std::string title() const {
    return badge ? std::string(appTitle) + " · " + *badge + " busy" : std::string(appTitle);
  }

  std::vector<MenuEntry> menu() const {
    return {item(openItem, "Open Orin Link"),
            separator(firstSeparator),
            item(newCodeItem, "New Code"),
            item(serverItem, state.serverRunning ? "Stop Server" : "Start Server"),
            item(streamingItem, "Screen Streaming", state.streamingEnabled.has_value(),
                 state.streamingEnabled.value_or(false) ? 1 : 0),
            separator(secondSeparator),
            item(quitItem, "Quit")};
  }

  void run(std::int32_t id) {
    std::function<void()> action;
    switch (id) {
      case openItem:
        action = actions.open;
        break;
      case newCodeItem:
        action = actions.newCode;
        break;
      case serverItem:
        action = actions.toggleServer;
        break;
      case streamingItem:
        if (state.streamingEnabled) action = actions.toggleStreaming;
        break;
      case quitItem:
        action = actions.quit;
        break;
      default:
        break;
    }
    if (action) asio::post(main, std::move(action));
  }

  void emit(const char* path, const char* interface, const char* member) {
    if (bus == nullptr) return;
    sd_bus_emit_signal(bus, path, interface, member, "");
  }

  void apply(const TrayState& next, const std::optional<std::string>& nextBadge) {
    const bool icon = next.mood != state.mood || nextBadge.has_value() != badge.has_value();
    const bool tooltip = next.presence != state.presence || nextBadge != badge;
    const bool layout = next.serverRunning != state.serverRunning ||
                        next.streamingEnabled != state.streamingEnabled;
    state = next;
    badge = nextBadge;
    if (bus == nullptr) return;
    const std::string item(itemPath);
    if (icon) emit(item.c_str(), itemInterface, "NewIcon");
    if (tooltip) {
      emit(item.c_str(), itemInterface, "NewTitle");
      emit(item.c_str(), itemInterface, "NewToolTip");
    }
    if (layout) {
      ++revision;
      sd_bus_emit_signal(bus, std::string(menuPath).c_str(), menuInterface, "LayoutUpdated", "ui",
                         revision, rootMenu);
    }
    arm();
  }

  void registerWithWatcher() {
    if (bus == nullptr || !nameAcquired) return;
    sd_bus_slot* slot = nullptr;
    const int status = sd_bus_call_method_async(
        bus, &slot, watcherName, watcherPath, watcherName, "RegisterStatusNotifierItem",
        [](sd_bus_message* reply, void* userdata, sd_bus_error*) -> int {
          auto& self = *static_cast<Impl*>(userdata);
          // No watcher yet is not a failure: it is announced when one appears.
          if (sd_bus_message_is_method_error(reply, nullptr) == 0) {
            self.registeredName = self.name;
          }
          return 0;
        },
        this, "s", name.c_str());
    if (status >= 0) keep(slot);
  }

  void start();
};

namespace {

using Impl = TrayItem::Impl;

Impl& self(void* userdata) {
  return *static_cast<Impl*>(userdata);
}

int appendPixmaps(sd_bus_message* reply, const Impl* impl) {
  int status = sd_bus_message_open_container(reply, 'a', "(iiay)");
  for (const int size : iconSizes) {
    if (impl == nullptr || status < 0) break;
    const auto pixels = orbIcon(impl->state.mood, size, impl->badge.has_value());
    status = sd_bus_message_open_container(reply, 'r', "iiay");
    if (status >= 0) status = sd_bus_message_append(reply, "ii", size, size);
    if (status >= 0) status = sd_bus_message_append_array(reply, 'y', pixels.data(), pixels.size());
    if (status >= 0) status = sd_bus_message_close_container(reply);
  }
  return status < 0 ? status : sd_bus_message_close_container(reply);
}

int itemProperty(sd_bus*, const char*, const char*, const char* property, sd_bus_message* reply,
                 void* userdata, sd_bus_error*) {
  const Impl& impl = self(userdata);
  const std::string_view name = property;
  if (name == "Category") return sd_bus_message_append(reply, "s", "ApplicationStatus");
  if (name == "Id") return sd_bus_message_append(reply, "s", "app.orinlink.OrinLink");
  if (name == "Title") return sd_bus_message_append(reply, "s", impl.title().c_str());
  if (name == "Status") return sd_bus_message_append(reply, "s", "Active");
  if (name == "WindowId") return sd_bus_message_append(reply, "i", 0);
  if (name == "IconPixmap") return appendPixmaps(reply, &impl);
  if (name == "OverlayIconPixmap" || name == "AttentionIconPixmap") {
    return appendPixmaps(reply, nullptr);
  }
  if (name == "ToolTip") {
    int status = sd_bus_message_open_container(reply, 'r', "sa(iiay)ss");
    if (status >= 0) status = sd_bus_message_append(reply, "s", "");
    if (status >= 0) status = appendPixmaps(reply, nullptr);
    if (status >= 0) {
      status =
          sd_bus_message_append(reply, "ss", impl.title().c_str(), impl.state.presence.c_str());
    }
    return status < 0 ? status : sd_bus_message_close_container(reply);
  }
  if (name == "ItemIsMenu") return sd_bus_message_append(reply, "b", 0);
  if (name == "Menu")
    return sd_bus_message_append(reply, "o", std::string(TrayItem::menuPath).c_str());
  // IconName, OverlayIconName, AttentionIconName, AttentionMovieName: the pixmaps say it all.
  return sd_bus_message_append(reply, "s", "");
}

int activate(sd_bus_message* message, void* userdata, sd_bus_error*) {
  self(userdata).run(openItem);
  return sd_bus_reply_method_return(message, "");
}

int ignore(sd_bus_message* message, void*, sd_bus_error*) {
  return sd_bus_reply_method_return(message, "");
}

bool wanted(const std::vector<std::string>& names, std::string_view name) {
  return names.empty() || std::find(names.begin(), names.end(), name) != names.end();
}

using MenuValue = std::variant<std::string, bool, std::int32_t>;

std::vector<std::pair<std::string, MenuValue>> entryProperties(const MenuEntry& entry) {
  if (entry.id == rootMenu) return {{"children-display", std::string("submenu")}};
  if (entry.separator) return {{"type", std::string("separator")}};
  std::vector<std::pair<std::string, MenuValue>> properties = {
      {"label", entry.label}, {"enabled", entry.enabled}, {"visible", true}};
  if (entry.toggleState) {
    properties.emplace_back("toggle-type", std::string("checkmark"));
    properties.emplace_back("toggle-state", *entry.toggleState);
  }
  return properties;
}

int appendValue(sd_bus_message* m, const MenuValue& value) {
  if (const auto* text = std::get_if<std::string>(&value)) {
    return sd_bus_message_append(m, "v", "s", text->c_str());
  }
  if (const auto* flag = std::get_if<bool>(&value)) {
    return sd_bus_message_append(m, "v", "b", static_cast<int>(*flag));
  }
  return sd_bus_message_append(m, "v", "i", std::get<std::int32_t>(value));
}

int appendEntryProperties(sd_bus_message* m, const MenuEntry& entry,
                          const std::vector<std::string>& names) {
  int status = sd_bus_message_open_container(m, 'a', "{sv}");
  for (const auto& [key, value] : entryProperties(entry)) {
    if (status < 0 || !wanted(names, key)) continue;
    status = sd_bus_message_open_container(m, 'e', "sv");
    if (status >= 0) status = sd_bus_message_append(m, "s", key.c_str());
    if (status >= 0) status = appendValue(m, value);
    if (status >= 0) status = sd_bus_message_close_container(m);
  }
  return status < 0 ? status : sd_bus_message_close_container(m);
}

int appendLayout(sd_bus_message* m, const Impl& impl, const MenuEntry& entry, bool children,
                 const std::vector<std::string>& names) {
  int status = sd_bus_message_open_container(m, 'r', "ia{sv}av");
  if (status >= 0) status = sd_bus_message_append(m, "i", entry.id);
  if (status >= 0) status = appendEntryProperties(m, entry, names);
  if (status >= 0) status = sd_bus_message_open_container(m, 'a', "v");
  if (children && entry.id == rootMenu) {
    for (const MenuEntry& child : impl.menu()) {
      if (status >= 0) status = sd_bus_message_open_container(m, 'v', "(ia{sv}av)");
      if (status >= 0) status = appendLayout(m, impl, child, false, names);
      if (status >= 0) status = sd_bus_message_close_container(m);
    }
  }
  if (status >= 0) status = sd_bus_message_close_container(m);
  return status < 0 ? status : sd_bus_message_close_container(m);
}

std::optional<MenuEntry> findEntry(const Impl& impl, std::int32_t id) {
  if (id == rootMenu) return MenuEntry{};
  for (const MenuEntry& entry : impl.menu()) {
    if (entry.id == id) return entry;
  }
  return std::nullopt;
}

std::vector<std::string> readNames(sd_bus_message* m, int& status) {
  char** strings = nullptr;
  status = sd_bus_message_read_strv(m, &strings);
  std::vector<std::string> names;
  for (char** s = strings; s != nullptr && *s != nullptr; ++s) {
    names.emplace_back(*s);
    std::free(*s);
  }
  std::free(static_cast<void*>(strings));
  return names;
}

struct Reply {
  sd_bus_message* message = nullptr;
  ~Reply() { sd_bus_message_unref(message); }
};

int getLayout(sd_bus_message* m, void* userdata, sd_bus_error* error) {
  const Impl& impl = self(userdata);
  std::int32_t parent = 0, depth = 0;
  int status = sd_bus_message_read(m, "ii", &parent, &depth);
  if (status < 0) return status;
  const auto names = readNames(m, status);
  if (status < 0) return status;
  const auto entry = findEntry(impl, parent);
  if (!entry) return sd_bus_error_set(error, SD_BUS_ERROR_INVALID_ARGS, "No such menu item.");
  Reply reply;
  status = sd_bus_message_new_method_return(m, &reply.message);
  if (status >= 0) status = sd_bus_message_append(reply.message, "u", impl.revision);
  if (status >= 0) status = appendLayout(reply.message, impl, *entry, depth != 0, names);
  return status < 0 ? status : sd_bus_send(nullptr, reply.message, nullptr);
}

int getGroupProperties(sd_bus_message* m, void* userdata, sd_bus_error*) {
  const Impl& impl = self(userdata);
  const void* data = nullptr;
  std::size_t bytes = 0;
  int status = sd_bus_message_read_array(m, 'i', &data, &bytes);
  if (status < 0) return status;
  std::vector<std::int32_t> ids(bytes / sizeof(std::int32_t));
  if (bytes > 0) std::memcpy(ids.data(), data, ids.size() * sizeof(std::int32_t));
  const auto names = readNames(m, status);
  if (status < 0) return status;
  if (ids.empty()) {
    for (const MenuEntry& entry : impl.menu())
      ids.push_back(entry.id);
  }
  Reply reply;
  status = sd_bus_message_new_method_return(m, &reply.message);
  if (status >= 0) status = sd_bus_message_open_container(reply.message, 'a', "(ia{sv})");
  for (const std::int32_t id : ids) {
    const auto entry = findEntry(impl, id);
    if (!entry || status < 0) continue;
    status = sd_bus_message_open_container(reply.message, 'r', "ia{sv}");
    if (status >= 0) status = sd_bus_message_append(reply.message, "i", id);
    if (status >= 0) status = appendEntryProperties(reply.message, *entry, names);
    if (status >= 0) status = sd_bus_message_close_container(reply.message);
  }
  if (status >= 0) status = sd_bus_message_close_container(reply.message);
  return status < 0 ? status : sd_bus_send(nullptr, reply.message, nullptr);
}

int getProperty(sd_bus_message* m, void* userdata, sd_bus_error* error) {
  const Impl& impl = self(userdata);
  std::int32_t id = 0;
  const char* name = nullptr;
  const int status = sd_bus_message_read(m, "is", &id, &name);
  if (status < 0) return status;
  const auto entry = findEntry(impl, id);
  if (!entry) return sd_bus_error_set(error, SD_BUS_ERROR_INVALID_ARGS, "No such menu item.");
  for (const auto& [key, value] : entryProperties(*entry)) {
    if (key != name) continue;
    Reply reply;
    int built = sd_bus_message_new_method_return(m, &reply.message);
    if (built >= 0) built = appendValue(reply.message, value);
    return built < 0 ? built : sd_bus_send(nullptr, reply.message, nullptr);
  }
  return sd_bus_error_set(error, SD_BUS_ERROR_INVALID_ARGS, "No such property.");
}

int event(sd_bus_message* m, void* userdata, sd_bus_error*) {
  std::int32_t id = 0;
  const char* kind = nullptr;
  const int status = sd_bus_message_read(m, "is", &id, &kind);
  if (status < 0) return status;
  if (std::string_view(kind) == "clicked") self(userdata).run(id);
  return sd_bus_reply_method_return(m, "");
}

int eventGroup(sd_bus_message* m, void* userdata, sd_bus_error*) {
  int status = sd_bus_message_enter_container(m, 'a', "(isvu)");
  while (status > 0) {
    status = sd_bus_message_enter_container(m, 'r', "isvu");
    if (status <= 0) break;
    std::int32_t id = 0;
    const char* kind = nullptr;
    status = sd_bus_message_read(m, "is", &id, &kind);
    if (status >= 0) status = sd_bus_message_skip(m, "vu");
    if (status >= 0) status = sd_bus_message_exit_container(m);
    if (status >= 0 && std::string_view(kind) == "clicked") self(userdata).run(id);
  }
  if (status < 0) return status;
  return sd_bus_reply_method_return(m, "ai", 0);
}

int aboutToShow(sd_bus_message* m, void*, sd_bus_error*) {
  return sd_bus_reply_method_return(m, "b", 0);
}

int aboutToShowGroup(sd_bus_message* m, void*, sd_bus_error*) {
  return sd_bus_reply_method_return(m, "aiai", 0, 0);
}

int menuProperty(sd_bus*, const char*, const char*, const char* property, sd_bus_message* reply,
                 void*, sd_bus_error*) {
  const std::string_view name = property;
  if (name == "Version") return sd_bus_message_append(reply, "u", 3u);
  if (name == "TextDirection") return sd_bus_message_append(reply, "s", "ltr");
  if (name == "Status") return sd_bus_message_append(reply, "s", "normal");
  return sd_bus_message_append(reply, "as", 0);
}

// The interfaces as tray hosts know them. sd-bus's vtable macros use C designated
// initialisers that GCC accepts in C++20 only with these warnings quiet.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wpedantic"
#pragma GCC diagnostic ignored "-Wmissing-field-initializers"
#pragma GCC diagnostic ignored "-Wold-style-cast"
#pragma GCC diagnostic ignored "-Wsign-conversion"
#pragma GCC diagnostic ignored "-Wconversion"
const sd_bus_vtable itemVTable[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_PROPERTY("Category", "s", itemProperty, 0, SD_BUS_VTABLE_PROPERTY_CONST),
    SD_BUS_PROPERTY("Id", "s", itemProperty, 0, SD_BUS_VTABLE_PROPERTY_CONST),
    SD_BUS_PROPERTY("Title", "s", itemProperty, 0, 0),
    SD_BUS_PROPERTY("Status", "s", itemProperty, 0, 0),
    SD_BUS_PROPERTY("WindowId", "i", itemProperty, 0, SD_BUS_VTABLE_PROPERTY_CONST),
    SD_BUS_PROPERTY("IconName", "s", itemProperty, 0, 0),
    SD_BUS_PROPERTY("IconPixmap", "a(iiay)", itemProperty, 0, 0),
    SD_BUS_PROPERTY("OverlayIconName", "s", itemProperty, 0, 0),
    SD_BUS_PROPERTY("OverlayIconPixmap", "a(iiay)", itemProperty, 0, 0),
    SD_BUS_PROPERTY("AttentionIconName", "s", itemProperty, 0, 0),
    SD_BUS_PROPERTY("AttentionIconPixmap", "a(iiay)", itemProperty, 0, 0),
    SD_BUS_PROPERTY("AttentionMovieName", "s", itemProperty, 0, 0),
    SD_BUS_PROPERTY("ToolTip", "(sa(iiay)ss)", itemProperty, 0, 0),
    SD_BUS_PROPERTY("ItemIsMenu", "b", itemProperty, 0, SD_BUS_VTABLE_PROPERTY_CONST),
    SD_BUS_PROPERTY("Menu", "o", itemProperty, 0, SD_BUS_VTABLE_PROPERTY_CONST),
    SD_BUS_METHOD("Activate", "ii", "", activate, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("SecondaryActivate", "ii", "", activate, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("ContextMenu", "ii", "", ignore, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("Scroll", "is", "", ignore, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_SIGNAL("NewTitle", "", 0),
    SD_BUS_SIGNAL("NewIcon", "", 0),
    SD_BUS_SIGNAL("NewAttentionIcon", "", 0),
    SD_BUS_SIGNAL("NewOverlayIcon", "", 0),
    SD_BUS_SIGNAL("NewToolTip", "", 0),
    SD_BUS_SIGNAL("NewStatus", "s", 0),
    SD_BUS_VTABLE_END};

const sd_bus_vtable menuVTable[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_PROPERTY("Version", "u", menuProperty, 0, SD_BUS_VTABLE_PROPERTY_CONST),
    SD_BUS_PROPERTY("TextDirection", "s", menuProperty, 0, SD_BUS_VTABLE_PROPERTY_CONST),
    SD_BUS_PROPERTY("Status", "s", menuProperty, 0, SD_BUS_VTABLE_PROPERTY_CONST),
    SD_BUS_PROPERTY("IconThemePath", "as", menuProperty, 0, SD_BUS_VTABLE_PROPERTY_CONST),
    SD_BUS_METHOD("GetLayout", "iias", "u(ia{sv}av)", getLayout, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("GetGroupProperties", "aias", "a(ia{sv})", getGroupProperties,
                  SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("GetProperty", "is", "v", getProperty, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("Event", "isvu", "", event, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("EventGroup", "a(isvu)", "ai", eventGroup, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("AboutToShow", "i", "b", aboutToShow, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("AboutToShowGroup", "ai", "aiai", aboutToShowGroup, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_SIGNAL("ItemsPropertiesUpdated", "a(ia{sv})a(ias)", 0),
    SD_BUS_SIGNAL("LayoutUpdated", "ui", 0),
    SD_BUS_SIGNAL("ItemActivationRequested", "iu", 0),
    SD_BUS_VTABLE_END};
#pragma GCC diagnostic pop

std::atomic<int> itemCounter{0};

}  // namespace

void TrayItem::Impl::start() {
  sd_bus_slot* slot = nullptr;
  const std::string item(itemPath), menuObject(menuPath);
  bool ok =
      sd_bus_add_object_vtable(bus, &slot, item.c_str(), itemInterface, itemVTable, this) >= 0;
  if (ok) keep(slot);
  ok = ok && sd_bus_add_object_vtable(bus, &slot, menuObject.c_str(), menuInterface, menuVTable,
                                      this) >= 0;
  if (ok) keep(slot);
  // A tray host that starts later takes the watcher's name: register with it then.
  ok = ok && sd_bus_add_match_async(
                 bus, &slot,
                 "type='signal',sender='org.freedesktop.DBus',interface='org.freedesktop.DBus',"
                 "member='NameOwnerChanged',arg0='org.kde.StatusNotifierWatcher'",
                 [](sd_bus_message* m, void* userdata, sd_bus_error*) -> int {
                   const char* owned = nullptr;
                   const char* before = nullptr;
                   const char* after = nullptr;
                   if (sd_bus_message_read(m, "sss", &owned, &before, &after) < 0) return 0;
                   auto& impl = self(userdata);
                   if (after != nullptr && *after != '\0') {
                     impl.registerWithWatcher();
                   } else {
                     impl.registeredName.clear();
                   }
                   return 0;
                 },
                 nullptr, this) >= 0;
  if (ok) keep(slot);
  name = "org.kde.StatusNotifierItem-" + std::to_string(::getpid()) + "-" +
         std::to_string(++itemCounter);
  ok = ok && sd_bus_request_name_async(
                 bus, &slot, name.c_str(), 0,
                 [](sd_bus_message* reply, void* userdata, sd_bus_error*) -> int {
                   auto& impl = self(userdata);
                   if (sd_bus_message_is_method_error(reply, nullptr) != 0) {
                     const char* unique = nullptr;
                     if (sd_bus_get_unique_name(impl.bus, &unique) < 0) return 0;
                     impl.name = unique;
                   }
                   impl.nameAcquired = true;
                   impl.registerWithWatcher();
                   return 0;
                 },
                 this) >= 0;
  if (ok) keep(slot);
  const int fd = ok ? ::dup(sd_bus_get_fd(bus)) : -1;
  if (fd < 0) {
    close();
    return;
  }
  descriptor.emplace(main, fd);
  timer.emplace(main);
  arm();
}

std::unique_ptr<TrayItem> TrayItem::make(asio::any_io_executor main,
                                         const std::string& busAddress) {
  auto impl = std::make_shared<Impl>(std::move(main));
  sd_bus* bus = nullptr;
  int status = 0;
  if (busAddress.empty()) {
    status = sd_bus_open_user(&bus);
  } else {
    status = sd_bus_new(&bus);
    if (status >= 0) status = sd_bus_set_address(bus, busAddress.c_str());
    if (status >= 0) status = sd_bus_set_bus_client(bus, 1);
    if (status >= 0) status = sd_bus_start(bus);
  }
  if (status < 0) {
    sd_bus_unref(bus);
  } else {
    impl->bus = bus;
    impl->start();
  }
  return std::unique_ptr<TrayItem>(new TrayItem(std::move(impl)));
}

TrayItem::TrayItem(std::shared_ptr<Impl> impl) : impl_(std::move(impl)) {}

TrayItem::~TrayItem() {
  if (auto app = impl_->app.lock()) app->unobserve(impl_->subscription);
  impl_->close();
}

void TrayItem::setActions(TrayActions actions) {
  impl_->actions = std::move(actions);
}

void TrayItem::update(const TrayState& state) {
  impl_->apply(state, impl_->badge);
}

void TrayItem::setBadge(std::optional<std::string> text) {
  impl_->apply(impl_->state, text);
}

bool TrayItem::hasBus() const {
  return impl_->bus != nullptr;
}

std::string TrayItem::registeredName() const {
  return impl_->registeredName;
}

namespace {

TrayState trayStateOf(const AppState& app) {
  const StateSnapshot snapshot = app.stateSnapshot();
  TrayState state;
  state.mood = std::string(rawValue(orbMood(snapshot)));
  state.presence = presenceSentence(snapshot);
  state.serverRunning = app.properties().isServerRunning;
  if (const auto& stream = app.screenStream())
    state.streamingEnabled = stream->properties().isEnabled;
  return state;
}

}  // namespace

void TrayItem::follow(const std::shared_ptr<AppState>& app, std::function<void()> openPanel,
                      std::function<void()> quit) {
  const std::weak_ptr<AppState> weakApp = app;
  setActions({std::move(openPanel),
              [weakApp] {
                if (auto a = weakApp.lock()) a->newPairingCode();
              },
              [weakApp] {
                auto a = weakApp.lock();
                if (!a) return;
                if (a->properties().isServerRunning) {
                  a->stopServer();
                } else {
                  a->startServer();
                }
              },
              [weakApp] {
                auto a = weakApp.lock();
                if (a && a->screenStream()) {
                  a->screenStream()->setEnabled(!a->screenStream()->properties().isEnabled);
                }
              },
              std::move(quit)});
  impl_->app = app;
  const std::weak_ptr<Impl> weakImpl = impl_;
  // Many changes in one turn of the loop make one update.
  impl_->subscription = app->observe([weakImpl, weakApp](std::string_view) {
    auto impl = weakImpl.lock();
    if (!impl || impl->refreshScheduled) return;
    impl->refreshScheduled = true;
    asio::post(impl->main, [weakImpl, weakApp] {
      auto current = weakImpl.lock();
      auto a = weakApp.lock();
      if (!current) return;
      current->refreshScheduled = false;
      if (a) current->apply(trayStateOf(*a), current->badge);
    });
  });
  impl_->apply(trayStateOf(*app), impl_->badge);
}

}  // namespace orin
