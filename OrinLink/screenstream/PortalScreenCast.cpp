#include "OrinLink/screenstream/PortalScreenCast.h"

#include <atomic>
#include <cerrno>
#include <fcntl.h>
#include <fstream>
#include <functional>
#include <iterator>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>
#include <vector>

#include "OrinLink/screenstream/DisplayCaptureError.h"

namespace orin::screen {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

namespace {

constexpr const char* portalName = "org.freedesktop.portal.Desktop";
constexpr const char* portalPath = "/org/freedesktop/portal/desktop";
constexpr const char* screenCastInterface = "org.freedesktop.portal.ScreenCast";
constexpr const char* requestInterface = "org.freedesktop.portal.Request";
constexpr const char* sessionInterface = "org.freedesktop.portal.Session";

// The calls answer at once; only Start's Response waits for a person.
constexpr std::uint64_t callTimeout = 5000 * sdbus::millisecond;
constexpr std::chrono::milliseconds stepTimeout = std::chrono::seconds(5);

constexpr std::uint32_t cursorHidden = 1;
constexpr std::uint32_t cursorEmbedded = 2;
constexpr std::uint32_t persistUntilRevoked = 2;
constexpr std::uint32_t responseDeclined = 1;
// Restore tokens and persist_mode came with version 4 of the interface.
constexpr std::uint32_t restoreVersion = 4;

using sdbus::Slot;

[[noreturn]] void fail(int status) {
  throw DisplayCaptureError::captureFailed("portal", status);
}

int need(int status) {
  if (status < 0) fail(status);
  return status;
}

std::uint32_t readProperty(sd_bus* bus, const char* name) {
  sdbus::BusError error;
  std::uint32_t value = 0;
  if (sd_bus_get_property_trivial(bus, portalName, portalPath, screenCastInterface, name,
                                  error.get(), 'u', &value) < 0) {
    return 0;
  }
  return value;
}

std::string nextToken() {
  static std::atomic<unsigned> counter{0};
  return "orinlink" + std::to_string(::getpid()) + "_" + std::to_string(++counter);
}

struct Stream {
  std::uint32_t nodeId = 0;
  std::optional<std::pair<std::int32_t, std::int32_t>> size;
};

struct Results {
  std::optional<std::string> sessionHandle;
  std::optional<std::string> restoreToken;
  std::vector<Stream> streams;
};

std::string readText(sd_bus_message* m) {
  char type = 0;
  const char* contents = nullptr;
  need(sd_bus_message_peek_type(m, &type, &contents));
  // session_handle has been an 's' and an 'o' in different portal versions.
  const char* text = nullptr;
  need(sd_bus_message_read(m, "v", contents, &text));
  return text;
}

std::vector<Stream> readStreams(sd_bus_message* m) {
  std::vector<Stream> streams;
  need(sd_bus_message_enter_container(m, 'v', "a(ua{sv})"));
  need(sd_bus_message_enter_container(m, 'a', "(ua{sv})"));
  while (need(sd_bus_message_enter_container(m, 'r', "ua{sv}")) > 0) {
    Stream stream;
    need(sd_bus_message_read(m, "u", &stream.nodeId));
    need(sd_bus_message_enter_container(m, 'a', "{sv}"));
    while (need(sd_bus_message_enter_container(m, 'e', "sv")) > 0) {
      const char* key = nullptr;
      need(sd_bus_message_read(m, "s", &key));
      if (std::string_view(key) == "size") {
        std::int32_t width = 0;
        std::int32_t height = 0;
        need(sd_bus_message_read(m, "v", "(ii)", &width, &height));
        stream.size.emplace(width, height);
      } else {
        need(sd_bus_message_skip(m, "v"));
      }
      need(sd_bus_message_exit_container(m));
    }
    need(sd_bus_message_exit_container(m));
    need(sd_bus_message_exit_container(m));
    streams.push_back(stream);
  }
  need(sd_bus_message_exit_container(m));
  need(sd_bus_message_exit_container(m));
  return streams;
}

Results readResults(sd_bus_message* m) {
  Results results;
  need(sd_bus_message_enter_container(m, 'a', "{sv}"));
  while (need(sd_bus_message_enter_container(m, 'e', "sv")) > 0) {
    const char* key = nullptr;
    need(sd_bus_message_read(m, "s", &key));
    const std::string_view name(key);
    if (name == "session_handle") {
      results.sessionHandle = readText(m);
    } else if (name == "restore_token") {
      results.restoreToken = readText(m);
    } else if (name == "streams") {
      results.streams = readStreams(m);
    } else {
      need(sd_bus_message_skip(m, "v"));
    }
    need(sd_bus_message_exit_container(m));
  }
  need(sd_bus_message_exit_container(m));
  return results;
}

int appendEntry(sd_bus_message* m, const char* key, const char* type, auto value) {
  int r = sd_bus_message_open_container(m, 'e', "sv");
  if (r >= 0) r = sd_bus_message_append(m, "sv", key, type, value);
  if (r >= 0) r = sd_bus_message_close_container(m);
  return r;
}

// The Request objects of one connection: each call's Response is awaited on that connection, and
// the portal leaving the bus ends every wait.
class Exchange {
 public:
  explicit Exchange(sd_bus* bus) : bus_(bus) {
    const char* unique = nullptr;
    need(sd_bus_get_unique_name(bus, &unique));
    for (const char* c = unique + 1; *c != '\0'; ++c)
      sender_ += *c == '.' ? '_' : *c;
    sd_bus_slot* slot = nullptr;
    need(sd_bus_add_match(bus, &slot,
                          "type='signal',sender='org.freedesktop.DBus',"
                          "interface='org.freedesktop.DBus',member='NameOwnerChanged',"
                          "arg0='org.freedesktop.portal.Desktop'",
                          onOwnerChanged, this));
    ownerWatch_.reset(slot);
  }
  Exchange(const Exchange&) = delete;
  Exchange& operator=(const Exchange&) = delete;

  std::string sessionPath(const std::string& token) const {
    return std::string(portalPath) + "/session/" + sender_ + "/" + token;
  }

  // Calls `method` with what `append` adds (it is given the handle token) and returns the
  // Response's results. Throws on a response other than 0, on time-out and when the portal goes.
  Results request(const char* method,
                  const std::function<int(sd_bus_message*, const char*)>& append,
                  std::chrono::milliseconds timeout) {
    const std::string token = nextToken();
    const std::string predicted = std::string(portalPath) + "/request/" + sender_ + "/" + token;
    Response response;
    // Subscribed before the call, so that a Response sent at once is not missed.
    Slot watch = watchRequest(predicted, response);
    sd_bus_message* created = nullptr;
    need(sd_bus_message_new_method_call(bus_, &created, portalName, portalPath, screenCastInterface,
                                        method));
    const sdbus::Message call(created);
    need(append(created, token.c_str()));
    sdbus::BusError error;
    sd_bus_message* received = nullptr;
    need(sd_bus_call(bus_, created, 0, error.get(), &received));
    const sdbus::Message reply(received);
    const char* handle = nullptr;
    need(sd_bus_message_read(received, "o", &handle));
    const std::string requestPath = handle;
    // Older portals chose the path themselves.
    if (requestPath != predicted && !response.message) watch = watchRequest(requestPath, response);
    if (!waitFor(response, Clock::now() + timeout)) {
      sd_bus_call_method_async(bus_, nullptr, portalName, requestPath.c_str(), requestInterface,
                               "Close", nullptr, nullptr, "");
      fail(-ETIMEDOUT);
    }
    sd_bus_message* m = response.message.get();
    std::uint32_t code = 0;
    need(sd_bus_message_read(m, "u", &code));
    if (code == responseDeclined) throw DisplayCaptureError::sharingDeclined();
    if (code != 0) fail(static_cast<int>(code));
    return readResults(m);
  }

 private:
  struct Response {
    sdbus::Message message;
  };

  Slot watchRequest(const std::string& path, Response& response) {
    sd_bus_slot* slot = nullptr;
    need(sd_bus_match_signal(bus_, &slot, portalName, path.c_str(), requestInterface, "Response",
                             onResponse, &response));
    return Slot(slot);
  }

  static int onResponse(sd_bus_message* m, void* userdata, sd_bus_error*) {
    auto& response = *static_cast<Response*>(userdata);
    if (!response.message) response.message.reset(sd_bus_message_ref(m));
    return 0;
  }

  static int onOwnerChanged(sd_bus_message* m, void* userdata, sd_bus_error*) {
    const char* name = nullptr;
    const char* before = nullptr;
    const char* after = nullptr;
    if (sd_bus_message_read(m, "sss", &name, &before, &after) >= 0 && *after == '\0') {
      static_cast<Exchange*>(userdata)->vanished_ = true;
    }
    return 0;
  }

  bool waitFor(const Response& response, Clock::time_point deadline) {
    const int waited = sdbus::processUntil(
        bus_, deadline, [&] { return response.message != nullptr || vanished_; });
    need(waited);
    if (vanished_) fail(-ECONNRESET);
    return waited > 0;
  }

  sd_bus* bus_;
  std::string sender_;
  bool vanished_ = false;
  Slot ownerWatch_;
};

std::optional<std::string> keptToken(const fs::path& file) {
  if (file.empty()) return std::nullopt;
  std::ifstream in(file);
  std::string token(std::istreambuf_iterator<char>(in), {});
  if (token.empty()) return std::nullopt;
  return token;
}

bool makePrivateFolder(const fs::path& folder) {
  std::error_code ec;
  if (folder.empty() || fs::is_directory(folder, ec)) return true;
  fs::create_directories(folder.parent_path(), ec);
  return ::mkdir(folder.c_str(), 0700) == 0 || errno == EEXIST;
}

// Best effort: without the token the stream still works, the user is only asked again next time.
void keepToken(const fs::path& file, const std::string& token) {
  if (!makePrivateFolder(file.parent_path())) return;
  const fs::path temporary = file.string() + ".new";
  const int fd =
      ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0600);
  if (fd < 0) return;
  bool written = ::fchmod(fd, 0600) == 0 &&
                 ::write(fd, token.data(), token.size()) == static_cast<ssize_t>(token.size()) &&
                 ::fsync(fd) == 0;
  written = ::close(fd) == 0 && written;
  if (!written || ::rename(temporary.c_str(), file.c_str()) != 0) ::unlink(temporary.c_str());
}

}  // namespace

PortalStream::PortalStream(PortalStream&& other) noexcept
    : bus(std::move(other.bus)),
      sessionHandle(std::exchange(other.sessionHandle, {})),
      remoteFd(std::exchange(other.remoteFd, -1)),
      nodeId(other.nodeId),
      width(other.width),
      height(other.height) {}

PortalStream::~PortalStream() {
  // Not waited for: closing the bus flushes it, and a portal that went away cannot stall us.
  if (bus && !sessionHandle.empty()) {
    sd_bus_call_method_async(bus.get(), nullptr, portalName, sessionHandle.c_str(),
                             sessionInterface, "Close", nullptr, nullptr, "");
  }
  if (remoteFd >= 0) ::close(remoteFd);
  bus.reset();
}

PortalScreenCast::PortalScreenCast(Options options) : options_(std::move(options)) {}

std::uint32_t PortalScreenCast::availableSourceTypes() {
  int status = 0;
  const sdbus::Bus bus = sdbus::open(sdbus::BusKind::session, callTimeout, status);
  return bus ? readProperty(bus.get(), "AvailableSourceTypes") : 0;
}

PortalStream PortalScreenCast::start(std::uint32_t sourceType) {
  int status = 0;
  PortalStream stream;
  stream.bus = sdbus::open(sdbus::BusKind::session, callTimeout, status);
  if (!stream.bus) throw DisplayCaptureError::screenCastUnavailable();
  sd_bus* bus = stream.bus.get();
  if ((readProperty(bus, "AvailableSourceTypes") & sourceType) == 0) {
    throw DisplayCaptureError::screenCastUnavailable();
  }
  const std::uint32_t version = readProperty(bus, "version");
  const std::uint32_t cursorModes = readProperty(bus, "AvailableCursorModes");
  const std::optional<std::string> token =
      version >= restoreVersion ? keptToken(options_.restoreTokenFile) : std::nullopt;

  Exchange exchange(bus);
  const std::string sessionToken = nextToken();
  // Set before the call, so that a session the portal made is closed even if its answer is lost.
  stream.sessionHandle = exchange.sessionPath(sessionToken);
  const Results created = exchange.request(
      "CreateSession",
      [&](sd_bus_message* m, const char* handleToken) {
        return sd_bus_message_append(m, "a{sv}", 2, "handle_token", "s", handleToken,
                                     "session_handle_token", "s", sessionToken.c_str());
      },
      stepTimeout);
  if (created.sessionHandle) stream.sessionHandle = *created.sessionHandle;
  const char* session = stream.sessionHandle.c_str();

  exchange.request(
      "SelectSources",
      [&](sd_bus_message* m, const char* handleToken) {
        int r = sd_bus_message_append(m, "o", session);
        if (r >= 0) r = sd_bus_message_open_container(m, 'a', "{sv}");
        if (r >= 0) r = appendEntry(m, "handle_token", "s", handleToken);
        if (r >= 0) r = appendEntry(m, "types", "u", sourceType);
        if (r >= 0) r = appendEntry(m, "multiple", "b", 0);
        if (r >= 0 && (cursorModes & (cursorEmbedded | cursorHidden)) != 0) {
          const bool embedded = (cursorModes & cursorEmbedded) != 0;
          r = appendEntry(m, "cursor_mode", "u", embedded ? cursorEmbedded : cursorHidden);
        }
        if (r >= 0 && version >= restoreVersion) {
          r = appendEntry(m, "persist_mode", "u", persistUntilRevoked);
        }
        if (r >= 0 && token) r = appendEntry(m, "restore_token", "s", token->c_str());
        return r >= 0 ? sd_bus_message_close_container(m) : r;
      },
      stepTimeout);

  const Results started = exchange.request(
      "Start",
      [&](sd_bus_message* m, const char* handleToken) {
        return sd_bus_message_append(m, "osa{sv}", session, "", 1, "handle_token", "s",
                                     handleToken);
      },
      options_.answerTimeout);
  if (started.streams.empty()) fail(-ENODATA);
  const Stream& chosen = started.streams.front();
  stream.nodeId = chosen.nodeId;
  if (chosen.size && chosen.size->first > 0 && chosen.size->second > 0) {
    stream.width = static_cast<std::uint32_t>(chosen.size->first);
    stream.height = static_cast<std::uint32_t>(chosen.size->second);
  }
  if (!options_.restoreTokenFile.empty()) {
    std::error_code ec;
    if (started.restoreToken) {
      keepToken(options_.restoreTokenFile, *started.restoreToken);
    } else if (token) {
      // A token restores once; a spent one would only be refused next time.
      fs::remove(options_.restoreTokenFile, ec);
    }
  }

  sdbus::BusError error;
  sd_bus_message* received = nullptr;
  need(sd_bus_call_method(bus, portalName, portalPath, screenCastInterface, "OpenPipeWireRemote",
                          error.get(), &received, "oa{sv}", session, 0));
  const sdbus::Message reply(received);
  int remote = -1;
  need(sd_bus_message_read(received, "h", &remote));
  // The descriptor belongs to the reply; ours must outlive it and stay out of our children.
  stream.remoteFd = ::fcntl(remote, F_DUPFD_CLOEXEC, 3);
  if (stream.remoteFd < 0) fail(-errno);
  return stream;
}

}  // namespace orin::screen
