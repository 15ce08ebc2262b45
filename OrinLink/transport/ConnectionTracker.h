#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <unordered_set>

namespace orin::transport {

// The open connections of one server, oldest first, and the token hashes it refuses. There is no
// read time-out; the cap bounds what idle or slow peers can hold instead: at the cap, the oldest
// connection that has not settled (a complete request, a finished handshake) makes room.
// Single-threaded: the owner's executor only.
class ConnectionTracker {
 public:
  using Id = std::uint64_t;
  // Ends the connection; may call remove() for its own id.
  using Close = std::function<void()>;

  static constexpr std::size_t defaultCap = 512;

  explicit ConnectionTracker(std::size_t cap = defaultCap) : cap_(cap < 1 ? 1 : cap) {}

  Id add(Close close);
  void settle(Id id);
  // Tags the connection with the hash it authenticated with; false when that hash is refused.
  bool authenticate(Id id, std::string hash);
  bool isRevoked(const std::string& hash) const { return revoked_.contains(hash); }
  // Refuses the hash from now on and ends its live connections.
  void revoke(std::string hash);
  void remove(Id id);
  // Ends every connection; revocations stay.
  void closeAll();

  std::size_t size() const { return open_.size(); }

 private:
  struct Entry {
    Close close;
    std::optional<std::string> hash;
  };

  void closeEntry(Id id);

  std::size_t cap_;
  Id next_ = 0;
  std::map<Id, Entry> open_;
  std::set<Id> unsettled_;
  std::unordered_set<std::string> revoked_;
};

}  // namespace orin::transport
