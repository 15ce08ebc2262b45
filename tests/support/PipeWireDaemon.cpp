#include "tests/support/PipeWireDaemon.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace orin::testing_support {

std::optional<std::string> PipeWireDaemon::unavailable() {
  return WaylandSessionProcess::unavailable();
}

std::unique_ptr<PipeWireDaemon> PipeWireDaemon::start(std::string& why) {
  auto daemon = std::unique_ptr<PipeWireDaemon>(new PipeWireDaemon);
  daemon->session_ = WaylandSessionProcess::start({.compositor = false});
  if (!daemon->session_) {
    why = "the bus, PipeWire and WirePlumber did not start; the session script says why above";
    return nullptr;
  }
  daemon->directory_ = daemon->session_->runtimeDir();
  daemon->busAddress_ = daemon->session_->busAddress();
  return daemon;
}

PipeWireDaemon::~PipeWireDaemon() = default;

std::string PipeWireDaemon::socketPath() const {
  return directory_ + "/pipewire-0";
}

int PipeWireDaemon::connect() const {
  const std::string path = socketPath();
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof address.sun_path) return -1;
  path.copy(address.sun_path, path.size());
  const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return -1;
  if (::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) < 0) {
    ::close(fd);
    return -1;
  }
  return fd;
}

void PipeWireDaemon::useInThisProcess() {
  environment_.emplace(
      std::map<std::string, std::optional<std::string>>{{"XDG_RUNTIME_DIR", directory_},
                                                        {"DBUS_SESSION_BUS_ADDRESS", busAddress_},
                                                        {"PIPEWIRE_REMOTE", std::nullopt},
                                                        {"PIPEWIRE_RUNTIME_DIR", std::nullopt}});
}

namespace {

struct EnvironmentState {
  std::unique_ptr<PipeWireDaemon> daemon;
  std::optional<std::string> skipReason;
  std::string startFailure = "the PipeWire environment was not set up";
};

EnvironmentState& environmentState() {
  static EnvironmentState state;
  return state;
}

}  // namespace

void PipeWireEnvironment::SetUp() {
  auto& state = environmentState();
  state.skipReason = PipeWireDaemon::unavailable();
  if (state.skipReason) return;
  state.daemon = PipeWireDaemon::start(state.startFailure);
  if (state.daemon) state.daemon->useInThisProcess();
}

void PipeWireEnvironment::TearDown() {
  environmentState().daemon.reset();
}

PipeWireDaemon* PipeWireEnvironment::daemon() {
  return environmentState().daemon.get();
}

const std::optional<std::string>& PipeWireEnvironment::skipReason() {
  return environmentState().skipReason;
}

const std::string& PipeWireEnvironment::startFailure() {
  return environmentState().startFailure;
}

}  // namespace orin::testing_support
