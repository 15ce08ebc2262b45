#include "OrinLink/common/AtomicFile.h"

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <pwd.h>
#include <random>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>
#include <utility>
#include <vector>

namespace orin {
namespace {

namespace fs = std::filesystem;

[[noreturn]] void throwErrno(int error, const std::string& what) {
  throw std::system_error(error, std::generic_category(), what);
}

// Closes on every path out, so a failed write never leaks the descriptor.
class FileDescriptor {
 public:
  explicit FileDescriptor(int fd) : fd_(fd) {}
  FileDescriptor(FileDescriptor&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  FileDescriptor& operator=(FileDescriptor&&) = delete;
  ~FileDescriptor() {
    if (fd_ >= 0) ::close(fd_);
  }
  int get() const { return fd_; }
  // close() can report a deferred write error, so its result matters.
  int close() { return ::close(std::exchange(fd_, -1)); }

 private:
  int fd_;
};

std::string randomSuffix() {
  thread_local std::mt19937_64 generator{std::random_device{}()};
  static constexpr char digits[] = "0123456789abcdefghijklmnopqrstuvwxyz";
  std::uniform_int_distribution<std::size_t> pick(0, sizeof digits - 2);
  std::string suffix(12, '0');
  for (char& c : suffix)
    c = digits[pick(generator)];
  return suffix;
}

// Creates the temporary file next to the target (rename only is atomic within one file system).
std::pair<fs::path, FileDescriptor> createTemporary(const fs::path& target, mode_t mode) {
  const fs::path folder = target.has_parent_path() ? target.parent_path() : fs::path(".");
  for (int attempt = 0; attempt < 100; ++attempt) {
    fs::path candidate = folder / ("." + target.filename().string() + ".tmp-" + randomSuffix());
    const int fd = ::open(candidate.c_str(), O_CREAT | O_EXCL | O_WRONLY | O_CLOEXEC, mode);
    if (fd >= 0) return {std::move(candidate), FileDescriptor(fd)};
    if (errno != EEXIST) throwErrno(errno, "Could not create a file in " + folder.string());
  }
  throwErrno(EEXIST, "Could not create a file in " + folder.string());
}

void writeAll(int fd, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t written = ::write(fd, bytes.data(), bytes.size());
    if (written < 0) {
      if (errno == EINTR) continue;
      throw std::system_error(errno, std::generic_category());
    }
    bytes.remove_prefix(static_cast<std::size_t>(written));
  }
}

void syncFolder(const fs::path& folder) {
  FileDescriptor fd(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (fd.get() < 0) throwErrno(errno, "Could not open " + folder.string());
  // Some file systems cannot sync a folder; the rename itself has still happened.
  if (::fsync(fd.get()) != 0 && errno != EINVAL)
    throwErrno(errno, "Could not sync " + folder.string());
}

// An XDG variable counts only when it holds an absolute path.
std::optional<fs::path> xdgDirectory(const char* variable) {
  const char* value = std::getenv(variable);
  if (value == nullptr || value[0] != '/') return std::nullopt;
  return fs::path(value);
}

fs::path homeDirectory() {
  if (const char* home = std::getenv("HOME"); home != nullptr && home[0] != '\0') return home;
  std::vector<char> buffer(16384);
  passwd entry{};
  passwd* result = nullptr;
  if (::getpwuid_r(::getuid(), &entry, buffer.data(), buffer.size(), &result) == 0 &&
      result != nullptr && result->pw_dir != nullptr) {
    return result->pw_dir;
  }
  return fs::current_path();
}

}  // namespace

void writeFileAtomically(const fs::path& path, std::string_view bytes, mode_t mode) {
  auto [temporary, fd] = createTemporary(path, mode);
  try {
    // The mode must not depend on the caller's umask.
    if (::fchmod(fd.get(), mode) != 0) throw std::system_error(errno, std::generic_category());
    writeAll(fd.get(), bytes);
    if (::fsync(fd.get()) != 0) throw std::system_error(errno, std::generic_category());
    if (fd.close() != 0) throw std::system_error(errno, std::generic_category());
    if (::rename(temporary.c_str(), path.c_str()) != 0) {
      throw std::system_error(errno, std::generic_category());
    }
  } catch (const std::system_error& error) {
    ::unlink(temporary.c_str());
    throwErrno(error.code().value(), "Could not write " + path.string());
  }
  syncFolder(path.has_parent_path() ? path.parent_path() : fs::path("."));
}

void createPrivateDirectory(const fs::path& path, mode_t mode) {
  std::error_code error;
  fs::create_directories(path, error);
  if (error) throw std::system_error(error, "Could not create " + path.string());
  if (::chmod(path.c_str(), mode) != 0) throwErrno(errno, "Could not protect " + path.string());
}

std::optional<std::string> readFile(const fs::path& path) {
  FileDescriptor fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (fd.get() < 0) return std::nullopt;
  std::string bytes;
  char buffer[65536];
  for (;;) {
    const ssize_t count = ::read(fd.get(), buffer, sizeof buffer);
    if (count == 0) return bytes;
    if (count < 0) {
      if (errno == EINTR) continue;
      return std::nullopt;
    }
    bytes.append(buffer, static_cast<std::size_t>(count));
  }
}

fs::path configHome() {
  const auto base = xdgDirectory("XDG_CONFIG_HOME");
  return base ? *base : homeDirectory() / ".config";
}

fs::path defaultConfigDirectory() {
  return configHome() / "OrinLink";
}

fs::path defaultDataDirectory() {
  const auto base = xdgDirectory("XDG_DATA_HOME");
  return (base ? *base : homeDirectory() / ".local" / "share") / "OrinLink";
}

void writePrivateFile(const std::filesystem::path& path, std::string_view bytes) {
  if (path.has_parent_path()) createPrivateDirectory(path.parent_path(), 0700);
  writeFileAtomically(path, bytes, 0600);
}

}  // namespace orin
