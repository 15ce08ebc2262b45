#include "OrinLink/transport/ConnectionTracker.h"

#include <utility>
#include <vector>

namespace orin::transport {

ConnectionTracker::Id ConnectionTracker::add(Close close) {
  if (open_.size() >= cap_ && !unsettled_.empty()) closeEntry(*unsettled_.begin());
  const Id id = next_++;
  open_.emplace(id, Entry{std::move(close), std::nullopt});
  unsettled_.insert(id);
  return id;
}

void ConnectionTracker::settle(Id id) {
  unsettled_.erase(id);
}

bool ConnectionTracker::authenticate(Id id, std::string hash) {
  if (revoked_.contains(hash)) return false;
  if (auto it = open_.find(id); it != open_.end()) it->second.hash = std::move(hash);
  return true;
}

void ConnectionTracker::revoke(std::string hash) {
  std::vector<Id> matching;
  for (const auto& [id, entry] : open_) {
    if (entry.hash == hash) matching.push_back(id);
  }
  revoked_.insert(std::move(hash));
  for (const Id id : matching)
    closeEntry(id);
}

void ConnectionTracker::remove(Id id) {
  open_.erase(id);
  unsettled_.erase(id);
}

void ConnectionTracker::closeAll() {
  auto open = std::move(open_);
  open_.clear();
  unsettled_.clear();
  for (auto& [id, entry] : open)
    entry.close();
}

// Forgotten before it is closed, so a close that calls remove() finds nothing to do.
void ConnectionTracker::closeEntry(Id id) {
  const auto it = open_.find(id);
  if (it == open_.end()) return;
  Close close = std::move(it->second.close);
  remove(id);
  close();
}

}  // namespace orin::transport
