#include "OrinLink/screenstream/ThreadPriority.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <filesystem>
#include <string>
#include <sys/resource.h>

namespace orin::screen {

std::vector<pid_t> ThreadPriorityKeeper::threads() {
  std::vector<pid_t> ids;
  std::error_code failed;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/task", failed)) {
    const std::string name = entry.path().filename().string();
    pid_t id = 0;
    const auto [end, error] = std::from_chars(name.data(), name.data() + name.size(), id);
    if (error == std::errc() && end == name.data() + name.size()) ids.push_back(id);
  }
  std::sort(ids.begin(), ids.end());
  return ids;
}

void ThreadPriorityKeeper::adoptStartedBetween(const std::vector<pid_t>& before,
                                               const std::vector<pid_t>& after) {
  threads_.clear();
  std::set_difference(after.begin(), after.end(), before.begin(), before.end(),
                      std::back_inserter(threads_));
  // On Linux a priority belongs to a thread; 0 is the calling one.
  errno = 0;
  const int own = ::getpriority(PRIO_PROCESS, 0);
  priority_ = errno == 0 ? own : 0;
  checksLeft_ = threads_.empty() ? 0 : checks;
}

void ThreadPriorityKeeper::restore() {
  if (checksLeft_ == 0) return;
  if (--checksLeft_ == 0) threads_.clear();
  for (auto it = threads_.begin(); it != threads_.end();) {
    errno = 0;
    const int priority = ::getpriority(PRIO_PROCESS, static_cast<id_t>(*it));
    if (errno != 0) {
      it = threads_.erase(it);  // Gone.
      continue;
    }
    if (priority > priority_ &&
        ::setpriority(PRIO_PROCESS, static_cast<id_t>(*it), priority_) != 0) {
      // Not allowed here; every other thread would be refused alike.
      threads_.clear();
      checksLeft_ = 0;
      return;
    }
    ++it;
  }
}

}  // namespace orin::screen
