#include "DeviceState.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <iterator>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

namespace orin::device {

namespace fs = std::filesystem;

namespace {

[[noreturn]] void fail(const fs::path& path, int error) {
  throw StateFileError("Could not save the device state to " + path.string() + ": " +
                       std::strerror(error) + ".");
}

// Only folders made here get mode 0700; an existing one such as /tmp is left as it is.
void createMissingFolders(const fs::path& target, const fs::path& folder) {
  fs::path partial;
  for (const fs::path& component : folder) {
    partial /= component;
    if (::mkdir(partial.c_str(), 0700) != 0 && errno != EEXIST) fail(target, errno);
  }
}

class Descriptor {
 public:
  explicit Descriptor(int fd) : fd_(fd) {}
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  ~Descriptor() {
    if (fd_ >= 0) ::close(fd_);
  }
  int get() const { return fd_; }
  // Reports the error of close itself, which can carry a late write failure.
  int close() {
    const int result = ::close(fd_);
    fd_ = -1;
    return result;
  }

 private:
  int fd_;
};

}  // namespace

DeviceState DeviceState::decode(const json::Value& value, const json::CodingPath& path) {
  const json::ObjectReader r(value, path);
  return {r.optional<std::string>("deviceId"), r.optional<std::string>("displayName"),
          r.optional<std::string>("host"), r.optional<std::uint16_t>("port"),
          r.optional<std::string>("token")};
}

json::Ordered DeviceState::encode() const {
  return json::ObjectWriter()
      .set("deviceId", deviceId)
      .set("displayName", displayName)
      .set("host", host)
      .set("port", port)
      .set("token", token)
      .take();
}

fs::path defaultStatePath() {
  fs::path base;
  // The XDG rules ignore a relative value.
  if (const char* config = std::getenv("XDG_CONFIG_HOME"); config && config[0] == '/') {
    base = config;
  } else {
    const char* home = std::getenv("HOME");
    if (home == nullptr || home[0] == '\0') {
      const passwd* entry = ::getpwuid(::getuid());
      home = entry != nullptr ? entry->pw_dir : nullptr;
    }
    if (home == nullptr || home[0] == '\0') {
      throw StateFileError(
          "There is no home folder for the device state; choose a file with --state.");
    }
    base = fs::path(home) / ".config";
  }
  return base / "orinlink-device" / "device.json";
}

DeviceState loadState(const fs::path& path) {
  std::ifstream file(path, std::ios::binary);
  if (!file) return {};
  const std::string text((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
  if (file.bad()) return {};
  try {
    return decodeJSON<DeviceState>(text);
  } catch (const DecodingError&) {
    return {};
  }
}

void saveState(const fs::path& path, const DeviceState& state) {
  const std::string bytes = encodeJSON(state, json::Format::prettySortedKeys) + "\n";
  const fs::path folder = path.has_parent_path() ? path.parent_path() : fs::path(".");
  createMissingFolders(path, folder);

  std::string temporary = (folder / ("." + path.filename().string() + ".XXXXXX")).string();
  Descriptor file(::mkstemp(temporary.data()));
  if (file.get() < 0) fail(path, errno);
  const auto discard = [&](int error) {
    ::unlink(temporary.c_str());
    fail(path, error);
  };
  if (::fchmod(file.get(), 0600) != 0) discard(errno);
  std::string_view rest = bytes;
  while (!rest.empty()) {
    const ssize_t written = ::write(file.get(), rest.data(), rest.size());
    if (written < 0) {
      if (errno == EINTR) continue;
      discard(errno);
    }
    rest.remove_prefix(static_cast<std::size_t>(written));
  }
  if (::fsync(file.get()) != 0) discard(errno);
  if (file.close() != 0) discard(errno);
  if (::rename(temporary.c_str(), path.c_str()) != 0) discard(errno);

  // The rename itself is durable only once the folder is.
  Descriptor directory(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (directory.get() >= 0) ::fsync(directory.get());
}

}  // namespace orin::device
