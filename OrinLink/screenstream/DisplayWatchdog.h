#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <sys/types.h>

#include "OrinLink/screenstream/DisplayConfigurator.h"
#include "OrinLink/screenstream/VirtualDisplayRecord.h"

namespace orin::screen {

// Holds what a virtual display changed somewhere that outlives this process.
class DisplayGuard {
 public:
  virtual ~DisplayGuard() = default;
  // Hands over the record before the change it describes is made. False when the guard is
  // gone, and with it the promise that the user's screens come back.
  virtual bool update(const VirtualDisplayRecord& record) = 0;
  // Everything has been restored: the guard ends without touching the screen.
  virtual void release() = 0;
};

// The guard as a small process of its own (orinlink-display-watchdog) rather than a thread or a
// signal handler, because nothing in a process survives SIGKILL. It starts in a session of its
// own, ignores the signals that end a session, and reads records over a socket whose other end
// only this process holds (close-on-exec), so the end of the socket means this process is gone,
// however it ended. A record is sent before each change, so the watchdog always knows at least
// as much as the screen shows; it then restores from the last complete record. Dropping the
// guard without release() lets the watchdog restore too, which is how a failed restore of our
// own is retried.
class DisplayWatchdog : public DisplayGuard {
 public:
  // Starts `executable` for the X display `xDisplay` (empty means $DISPLAY) and waits until it
  // has reached the display. Nothing when it could not be started or cannot reach it.
  static std::unique_ptr<DisplayWatchdog> start(const std::string& executable,
                                                const std::string& xDisplay);
  ~DisplayWatchdog() override;
  DisplayWatchdog(const DisplayWatchdog&) = delete;
  DisplayWatchdog& operator=(const DisplayWatchdog&) = delete;

  bool update(const VirtualDisplayRecord& record) override;
  void release() override;

  pid_t pid() const { return pid_; }

 private:
  DisplayWatchdog(pid_t pid, int socket) : pid_(pid), socket_(socket) {}
  bool send(const std::string& line);
  void finish(bool released);

  pid_t pid_;
  int socket_;
};

// The watchdog executable next to the running one; nothing when there is none.
std::optional<std::string> defaultWatchdogPath();

// The watchdog's side, on the socket `fd`: reports "ready" once `connect` has reached the
// display, follows the records until the socket closes, then restores from the last record
// unless it was released. Returns the process's exit status.
int runDisplayWatchdog(int fd,
                       const std::function<std::unique_ptr<DisplayConfigurator>()>& connect);

}  // namespace orin::screen
