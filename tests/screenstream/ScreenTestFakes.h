#pragma once

// Fakes the screen tests share: state that other threads change and a test waits on, an
// advertiser that records, and displays whose listing and grabs the test scripts.

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

#include "OrinLink/screenstream/DisplayBackend.h"
#include "OrinLink/screenstream/DisplayCaptureError.h"
#include "OrinLink/server/ServiceAdvertiser.h"

namespace orin::screen::fake {

struct Watched {
  std::mutex mutex;
  std::condition_variable changed;

  template <class Change>
  void record(Change change) {
    {
      std::lock_guard lock(mutex);
      change();
    }
    changed.notify_all();
  }

  template <class Predicate>
  bool eventually(Predicate predicate, std::chrono::milliseconds limit = std::chrono::seconds(10)) {
    std::unique_lock lock(mutex);
    return changed.wait_for(lock, limit, predicate);
  }

  template <class Read>
  auto read(Read r) {
    std::lock_guard lock(mutex);
    return r();
  }
};

class FakeAdvertiser : public ServiceAdvertiser, public Watched {
 public:
  struct Advert {
    std::string name;
    std::string type;
    std::uint16_t port = 0;
    TXTEntries txt;
    bool operator==(const Advert&) const = default;
  };

  std::unique_ptr<Registration> advertise(std::string name, std::string type, std::uint16_t port,
                                          TXTEntries txt) override {
    record([&] {
      adverts.push_back({std::move(name), std::move(type), port, std::move(txt)});
      ++live;
    });
    return std::make_unique<Live>(*this);
  }

  std::vector<Advert> adverts;
  int live = 0;

 private:
  struct Live : Registration {
    explicit Live(FakeAdvertiser& advertiser) : owner(advertiser) {}
    ~Live() override {
      owner.record([&] { --owner.live; });
    }
    FakeAdvertiser& owner;
  };
};

struct DisplayState : Watched {
  using Clock = std::chrono::steady_clock;
  std::vector<BackendDisplay> displays;
  std::optional<DisplayCaptureError> listingFailure;
  // Grabs that succeed before every later one throws grabFailure; negative: all succeed.
  int grabsLeft = -1;
  DisplayCaptureError grabFailure = DisplayCaptureError::displayNotFound();
  std::chrono::milliseconds grabCost{0};
  std::vector<std::uint32_t> opened;
  std::vector<Clock::time_point> grabStarts;
  std::vector<Clock::time_point> grabEnds;
  int liveSources = 0;
};

class FakeSource : public FrameSource {
 public:
  explicit FakeSource(DisplayState& state) : state_(state) {}
  ~FakeSource() override {
    state_.record([&] { --state_.liveSources; });
  }

  std::optional<CapturedFrame> grab() override {
    const auto start = DisplayState::Clock::now();
    std::chrono::milliseconds cost;
    state_.record([&] {
      if (state_.grabsLeft == 0) throw state_.grabFailure;
      if (state_.grabsLeft > 0) --state_.grabsLeft;
      state_.grabStarts.push_back(start);
      cost = state_.grabCost;
    });
    std::this_thread::sleep_for(cost);
    state_.record([&] { state_.grabEnds.push_back(DisplayState::Clock::now()); });
    return CapturedFrame{4, 4, 16, pixels_->data(), monotonicMicroseconds(), pixels_};
  }

 private:
  DisplayState& state_;
  std::shared_ptr<std::vector<std::uint8_t>> pixels_ =
      std::make_shared<std::vector<std::uint8_t>>(64, 0x80);
};

class FakeDisplays : public DisplayBackend {
 public:
  explicit FakeDisplays(DisplayState& state) : state_(state) {}

  std::vector<BackendDisplay> displays() override {
    std::lock_guard lock(state_.mutex);
    if (state_.listingFailure) throw *state_.listingFailure;
    return state_.displays;
  }

  std::unique_ptr<FrameSource> open(std::uint32_t id) override {
    bool known = false;
    state_.record([&] {
      known = std::any_of(state_.displays.begin(), state_.displays.end(),
                          [&](const BackendDisplay& d) { return d.id == id; });
      if (!known) return;
      state_.opened.push_back(id);
      ++state_.liveSources;
    });
    if (!known) throw DisplayCaptureError::displayNotFound();
    return std::make_unique<FakeSource>(state_);
  }

 private:
  DisplayState& state_;
};

}  // namespace orin::screen::fake
