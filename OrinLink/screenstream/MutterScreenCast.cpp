#include "OrinLink/screenstream/MutterScreenCast.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "OrinLink/screenstream/DisplayCaptureError.h"

namespace orin::screen {

namespace {

constexpr const char* screenCastName = "org.gnome.Mutter.ScreenCast";
constexpr const char* screenCastPath = "/org/gnome/Mutter/ScreenCast";
constexpr const char* sessionInterface = "org.gnome.Mutter.ScreenCast.Session";
constexpr const char* streamInterface = "org.gnome.Mutter.ScreenCast.Stream";
constexpr const char* displayConfigName = "org.gnome.Mutter.DisplayConfig";
constexpr const char* displayConfigPath = "/org/gnome/Mutter/DisplayConfig";
constexpr std::uint32_t cursorEmbedded = 1;
// The first version whose virtual monitors can be made part of the desktop ("is-platform").
constexpr int virtualPlatformVersion = 3;

// A failed call: the service being gone is the user's problem to fix, anything else ours.
[[noreturn]] void fail(sdbus::BusError& error, int status) {
  const std::string name = error.name();
  if (name == "org.freedesktop.DBus.Error.ServiceUnknown" ||
      name == "org.freedesktop.DBus.Error.NameHasNoOwner" ||
      name == "org.freedesktop.DBus.Error.UnknownObject") {
    throw DisplayCaptureError::screenCastUnavailable();
  }
  throw DisplayCaptureError::captureFailed("D-Bus", status < 0 ? -status : status);
}

int check(int status) {
  if (status < 0) throw DisplayCaptureError::captureFailed("D-Bus", -status);
  return status;
}

// Reads one a{sv} entry's value when its type is `type`, skipping it otherwise.
template <class T>
bool readVariant(sd_bus_message* m, const char* type, T* value) {
  if (sd_bus_message_enter_container(m, 'v', type) <= 0) {
    check(sd_bus_message_skip(m, "v"));
    return false;
  }
  check(sd_bus_message_read_basic(m, type[0], value));
  check(sd_bus_message_exit_container(m));
  return true;
}

// Walks an a{sv}, handing each key to `entry`, which reads or skips the value.
template <class F>
void readDictionary(sd_bus_message* m, F entry) {
  check(sd_bus_message_enter_container(m, 'a', "{sv}"));
  while (check(sd_bus_message_enter_container(m, 'e', "sv")) > 0) {
    const char* key = nullptr;
    check(sd_bus_message_read(m, "s", &key));
    if (!entry(std::string(key))) check(sd_bus_message_skip(m, "v"));
    check(sd_bus_message_exit_container(m));
  }
  check(sd_bus_message_exit_container(m));
}

MutterMonitor readMonitor(sd_bus_message* m) {
  MutterMonitor monitor;
  const char* ids[4] = {};
  check(sd_bus_message_read(m, "(ssss)", &ids[0], &ids[1], &ids[2], &ids[3]));
  monitor.connector = ids[0];
  monitor.vendor = ids[1];
  monitor.product = ids[2];
  monitor.serial = ids[3];
  check(sd_bus_message_enter_container(m, 'a', "(siiddada{sv})"));
  while (check(sd_bus_message_enter_container(m, 'r', "siiddada{sv}")) > 0) {
    const char* modeId = nullptr;
    int width = 0;
    int height = 0;
    double refresh = 0;
    double scale = 0;
    check(sd_bus_message_read(m, "siidd", &modeId, &width, &height, &refresh, &scale));
    check(sd_bus_message_skip(m, "ad"));
    int current = 0;
    readDictionary(m, [&](const std::string& key) {
      return key == "is-current" && readVariant(m, "b", &current);
    });
    if (current != 0) {
      monitor.modeId = modeId;
      monitor.width = width;
      monitor.height = height;
      monitor.refreshRate = refresh;
    }
    check(sd_bus_message_exit_container(m));
  }
  check(sd_bus_message_exit_container(m));
  readDictionary(m, [&](const std::string& key) {
    const char* name = nullptr;
    if (key != "display-name" || !readVariant(m, "s", &name)) return false;
    monitor.displayName = name;
    return true;
  });
  return monitor;
}

}  // namespace

MutterScreenCast::MutterScreenCast(std::chrono::milliseconds timeout) : timeout_(timeout) {}

sdbus::Bus MutterScreenCast::openBus() const {
  int status = 0;
  return sdbus::open(sdbus::BusKind::session,
                     static_cast<std::uint64_t>(timeout_.count()) * sdbus::millisecond, status);
}

sdbus::Bus MutterScreenCast::connect() {
  auto bus = openBus();
  if (!bus) throw DisplayCaptureError::screenCastUnavailable();
  return bus;
}

bool MutterScreenCast::isAvailable() {
  const auto bus = openBus();
  return bus && sdbus::serviceReachable(bus.get(), screenCastName) &&
         sdbus::serviceReachable(bus.get(), displayConfigName);
}

bool MutterScreenCast::canRecordVirtual() {
  const auto bus = openBus();
  if (!bus) return false;
  sdbus::BusError error;
  int version = 0;
  if (sd_bus_get_property_trivial(bus.get(), screenCastName, screenCastPath, screenCastName,
                                  "Version", error.get(), 'i', &version) < 0) {
    return false;
  }
  return version >= virtualPlatformVersion;
}

MutterDisplayState MutterScreenCast::displayState() {
  auto bus = connect();
  sdbus::BusError error;
  sd_bus_message* raw = nullptr;
  const int status =
      sd_bus_call_method(bus.get(), displayConfigName, displayConfigPath, displayConfigName,
                         "GetCurrentState", error.get(), &raw, "");
  if (status < 0) fail(error, status);
  const sdbus::Message reply(raw);
  MutterDisplayState state;
  check(sd_bus_message_read(raw, "u", &state.serial));
  check(sd_bus_message_enter_container(raw, 'a', "((ssss)a(siiddada{sv})a{sv})"));
  while (check(sd_bus_message_enter_container(raw, 'r', "(ssss)a(siiddada{sv})a{sv}")) > 0) {
    state.monitors.push_back(readMonitor(raw));
    check(sd_bus_message_exit_container(raw));
  }
  check(sd_bus_message_exit_container(raw));
  check(sd_bus_message_enter_container(raw, 'a', "(iiduba(ssss)a{sv})"));
  while (check(sd_bus_message_enter_container(raw, 'r', "iiduba(ssss)a{sv}")) > 0) {
    MutterLogicalMonitor logical;
    int primary = 0;
    check(sd_bus_message_read(raw, "iidub", &logical.x, &logical.y, &logical.scale,
                              &logical.transform, &primary));
    logical.primary = primary != 0;
    check(sd_bus_message_enter_container(raw, 'a', "(ssss)"));
    const char* ids[4] = {};
    while (check(sd_bus_message_read(raw, "(ssss)", &ids[0], &ids[1], &ids[2], &ids[3])) > 0)
      logical.connectors.emplace_back(ids[0]);
    check(sd_bus_message_exit_container(raw));
    check(sd_bus_message_skip(raw, "a{sv}"));
    check(sd_bus_message_exit_container(raw));
    state.layout.push_back(std::move(logical));
  }
  return state;
}

void MutterScreenCast::applyLayout(std::uint32_t serial,
                                   const std::vector<MutterLogicalMonitor>& layout,
                                   const std::vector<MutterMonitor>& monitors) {
  constexpr std::uint32_t temporary = 1;
  auto bus = connect();
  sd_bus_message* raw = nullptr;
  check(sd_bus_message_new_method_call(bus.get(), &raw, displayConfigName, displayConfigPath,
                                       displayConfigName, "ApplyMonitorsConfig"));
  const sdbus::Message call(raw);
  check(sd_bus_message_append(raw, "uu", serial, temporary));
  check(sd_bus_message_open_container(raw, 'a', "(iiduba(ssa{sv}))"));
  for (const auto& logical : layout) {
    check(sd_bus_message_open_container(raw, 'r', "iiduba(ssa{sv})"));
    check(sd_bus_message_append(raw, "iidub", logical.x, logical.y, logical.scale,
                                logical.transform, logical.primary ? 1 : 0));
    check(sd_bus_message_open_container(raw, 'a', "(ssa{sv})"));
    for (const auto& connector : logical.connectors) {
      const auto monitor =
          std::find_if(monitors.begin(), monitors.end(),
                       [&](const MutterMonitor& m) { return m.connector == connector; });
      if (monitor == monitors.end() || monitor->modeId.empty()) continue;
      check(sd_bus_message_append(raw, "(ssa{sv})", connector.c_str(), monitor->modeId.c_str(), 0));
    }
    check(sd_bus_message_close_container(raw));
    check(sd_bus_message_close_container(raw));
  }
  check(sd_bus_message_close_container(raw));
  check(sd_bus_message_append(raw, "a{sv}", 0));
  sdbus::BusError error;
  sd_bus_message* reply = nullptr;
  const int status = sd_bus_call(bus.get(), raw, 0, error.get(), &reply);
  if (status < 0) fail(error, status);
  sd_bus_message_unref(reply);
}

std::unique_ptr<MutterScreenCast::Session> MutterScreenCast::recordMonitor(
    const std::string& connector) {
  return record(false, connector);
}

std::unique_ptr<MutterScreenCast::Session> MutterScreenCast::recordVirtual() {
  return record(true, {});
}

std::unique_ptr<MutterScreenCast::Session> MutterScreenCast::record(bool isVirtual,
                                                                    const std::string& connector) {
  std::unique_ptr<Session> session(new Session);
  session->bus_ = connect();
  sd_bus* bus = session->bus_.get();

  sdbus::BusError error;
  sd_bus_message* raw = nullptr;
  int status = sd_bus_call_method(bus, screenCastName, screenCastPath, screenCastName,
                                  "CreateSession", error.get(), &raw, "a{sv}", 0);
  if (status < 0) fail(error, status);
  sdbus::Message reply(raw);
  const char* path = nullptr;
  check(sd_bus_message_read(raw, "o", &path));
  session->path_ = path;

  raw = nullptr;
  if (isVirtual) {
    status = sd_bus_call_method(bus, screenCastName, session->path_.c_str(), sessionInterface,
                                "RecordVirtual", error.get(), &raw, "a{sv}", 2, "cursor-mode", "u",
                                cursorEmbedded, "is-platform", "b", 1);
  } else {
    status = sd_bus_call_method(bus, screenCastName, session->path_.c_str(), sessionInterface,
                                "RecordMonitor", error.get(), &raw, "sa{sv}", connector.c_str(), 1,
                                "cursor-mode", "u", cursorEmbedded);
  }
  if (status < 0) {
    if (error.name() == "org.freedesktop.DBus.Error.Failed" && !isVirtual) {
      throw DisplayCaptureError::displayNotFound();
    }
    fail(error, status);
  }
  reply.reset(raw);
  const char* streamPath = nullptr;
  check(sd_bus_message_read(raw, "o", &streamPath));

  struct Wait {
    std::uint32_t node = 0;
    bool closed = false;
  } wait;
  sd_bus_slot* added = nullptr;
  check(sd_bus_match_signal(
      bus, &added, nullptr, streamPath, streamInterface, "PipeWireStreamAdded",
      [](sd_bus_message* m, void* data, sd_bus_error*) {
        auto* w = static_cast<Wait*>(data);
        if (sd_bus_message_read(m, "u", &w->node) < 0) w->closed = true;
        return 0;
      },
      &wait));
  const sdbus::Slot addedSlot(added);
  sd_bus_slot* closed = nullptr;
  check(sd_bus_match_signal(
      bus, &closed, nullptr, session->path_.c_str(), sessionInterface, "Closed",
      [](sd_bus_message*, void* data, sd_bus_error*) {
        static_cast<Wait*>(data)->closed = true;
        return 0;
      },
      &wait));
  const sdbus::Slot closedSlot(closed);

  raw = nullptr;
  status = sd_bus_call_method(bus, screenCastName, session->path_.c_str(), sessionInterface,
                              "Start", error.get(), &raw, "");
  if (status < 0) fail(error, status);
  reply.reset(raw);

  const int waited = sdbus::processUntil(bus, std::chrono::steady_clock::now() + timeout_,
                                         [&] { return wait.node != 0 || wait.closed; });
  if (waited == 0) throw DisplayCaptureError::captureFailed("screen cast", ETIMEDOUT);
  check(waited);
  if (wait.closed) throw DisplayCaptureError::sharingEnded();
  session->nodeId_ = wait.node;
  return session;
}

MutterScreenCast::Session::~Session() {
  if (!bus_ || path_.empty()) return;
  sdbus::BusError error;
  sd_bus_message* reply = nullptr;
  if (sd_bus_call_method(bus_.get(), screenCastName, path_.c_str(), sessionInterface, "Stop",
                         error.get(), &reply, "") >= 0) {
    sd_bus_message_unref(reply);
  }
}

std::vector<MutterMonitor> addedMonitors(const std::vector<MutterMonitor>& before,
                                         const std::vector<MutterMonitor>& after) {
  std::vector<MutterMonitor> added;
  for (const auto& monitor : after) {
    const bool known = std::any_of(before.begin(), before.end(), [&](const MutterMonitor& m) {
      return m.connector == monitor.connector;
    });
    if (!known) added.push_back(monitor);
  }
  return added;
}

}  // namespace orin::screen
