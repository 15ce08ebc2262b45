#include "OrinLink/system/LinuxDesktopIntegration.h"

#include <canberra.h>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <fcntl.h>
#include <system_error>
#include <unistd.h>
#include <utility>

#include "OrinLink/common/AtomicFile.h"
#include "OrinLink/system/SystemActions.h"

namespace orin {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

namespace {

constexpr std::uint64_t systemCallTimeout = 2000 * sdbus::millisecond;
constexpr std::uint64_t sessionCallTimeout = 500 * sdbus::millisecond;

constexpr const char* portalName = "org.freedesktop.portal.Desktop";
constexpr const char* notificationsName = "org.freedesktop.Notifications";
// The portal's flag for "suspend" (1 logout, 2 user switch, 4 suspend, 8 idle).
constexpr std::uint32_t portalSuspendFlag = 4;

std::string envOr(const char* name, std::string fallback) {
  const char* value = std::getenv(name);
  return value != nullptr && *value != '\0' ? std::string(value) : std::move(fallback);
}

}  // namespace

bool hasGraphicalSession() {
  return !envOr("DISPLAY", "").empty() || !envOr("WAYLAND_DISPLAY", "").empty();
}

// ---- sleep ----

LogindSleepPrevention::~LogindSleepPrevention() {
  release();
}

bool LogindSleepPrevention::available() {
  int status = 0;
  const sdbus::Bus bus = sdbus::open(sdbus::BusKind::system, systemCallTimeout, status);
  return bus && sdbus::serviceReachable(bus.get(), "org.freedesktop.login1");
}

void LogindSleepPrevention::setEnabled(bool enabled) {
  if (!enabled) {
    release();
    return;
  }
  if (isHeld()) return;
  int status = 0;
  const sdbus::Bus bus = sdbus::open(sdbus::BusKind::system, systemCallTimeout, status);
  if (!bus) throw SleepPreventionError::assertionFailed(status);
  sdbus::BusError error;
  sd_bus_message* reply = nullptr;
  const std::string whoText(who);
  const std::string whyText(why);
  status = sd_bus_call_method(bus.get(), "org.freedesktop.login1", "/org/freedesktop/login1",
                              "org.freedesktop.login1.Manager", "Inhibit", error.get(), &reply,
                              "ssss", "sleep", whoText.c_str(), whyText.c_str(), "block");
  if (status < 0) throw SleepPreventionError::assertionFailed(status);
  const sdbus::Message answer(reply);
  int received = -1;
  status = sd_bus_message_read(reply, "h", &received);
  if (status < 0) throw SleepPreventionError::assertionFailed(status);
  // The descriptor belongs to the reply; ours must outlive it and stay out of our children.
  inhibitor_ = ::fcntl(received, F_DUPFD_CLOEXEC, 3);
  if (inhibitor_ < 0) throw SleepPreventionError::assertionFailed(-errno);
  takeSessionInhibitor();
}

// Best effort: logind's lock is what keeps the machine up; the session's only stops the desktop
// from asking for suspend on idle.
void LogindSleepPrevention::takeSessionInhibitor() {
  int status = 0;
  sdbus::Bus bus = sdbus::open(sdbus::BusKind::session, sessionCallTimeout, status);
  if (!bus || !sdbus::serviceReachable(bus.get(), portalName)) return;
  sd_bus_message* request = nullptr;
  if (sd_bus_message_new_method_call(bus.get(), &request, portalName,
                                     "/org/freedesktop/portal/desktop",
                                     "org.freedesktop.portal.Inhibit", "Inhibit") < 0) {
    return;
  }
  const sdbus::Message call(request);
  const std::string reason(why);
  if (sd_bus_message_append(request, "su", "", portalSuspendFlag) < 0 ||
      sd_bus_message_append(request, "a{sv}", 1, "reason", "s", reason.c_str()) < 0) {
    return;
  }
  sdbus::BusError error;
  sd_bus_message* reply = nullptr;
  if (sd_bus_call(bus.get(), request, 0, error.get(), &reply) < 0) return;
  const sdbus::Message answer(reply);
  const char* handle = nullptr;
  if (sd_bus_message_read(reply, "o", &handle) < 0) return;
  portalRequest_ = handle;
  sessionBus_ = std::move(bus);
}

void LogindSleepPrevention::release() {
  if (sessionBus_) {
    sdbus::BusError error;
    sd_bus_call_method(sessionBus_.get(), portalName, portalRequest_.c_str(),
                       "org.freedesktop.portal.Request", "Close", error.get(), nullptr, "");
    sessionBus_.reset();
    portalRequest_.clear();
  }
  if (inhibitor_ >= 0) ::close(std::exchange(inhibitor_, -1));
}

// ---- start at login ----

fs::path XdgAutostartLoginItem::defaultFolder() {
  return configHome() / "autostart";
}

namespace {

// An Exec argument holding a reserved character is quoted, with `"`, `` ` ``, `$` and `\`
// escaped inside; `%` is doubled (it introduces field codes). The value's own string escapes
// come on top, which doubles each of those backslashes once more.
std::string execValue(const std::string& argument) {
  static constexpr std::string_view reserved = " \t\n\"'\\><~|&;$*?#()`";
  const bool quote = argument.find_first_of(reserved) != std::string::npos;
  std::string exec = quote ? "\"" : "";
  for (const char c : argument) {
    if (c == '%') exec += '%';
    if (quote && (c == '"' || c == '`' || c == '$' || c == '\\')) exec += '\\';
    exec += c;
  }
  if (quote) exec += '"';
  std::string value;
  for (const char c : exec) {
    if (c == '\\') {
      value += "\\\\";
    } else if (c == '\n') {
      value += "\\n";
    } else if (c == '\t') {
      value += "\\t";
    } else if (c == '\r') {
      value += "\\r";
    } else {
      value += c;
    }
  }
  return value;
}

fs::path runningExecutable() {
  char buffer[PATH_MAX];
  const ssize_t length = ::readlink("/proc/self/exe", buffer, sizeof buffer - 1);
  if (length <= 0) return "orinlink";
  std::string path(buffer, static_cast<std::size_t>(length));
  // An upgrade replaces the file while we run; the new one is where the old one was.
  constexpr std::string_view deleted = " (deleted)";
  if (path.ends_with(deleted)) path.resize(path.size() - deleted.size());
  return path;
}

}  // namespace

std::string XdgAutostartLoginItem::entry(const fs::path& executable) {
  return "[Desktop Entry]\n"
         "Type=Application\n"
         "Name=Orin Link\n"
         "Comment=Lend this computer to your devices\n"
         "Exec=" +
         execValue(executable.string()) +
         " --no-open\n"
         "Icon=" +
         std::string(applicationID) +
         "\n"
         "Terminal=false\n"
         "X-GNOME-Autostart-enabled=true\n";
}

XdgAutostartLoginItem::XdgAutostartLoginItem(fs::path folder) : folder_(std::move(folder)) {}

fs::path XdgAutostartLoginItem::entryPath() const {
  return folder_ / (std::string(applicationID) + ".desktop");
}

void XdgAutostartLoginItem::setEnabled(bool enabled) {
  const fs::path path = entryPath();
  std::error_code ec;
  if (!enabled) {
    // Without the folder there is no entry to remove.
    if (!fs::remove(path, ec) && ec && ec != std::errc::no_such_file_or_directory &&
        ec != std::errc::not_a_directory) {
      throw Error("Could not remove " + path.string() + ": " + ec.message());
    }
    return;
  }
  fs::create_directories(folder_, ec);
  if (ec) throw Error("Could not create " + folder_.string() + ": " + ec.message());
  try {
    writeFileAtomically(path, entry(runningExecutable()), 0644);
  } catch (const std::system_error& failure) {
    throw Error("Could not write " + path.string() + ": " + failure.code().message());
  }
}

// ---- notifications ----

bool DBusNotificationCenter::isAvailable() const {
  // Asked whenever the interface shows its state; the bus is not asked more often than this.
  constexpr auto recheckAfter = 5s;
  const auto now = std::chrono::steady_clock::now();
  if (checkedAt_ != std::chrono::steady_clock::time_point{} && now - checkedAt_ < recheckAfter) {
    return available_;
  }
  checkedAt_ = now;
  if (!bus_) {
    int status = 0;
    bus_ = sdbus::open(sdbus::BusKind::session, sessionCallTimeout, status);
  }
  available_ = bus_ && sdbus::serviceReachable(bus_.get(), notificationsName);
  if (!available_) bus_.reset();
  return available_;
}

void DBusNotificationCenter::post(const std::string& title, const std::string& body) {
  if (!isAvailable()) return;
  sd_bus* bus = bus_.get();
  sd_bus_message* request = nullptr;
  if (sd_bus_message_new_method_call(bus, &request, notificationsName,
                                     "/org/freedesktop/Notifications", notificationsName,
                                     "Notify") < 0) {
    return;
  }
  const sdbus::Message call(request);
  const std::string app(applicationID);
  if (sd_bus_message_append(request, "susss", app.c_str(), 0U, app.c_str(), title.c_str(),
                            body.c_str()) < 0 ||
      sd_bus_message_append(request, "as", 0) < 0 ||
      sd_bus_message_append(request, "a{sv}", 1, "desktop-entry", "s", app.c_str()) < 0 ||
      sd_bus_message_append(request, "i", -1) < 0 ||
      sd_bus_message_set_expect_reply(request, 0) < 0) {
    return;
  }
  if (sd_bus_send(bus, request, nullptr) < 0) {
    bus_.reset();
    checkedAt_ = {};
    return;
  }
  sdbus::drain(bus);
}

// ---- sound ----

CanberraSoundPlayer::CanberraSoundPlayer(bool enabled) {
  if (!enabled) return;
  ca_context* context = nullptr;
  if (ca_context_create(&context) != CA_SUCCESS) return;
  const std::string app(applicationID);
  ca_context_change_props(context, CA_PROP_APPLICATION_NAME, "Orin Link", CA_PROP_APPLICATION_ID,
                          app.c_str(), CA_PROP_APPLICATION_ICON_NAME, app.c_str(), nullptr);
  if (ca_context_open(context) != CA_SUCCESS) {
    ca_context_destroy(context);
    return;
  }
  context_ = context;
}

CanberraSoundPlayer::~CanberraSoundPlayer() {
  if (context_ != nullptr) ca_context_destroy(context_);
}

void CanberraSoundPlayer::playPairingSound() {
  if (context_ == nullptr) return;
  ca_context_play(context_, 0, CA_PROP_EVENT_ID, "complete", CA_PROP_EVENT_DESCRIPTION,
                  "A device paired", nullptr);
}

// ---- control panel ----

void ControlPanelAddress::set(std::string url) {
  url_ = std::move(url);
  if (!url_.empty() && waiting_) std::exchange(waiting_, nullptr)(url_);
}

void ControlPanelAddress::whenKnown(Open open) {
  if (url_.empty()) {
    waiting_ = std::move(open);
  } else {
    open(url_);
  }
}

XdgControlPanelOpener::XdgControlPanelOpener(std::shared_ptr<ControlPanelAddress> address,
                                             bool skipFirst, ControlPanelAddress::Open open)
    : address_(std::move(address)), skipNext_(skipFirst), open_(std::move(open)) {
  if (!open_) open_ = [](const std::string& url) { PosixSystemActions().openURL(url); };
}

void XdgControlPanelOpener::openControlPanel() {
  if (std::exchange(skipNext_, false)) return;
  if (!hasGraphicalSession()) return;
  address_->whenKnown(open_);
}

DesktopIntegration makeLinuxDesktopIntegration(LinuxDesktopOptions options) {
  DesktopIntegration desktop;
  auto notifications = std::make_unique<DBusNotificationCenter>();
  // Nobody hears a chime on a machine without a desktop, and the sound library would complain
  // about the missing sound card on the terminal instead.
  auto sound = std::make_unique<CanberraSoundPlayer>(hasGraphicalSession());
  desktop.availability.sleepPrevention = LogindSleepPrevention::available();
  desktop.availability.loginItem = true;
  desktop.availability.notifications = notifications->isAvailable();
  desktop.availability.sound = sound->isAvailable();
  desktop.availability.presence = false;
  desktop.availability.graphicalSession = hasGraphicalSession();
  desktop.sleepPrevention = std::make_unique<LogindSleepPrevention>();
  desktop.loginItem = std::make_unique<XdgAutostartLoginItem>();
  desktop.notifications = std::move(notifications);
  desktop.sound = std::move(sound);
  desktop.presence = std::make_unique<NullPresenceIndicator>();
  desktop.panelOpener = std::make_unique<XdgControlPanelOpener>(std::move(options.controlPanel),
                                                                !options.openPanelAtLaunch);
  return desktop;
}

}  // namespace orin
