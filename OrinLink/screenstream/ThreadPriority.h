#pragma once

#include <sys/types.h>
#include <vector>

namespace orin::screen {

// Puts threads that a library started back at the priority of the thread that started them.
// x265's pool lowers its workers' priority by ten steps; beside a busy build the stream then
// falls to about a frame a second. Raising a priority again needs the right to (root,
// CAP_SYS_NICE or RLIMIT_NICE); without it the threads stay as the library left them.
class ThreadPriorityKeeper {
 public:
  // The process's threads now.
  static std::vector<pid_t> threads();

  // Takes charge of the threads in `after` that are not in `before`, to be put back to the
  // calling thread's priority.
  void adoptStartedBetween(const std::vector<pid_t>& before, const std::vector<pid_t>& after);
  // Puts back any adopted thread that has lowered its priority since. A thread lowers it once it
  // runs, which may be after the library has returned, so this is called for a while (each
  // call is a system call per thread) and then gives up.
  void restore();

 private:
  static constexpr int checks = 120;

  std::vector<pid_t> threads_;
  int priority_ = 0;
  int checksLeft_ = 0;
};

}  // namespace orin::screen
