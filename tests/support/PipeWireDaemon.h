#pragma once

#include <memory>
#include <optional>
#include <string>

#include <gtest/gtest.h>

#include "tests/support/ScopedEnvironment.h"
#include "tests/support/WaylandSessionProcess.h"

namespace orin::testing_support {

// A PipeWire of the test's own: a session bus, pipewire and wireplumber (which links streams to
// their targets) from scripts/wayland-session.sh without a compositor, in a runtime directory of
// their own, so nothing of the user's session is seen or touched. They stop when this goes, and
// also when the test process dies.
class PipeWireDaemon {
 public:
  // Why this cannot run here (a program missing from PATH), for a skip; nullopt when it can.
  static std::optional<std::string> unavailable();
  // Starts the three and waits until WirePlumber is connected to PipeWire. Null when something
  // does not come up; `why` then says so.
  static std::unique_ptr<PipeWireDaemon> start(std::string& why);
  ~PipeWireDaemon();
  PipeWireDaemon(const PipeWireDaemon&) = delete;
  PipeWireDaemon& operator=(const PipeWireDaemon&) = delete;

  const std::string& runtimeDirectory() const { return directory_; }
  // The PipeWire socket, `runtimeDirectory()/pipewire-0`.
  std::string socketPath() const;
  // unix:path=… of the session bus.
  const std::string& busAddress() const { return busAddress_; }
  // A new connection to PipeWire, for pw_context_connect_fd (which takes it over); -1 on failure.
  int connect() const;
  // Points this process at these daemons: XDG_RUNTIME_DIR and DBUS_SESSION_BUS_ADDRESS set,
  // PIPEWIRE_REMOTE and PIPEWIRE_RUNTIME_DIR unset, so pw_context_connect() and the user bus
  // reach them. Put back as they were when this goes. Call before other threads read them.
  void useInThisProcess();

 private:
  PipeWireDaemon() = default;

  std::unique_ptr<WaylandSessionProcess> session_;
  std::string directory_;
  std::string busAddress_;
  std::optional<test::ScopedEnvironment> environment_;
};

// One daemon for a test binary, set up before its first test and used by this process (ctest
// runs every case in a process of its own, so one daemon per case there). Register it with
//   ::testing::AddGlobalTestEnvironment(new PipeWireEnvironment);
// and begin each test with
//   if (auto why = PipeWireEnvironment::skipReason()) GTEST_SKIP() << *why;
//   ASSERT_TRUE(PipeWireEnvironment::daemon()) << PipeWireEnvironment::startFailure();
class PipeWireEnvironment : public ::testing::Environment {
 public:
  void SetUp() override;
  void TearDown() override;

  // Null when the daemons are not running.
  static PipeWireDaemon* daemon();
  // Set when PipeWire or WirePlumber is not installed.
  static const std::optional<std::string>& skipReason();
  // Why the daemons did not start although installed.
  static const std::string& startFailure();
};

}  // namespace orin::testing_support
