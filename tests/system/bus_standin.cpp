// Plays logind, the desktop portal and a notification server on a private bus, and reports on
// standard output, one line per event, what it was asked and when an inhibitor was let go.
//
//   bus_standin ADDRESS [--logind] [--refuse-inhibit ERROR-NAME] [--portal] [--notifications]
//
// logind's Inhibit answers with the write end of a pipe and watches the read end: end of file
// means every copy of the descriptor is closed, which is when logind would drop the lock.

#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <set>
#include <string>
#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>
#include <unistd.h>

#include "tests/support/BusPeer.h"

namespace {

std::string refuseInhibit;
sd_event* loop = nullptr;
int inhibitors = 0;
int portalRequests = 0;

void report(const std::string& line) {
  std::printf("%s\n", line.c_str());
  std::fflush(stdout);
}

int onInhibitorClosed(sd_event_source* source, int fd, std::uint32_t, void* userdata) {
  char byte = 0;
  if (::read(fd, &byte, 1) > 0) return 0;
  report("released " + std::to_string(reinterpret_cast<std::intptr_t>(userdata)));
  sd_event_source_disable_unref(source);
  ::close(fd);
  return 0;
}

int inhibit(sd_bus_message* m, void*, sd_bus_error* error) {
  const char* what = nullptr;
  const char* who = nullptr;
  const char* why = nullptr;
  const char* mode = nullptr;
  int r = sd_bus_message_read(m, "ssss", &what, &who, &why, &mode);
  if (r < 0) return r;
  report(std::string("inhibit what=") + what + " who=" + who + " why=" + why + " mode=" + mode);
  if (!refuseInhibit.empty()) {
    return sd_bus_error_set(error, refuseInhibit.c_str(), "Refused by the stand-in");
  }
  int fds[2];
  if (::pipe2(fds, O_CLOEXEC) != 0) return -errno;
  const std::intptr_t number = ++inhibitors;
  r = sd_event_add_io(loop, nullptr, fds[0], EPOLLIN | EPOLLHUP, onInhibitorClosed,
                      reinterpret_cast<void*>(number));
  if (r < 0) return r;
  r = sd_bus_reply_method_return(m, "h", fds[1]);
  ::close(fds[1]);
  return r;
}

int portalInhibit(sd_bus_message* m, void*, sd_bus_error*) {
  const char* window = nullptr;
  std::uint32_t flags = 0;
  orin::test::VarDict details;
  int r = sd_bus_message_read(m, "su", &window, &flags);
  if (r >= 0) r = orin::test::readVarDict(m, details);
  if (r < 0) return r;
  const std::string reason = details.texts["reason"];
  const std::string handle =
      "/org/freedesktop/portal/desktop/request/standin/t" + std::to_string(++portalRequests);
  report("portal-inhibit flags=" + std::to_string(flags) + " reason=" + reason +
         " handle=" + handle);
  return sd_bus_reply_method_return(m, "o", handle.c_str());
}

int portalClose(sd_bus_message* m, void*, sd_bus_error*) {
  report(std::string("portal-close ") + sd_bus_message_get_path(m));
  return sd_bus_reply_method_return(m, "");
}

int notify(sd_bus_message* m, void*, sd_bus_error*) {
  const char* app = nullptr;
  std::uint32_t replaces = 0;
  const char* icon = nullptr;
  const char* summary = nullptr;
  const char* body = nullptr;
  const int r = sd_bus_message_read(m, "susss", &app, &replaces, &icon, &summary, &body);
  if (r < 0) return r;
  report(std::string("notify app=") + app + " icon=" + icon + " summary=" + summary +
         " body=" + body);
  static std::uint32_t id = 0;
  return sd_bus_reply_method_return(m, "u", ++id);
}

int serverInformation(sd_bus_message* m, void*, sd_bus_error*) {
  return sd_bus_reply_method_return(m, "ssss", "stand-in", "test", "1", "1.2");
}

const sd_bus_vtable logindVTable[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD("Inhibit", "ssss", "h", inhibit, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_VTABLE_END,
};

const sd_bus_vtable portalVTable[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD("Inhibit", "sua{sv}", "o", portalInhibit, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_VTABLE_END,
};

const sd_bus_vtable requestVTable[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD("Close", "", "", portalClose, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_VTABLE_END,
};

const sd_bus_vtable notificationsVTable[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD("Notify", "susssasa{sv}i", "u", notify, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("GetServerInformation", "", "ssss", serverInformation,
                  SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_VTABLE_END,
};

int fail(const char* what, int r) {
  std::fprintf(stderr, "bus_standin: %s: %s\n", what, std::strerror(-r));
  return 1;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) return fail("usage: bus_standin ADDRESS [options]", -EINVAL);
  std::set<std::string> services;
  for (int i = 2; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--refuse-inhibit" && i + 1 < argc) {
      refuseInhibit = argv[++i];
    } else if (arg == "--logind" || arg == "--portal" || arg == "--notifications") {
      services.insert(arg);
    } else {
      return fail(argv[i], -EINVAL);
    }
  }
  const orin::sdbus::Bus bus = orin::test::connectToBus(argv[1]);
  int r = sd_event_default(&loop);
  if (r < 0) return fail("sd_event_default", r);
  r = sd_bus_attach_event(bus.get(), loop, 0);
  if (r < 0) return fail("attach", r);
  using orin::test::serve;
  if (services.contains("--logind")) {
    serve(bus.get(), "org.freedesktop.login1", "/org/freedesktop/login1",
          "org.freedesktop.login1.Manager", logindVTable);
  }
  if (services.contains("--portal")) {
    serve(bus.get(), "org.freedesktop.portal.Desktop", "/org/freedesktop/portal/desktop",
          "org.freedesktop.portal.Inhibit", portalVTable);
    serve(bus.get(), nullptr, "/org/freedesktop/portal/desktop/request",
          "org.freedesktop.portal.Request", requestVTable, nullptr, true);
  }
  if (services.contains("--notifications")) {
    serve(bus.get(), "org.freedesktop.Notifications", "/org/freedesktop/Notifications",
          "org.freedesktop.Notifications", notificationsVTable);
  }
  report("ready");
  r = sd_event_loop(loop);
  return r < 0 ? fail("loop", r) : 0;
}
