#include "tests/screenstream/PortalStandIn.h"

#include <cerrno>
#include <cstring>
#include <string_view>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace orin::test {

namespace {

constexpr const char* desktopPath = "/org/freedesktop/portal/desktop";
constexpr const char* requestPrefix = "/org/freedesktop/portal/desktop/request";
constexpr const char* sessionPrefix = "/org/freedesktop/portal/desktop/session";

std::string senderElement(sd_bus_message* m) {
  std::string element;
  for (const char* c = sd_bus_message_get_sender(m) + 1; *c != '\0'; ++c)
    element += *c == '.' ? '_' : *c;
  return element;
}

std::string requestPath(sd_bus_message* m, const VarDict& options) {
  return std::string(requestPrefix) + "/" + senderElement(m) + "/" +
         options.texts.at("handle_token");
}

int appendStreams(sd_bus_message* m, const std::optional<PortalStandIn::Stream>& stream) {
  if (!stream) return sd_bus_message_append(m, "{sv}", "streams", "a(ua{sv})", 0U);
  if (!stream->size) {
    return sd_bus_message_append(m, "{sv}", "streams", "a(ua{sv})", 1U, stream->nodeId, 1U,
                                 "source_type", "u", 1U);
  }
  return sd_bus_message_append(m, "{sv}", "streams", "a(ua{sv})", 1U, stream->nodeId, 2U,
                               "source_type", "u", 1U, "size", "(ii)", stream->size->first,
                               stream->size->second);
}

}  // namespace

struct PortalCalls {
  static int stop(sd_event_source* source, int, std::uint32_t, void*) {
    return sd_event_exit(sd_event_source_get_event(source), 0);
  }

  static int createSession(sd_bus_message* m, void* userdata, sd_bus_error*) {
    auto& self = *static_cast<PortalStandIn*>(userdata);
    VarDict options;
    int r = readVarDict(m, options);
    if (r < 0) return r;
    const std::string request = requestPath(m, options);
    const std::string session = std::string(sessionPrefix) + "/" + senderElement(m) + "/" +
                                options.texts.at("session_handle_token");
    r = sd_bus_reply_method_return(m, "o", request.c_str());
    if (r < 0) return r;
    return self.respond(request, self.behaviour_.createResponse, {{"session_handle", session}});
  }

  static int selectSources(sd_bus_message* m, void* userdata, sd_bus_error*) {
    auto& self = *static_cast<PortalStandIn*>(userdata);
    const char* session = nullptr;
    int r = sd_bus_message_read(m, "o", &session);
    VarDict options;
    if (r >= 0) r = readVarDict(m, options);
    if (r < 0) return r;
    const auto number = [&](const char* key) -> std::optional<std::uint32_t> {
      const auto found = options.numbers.find(key);
      return found != options.numbers.end()
                 ? std::optional(static_cast<std::uint32_t>(found->second))
                 : std::nullopt;
    };
    const auto token = options.texts.find("restore_token");
    {
      const std::lock_guard lock(self.mutex_);
      ++self.seen_.selects;
      self.seen_.types = number("types").value_or(0);
      self.seen_.cursorMode = number("cursor_mode");
      self.seen_.persistMode = number("persist_mode");
      const auto multiple = number("multiple");
      self.seen_.multiple = multiple ? std::optional(*multiple != 0) : std::nullopt;
      self.seen_.restoreToken =
          token != options.texts.end() ? std::optional(token->second) : std::nullopt;
    }
    std::uint32_t code = self.behaviour_.selectResponse;
    if (self.behaviour_.requireLastToken && !self.lastToken_.empty() &&
        (token == options.texts.end() || token->second != self.lastToken_)) {
      code = 2;
    }
    const std::string request = requestPath(m, options);
    r = sd_bus_reply_method_return(m, "o", request.c_str());
    return r < 0 ? r : self.respond(request, code, {});
  }

  static int start(sd_bus_message* m, void* userdata, sd_bus_error*) {
    auto& self = *static_cast<PortalStandIn*>(userdata);
    const char* session = nullptr;
    const char* parent = nullptr;
    int r = sd_bus_message_read(m, "os", &session, &parent);
    VarDict options;
    if (r >= 0) r = readVarDict(m, options);
    if (r < 0) return r;
    const std::string request = requestPath(m, options);
    r = sd_bus_reply_method_return(m, "o", request.c_str());
    if (r < 0) return r;
    switch (self.behaviour_.start) {
      case PortalStandIn::Behaviour::Start::ignore:
        return 0;
      case PortalStandIn::Behaviour::Start::vanish:
        return sd_event_exit(self.loop_, 0);
      case PortalStandIn::Behaviour::Start::answer:
        break;
    }
    std::vector<std::pair<std::string, std::string>> texts;
    if (self.behaviour_.handOutTokens && self.behaviour_.startResponse == 0) {
      self.lastToken_ = "token-" + std::to_string(++self.tokens_);
      texts.emplace_back("restore_token", self.lastToken_);
    }
    return self.respond(request, self.behaviour_.startResponse, texts, true);
  }

  static int openPipeWireRemote(sd_bus_message* m, void* userdata, sd_bus_error*) {
    auto& self = *static_cast<PortalStandIn*>(userdata);
    int ends[2] = {-1, -1};
    if (self.behaviour_.pipeWireSocket.empty()) {
      if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) return -errno;
      // What the client reads proves it holds this connection; the end closes with the write.
      [[maybe_unused]] const ssize_t said = ::write(ends[1], "pipewire", 8);
      ::close(ends[1]);
    } else {
      ends[0] = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
      sockaddr_un address{};
      address.sun_family = AF_UNIX;
      const std::string path = self.behaviour_.pipeWireSocket.string();
      std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
      if (ends[0] < 0 ||
          ::connect(ends[0], reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        const int failure = -errno;
        if (ends[0] >= 0) ::close(ends[0]);
        return failure;
      }
    }
    const int r = sd_bus_reply_method_return(m, "h", ends[0]);
    ::close(ends[0]);
    return r;
  }

  static int closeObject(sd_bus_message* m, void* userdata, sd_bus_error*) {
    auto& self = *static_cast<PortalStandIn*>(userdata);
    {
      const std::lock_guard lock(self.mutex_);
      const std::string_view path = sd_bus_message_get_path(m);
      ++(path.starts_with(sessionPrefix) ? self.seen_.sessionsClosed : self.seen_.requestsClosed);
    }
    return sd_bus_reply_method_return(m, "");
  }

  static int property(sd_bus*, const char*, const char*, const char* name, sd_bus_message* reply,
                      void* userdata, sd_bus_error*) {
    const auto& behaviour = static_cast<PortalStandIn*>(userdata)->behaviour_;
    const std::string_view property(name);
    const std::uint32_t value = property == "version"                ? behaviour.version
                                : property == "AvailableSourceTypes" ? behaviour.sourceTypes
                                                                     : behaviour.cursorModes;
    return sd_bus_message_append(reply, "u", value);
  }

  static const sd_bus_vtable* screenCastVTable() {
    static const sd_bus_vtable table[] = {
        SD_BUS_VTABLE_START(0),
        SD_BUS_PROPERTY("version", "u", property, 0, SD_BUS_VTABLE_PROPERTY_CONST),
        SD_BUS_PROPERTY("AvailableSourceTypes", "u", property, 0, SD_BUS_VTABLE_PROPERTY_CONST),
        SD_BUS_PROPERTY("AvailableCursorModes", "u", property, 0, SD_BUS_VTABLE_PROPERTY_CONST),
        SD_BUS_METHOD("CreateSession", "a{sv}", "o", createSession, SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_METHOD("SelectSources", "oa{sv}", "o", selectSources, SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_METHOD("Start", "osa{sv}", "o", start, SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_METHOD("OpenPipeWireRemote", "oa{sv}", "h", openPipeWireRemote,
                      SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_VTABLE_END,
    };
    return table;
  }

  static const sd_bus_vtable* closeVTable() {
    static const sd_bus_vtable table[] = {
        SD_BUS_VTABLE_START(0),
        SD_BUS_METHOD("Close", "", "", closeObject, SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_VTABLE_END,
    };
    return table;
  }
};

PortalStandIn::PortalStandIn(const std::string& address, Behaviour behaviour)
    : behaviour_(std::move(behaviour)), bus_(connectToBus(address)) {
  if (behaviour_.screenCast) {
    serve(bus_.get(), nullptr, desktopPath, "org.freedesktop.portal.ScreenCast",
          PortalCalls::screenCastVTable(), this);
  }
  serve(bus_.get(), nullptr, requestPrefix, "org.freedesktop.portal.Request",
        PortalCalls::closeVTable(), this, true);
  serve(bus_.get(), "org.freedesktop.portal.Desktop", sessionPrefix,
        "org.freedesktop.portal.Session", PortalCalls::closeVTable(), this, true);
  busCheck(sd_event_new(&loop_), "sd_event_new");
  busCheck(sd_bus_attach_event(bus_.get(), loop_, 0), "attach");
  stopFd_ = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  busCheck(stopFd_ < 0 ? -errno : 0, "eventfd");
  busCheck(sd_event_add_io(loop_, nullptr, stopFd_, EPOLLIN, PortalCalls::stop, this), "stop");
  thread_ = std::thread([this] {
    sd_event_loop(loop_);
    // Leaving the loop is leaving the bus, as a portal that crashed would.
    bus_.reset();
  });
}

PortalStandIn::~PortalStandIn() {
  if (thread_.joinable()) {
    const std::uint64_t one = 1;
    [[maybe_unused]] const ssize_t written = ::write(stopFd_, &one, sizeof one);
    thread_.join();
  }
  sd_event_unref(loop_);
  if (stopFd_ >= 0) ::close(stopFd_);
}

PortalStandIn::Seen PortalStandIn::seen() const {
  const std::lock_guard lock(mutex_);
  return seen_;
}

int PortalStandIn::respond(const std::string& request, std::uint32_t code,
                           const std::vector<std::pair<std::string, std::string>>& texts,
                           bool withStream) {
  sd_bus_message* signal = nullptr;
  int r = sd_bus_message_new_signal(bus_.get(), &signal, request.c_str(),
                                    "org.freedesktop.portal.Request", "Response");
  if (r < 0) return r;
  r = sd_bus_message_append(signal, "u", code);
  if (r >= 0) r = sd_bus_message_open_container(signal, 'a', "{sv}");
  for (const auto& [key, value] : texts) {
    if (r >= 0) r = sd_bus_message_append(signal, "{sv}", key.c_str(), "s", value.c_str());
  }
  if (r >= 0 && withStream) r = appendStreams(signal, behaviour_.stream);
  if (r >= 0) r = sd_bus_message_close_container(signal);
  if (r >= 0) r = sd_bus_send(bus_.get(), signal, nullptr);
  sd_bus_message_unref(signal);
  return r;
}

}  // namespace orin::test
