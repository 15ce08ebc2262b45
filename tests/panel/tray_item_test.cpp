#include <condition_variable>
#include <future>
#include <mutex>

#include <boost/asio/post.hpp>
#include <gtest/gtest.h>

#include "OrinLink/concurrency/SerialExecutor.h"
#include "OrinLink/ui/TrayItem.h"

#include "tests/panel/TrayHost.h"

namespace orin::test {
namespace {

class TrayItemTest : public testing::Test {
 protected:
  template <class F>
  auto onTray(F function) {
    std::packaged_task<decltype(function())()> task(std::move(function));
    auto result = task.get_future();
    boost::asio::post(loop_.executor(), [&task] { task(); });
    return result.get();
  }

  void makeTray() {
    onTray([&] {
      tray_ = TrayItem::make(loop_.executor(), bus_.address());
      tray_->setActions({record("open"), record("newCode"), record("toggleServer"),
                         record("toggleStreaming"), record("quit")});
      tray_->update(state_);
    });
    ASSERT_TRUE(host_.waitUntil([&] { return !host_.itemName.empty(); }));
  }

  std::function<void()> record(std::string name) {
    return [this, name] {
      std::lock_guard lock(mutex_);
      ran_.push_back(name);
      ranChanged_.notify_all();
    };
  }
  bool waitForAction(const std::string& name) {
    std::unique_lock lock(mutex_);
    return ranChanged_.wait_for(lock, trayBound,
                                [&] { return !ran_.empty() && ran_.back() == name; });
  }

  void TearDown() override {
    onTray([&] { tray_.reset(); });
  }

  PrivateBus bus_;
  Host host_{bus_.address()};
  TrayState state_{"idle", "Orin's ready — gemma4 loads on first use.", true, false};
  SerialExecutor loop_{"test.tray"};
  std::unique_ptr<TrayItem> tray_;
  std::mutex mutex_;
  std::condition_variable ranChanged_;
  std::vector<std::string> ran_;
};

TEST_F(TrayItemTest, WaitsForATrayHostAndRegistersWhenOneAppears) {
  makeTray();
  EXPECT_TRUE(onTray([&] { return tray_->hasBus(); }));
  host_.becomeWatcher();
  ASSERT_TRUE(host_.waitUntil([&] { return !host_.registered.empty(); }));
  EXPECT_EQ(host_.registered, host_.itemName);
  host_.tooltip();  // a round trip: the tray has had the watcher's answer by now
  EXPECT_EQ(onTray([&] { return tray_->registeredName(); }), host_.itemName);
}

TEST_F(TrayItemTest, ShowsTheOrbsMoodThePresenceAndTheBadge) {
  host_.becomeWatcher();
  makeTray();
  ASSERT_TRUE(host_.waitUntil([&] { return !host_.registered.empty(); }));
  struct Step {
    std::string name;
    std::string mood;
    std::string presence;
    std::optional<std::string> badge;
    std::string title;
  };
  const Step steps[] = {
      {"ready", "idle", state_.presence, std::nullopt, "Orin Link"},
      {"answering", "thinking", "Answering Phone…", "1", "Orin Link · 1 busy"},
      {"streaming too", "streaming", "Answering Phone…", "3", "Orin Link · 3 busy"},
      {"all quiet", "dormant", "Server is stopped", std::nullopt, "Orin Link"},
  };
  for (const auto& step : steps) {
    const int iconsBefore = host_.signals["NewIcon"];
    const bool iconChanges = onTray([&] {
      TrayState next = state_;
      next.mood = step.mood;
      next.presence = step.presence;
      const bool changes = next.mood != state_.mood;
      state_ = next;
      tray_->update(next);
      tray_->setBadge(step.badge);
      return changes;
    });
    if (iconChanges) {
      EXPECT_TRUE(host_.waitUntil([&] { return host_.signals["NewIcon"] > iconsBefore; }))
          << step.name;
    }
    const auto [pixels, sizes] = host_.icon();
    EXPECT_EQ(pixels, orbIcon(step.mood, 22, step.badge.has_value())) << step.name;
    EXPECT_EQ(sizes, (std::vector<int>{22, 44})) << step.name;
    EXPECT_EQ(host_.tooltip(), std::make_pair(step.title, step.presence)) << step.name;
  }
  EXPECT_NE(orbIcon("idle", 22, false), orbIcon("thinking", 22, false));
  EXPECT_NE(orbIcon("idle", 22, false), orbIcon("idle", 22, true));
}

TEST_F(TrayItemTest, TheMenuFollowsTheStateAndRunsItsActions) {
  makeTray();
  auto [revision, items] = host_.menu();
  std::vector<std::string> labels;
  for (const auto& item : items)
    labels.push_back(item.label);
  EXPECT_EQ(labels, (std::vector<std::string>{"Open Orin Link", "", "New Code", "Stop Server",
                                              "Screen Streaming", "", "Quit"}));
  EXPECT_EQ(items[4].toggleState, 0);

  const std::pair<std::string, std::string> clicks[] = {{"Open Orin Link", "open"},
                                                        {"New Code", "newCode"},
                                                        {"Stop Server", "toggleServer"},
                                                        {"Screen Streaming", "toggleStreaming"},
                                                        {"Quit", "quit"}};
  for (const auto& [label, action] : clicks) {
    const auto item = std::find_if(items.begin(), items.end(),
                                   [&](const auto& entry) { return entry.label == label; });
    ASSERT_NE(item, items.end()) << label;
    host_.click(item->id);
    EXPECT_TRUE(waitForAction(action)) << label;
  }

  onTray([&] { tray_->update({"idle", "Server is stopped", false, true}); });
  const auto [later, changed] = host_.menu();
  EXPECT_GT(later, revision);
  EXPECT_EQ(changed[3].label, "Start Server");
  EXPECT_EQ(changed[4].toggleState, 1);

  // Where streaming is not available its item is greyed out and does nothing.
  onTray([&] { tray_->update({"idle", "Server is stopped", false, std::nullopt}); });
  const auto [_, unavailable] = host_.menu();
  EXPECT_FALSE(unavailable[4].enabled);
  host_.click(unavailable[4].id);
  host_.click(unavailable[2].id);
  EXPECT_TRUE(waitForAction("newCode"));
  std::lock_guard lock(mutex_);
  EXPECT_EQ(std::count(ran_.begin(), ran_.end(), "toggleStreaming"), 1);
}

TEST_F(TrayItemTest, DoesNothingWithoutABus) {
  onTray([&] {
    tray_ = TrayItem::make(loop_.executor(), "unix:path=/nonexistent/orinlink-test-bus");
    tray_->update({"thinking", "Answering Phone…", true, true});
    tray_->setBadge("2");
  });
  EXPECT_FALSE(onTray([&] { return tray_->hasBus(); }));
  EXPECT_EQ(onTray([&] { return tray_->registeredName(); }), "");
}

}  // namespace
}  // namespace orin::test
