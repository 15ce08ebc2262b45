#pragma once

#include <atomic>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "OrinLink/system/SystemActions.h"

namespace orin::test {

// A machine the test describes: which files exist, what is on PATH, how much memory it has.
// Launches are recorded, never run.
class FakeSystemActions final : public SystemActions {
 public:
  bool fileExists(const std::filesystem::path& path) override {
    std::lock_guard lock(mutex_);
    return existing_.contains(path);
  }
  std::optional<std::filesystem::path> findOnPath(const std::string& name) override {
    std::lock_guard lock(mutex_);
    const auto it = onPath_.find(name);
    if (it == onPath_.end()) return std::nullopt;
    return it->second;
  }
  bool launchDetached(const std::vector<std::string>& argv) override {
    std::lock_guard lock(mutex_);
    launched_.push_back(argv);
    return true;
  }
  std::optional<std::string> runCapturingOutput(const std::vector<std::string>&) override {
    return std::nullopt;
  }
  // Recorded with the launches; answered with what setOutcome() gave.
  std::optional<Outcome> run(const std::vector<std::string>& argv) override {
    std::lock_guard lock(mutex_);
    launched_.push_back(argv);
    return outcome_;
  }
  void setOutcome(Outcome outcome) {
    std::lock_guard lock(mutex_);
    outcome_ = std::move(outcome);
  }
  void openURL(const std::string& url) override { launchDetached({"open", url}); }
  std::uint64_t physicalMemoryBytes() override { return memoryBytes_; }
  std::optional<std::string> computerName() override { return "Test Machine"; }

  void addFile(const std::filesystem::path& path) {
    std::lock_guard lock(mutex_);
    existing_.insert(path);
  }
  void addToPath(const std::string& name, const std::filesystem::path& path) {
    std::lock_guard lock(mutex_);
    onPath_[name] = path;
  }
  void setMemoryGiB(std::uint64_t gib) { memoryBytes_ = gib << 30; }
  // Back to a machine with nothing installed.
  void reset() {
    std::lock_guard lock(mutex_);
    existing_.clear();
    onPath_.clear();
    launched_.clear();
    outcome_ = Outcome{0, ""};
  }
  std::vector<std::vector<std::string>> launched() {
    std::lock_guard lock(mutex_);
    return launched_;
  }

 private:
  std::mutex mutex_;
  std::set<std::filesystem::path> existing_;
  std::map<std::string, std::filesystem::path> onPath_;
  std::vector<std::vector<std::string>> launched_;
  Outcome outcome_{0, ""};
  std::atomic<std::uint64_t> memoryBytes_{16ull << 30};
};

}  // namespace orin::test
