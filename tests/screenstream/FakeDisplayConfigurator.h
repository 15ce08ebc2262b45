#pragma once

// An X screen's RandR state in memory, refusing what a server refuses (a CRTC outside the
// framebuffer, a mode its output lacks, an output on two CRTCs, a mode still in use), and
// logging every change made to it.

#include <algorithm>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "OrinLink/screenstream/DisplayConfigurator.h"
#include "OrinLink/screenstream/VirtualDisplayError.h"
#include "OrinLink/screenstream/VirtualDisplayLayout.h"

namespace orin::screen::testing {

struct FakeState {
  ScreenState screen;
  std::vector<OutputInfo> outputs;
  std::vector<ModeInfo> modes;
  std::vector<MonitorInfo> userMonitors;
  bool operator==(const FakeState&) const = default;
};

// Copies share one server, so that a test keeps it while a display owns a copy; assigning
// replaces what that server holds.
class FakeDisplayConfigurator : public DisplayConfigurator {
  struct Server {
    FakeState state;
    bool monitorsSupported = true;
    std::vector<std::string> changes;
    std::set<std::string> refused;
    ScreenLimits limits;
    RandRId nextId = 0x1000;
  };
  std::shared_ptr<Server> server_ = std::make_shared<Server>();

 public:
  static constexpr RandRId mode1080 = 0x5e;

  FakeDisplayConfigurator() = default;
  FakeDisplayConfigurator(const FakeDisplayConfigurator& other)
      : DisplayConfigurator(), server_(other.server_) {}
  FakeDisplayConfigurator& operator=(const FakeDisplayConfigurator& other) {
    *server_ = *other.server_;
    return *this;
  }

  // Xorg's dummy driver: DUMMY0 on at 1920×1080, DUMMY1..3 off, one CRTC each.
  static FakeDisplayConfigurator dummyServer() {
    FakeDisplayConfigurator f;
    f.state.modes = {{mode1080, "1920x1080", reducedBlankingTiming(1920, 1080, 60)}};
    for (RandRId i = 0; i < 4; ++i) {
      f.state.outputs.push_back(
          {0x4e + i, "DUMMY" + std::to_string(i), i == 0, 0, {0x40 + i}, {mode1080}, 1});
      f.state.screen.crtcs.push_back({0x40 + i, 0, 0, 0, rotate0, {}});
    }
    f.state.screen.crtcs[0] = {0x40, mode1080, 0, 0, rotate0, {0x4e}};
    f.state.outputs[0].crtc = 0x40;
    f.state.screen = {1920, 1080, 508, 286, f.state.screen.crtcs, 0x4e};
    f.server_->limits = {64, 64, 32767, 32767};
    return f;
  }

  // Xvfb: one output "screen", a framebuffer that may grow up to maxWidth × maxHeight.
  static FakeDisplayConfigurator xvfbServer(std::uint32_t maxWidth, std::uint32_t maxHeight) {
    FakeDisplayConfigurator f;
    f.state.modes = {{mode1080, "1920x1080", {1920, 1080, 0, 0, 0, 0, 0, 0, 0, 0}}};
    f.state.outputs = {{0x3c, "screen", true, 0x3b, {0x3b}, {mode1080}, 0}};
    f.state.screen = {1920, 1080, 508, 286, {{0x3b, mode1080, 0, 0, rotate0, {0x3c}}}, 0};
    f.server_->limits = {1, 1, maxWidth, maxHeight};
    return f;
  }

  FakeState& state = server_->state;
  bool& monitorsSupported = server_->monitorsSupported;
  std::vector<std::string>& changes = server_->changes;
  // Changes (by their first word in `changes`) that the "server" refuses.
  std::set<std::string>& refused = server_->refused;

  bool hasMonitors() override { return monitorsSupported; }
  ScreenLimits limits() override { return server_->limits; }
  ScreenState screen() override { return state.screen; }
  std::vector<OutputInfo> outputs() override { return state.outputs; }
  std::vector<ModeInfo> modes() override { return state.modes; }

  // The server's order: the primary output's monitor, then those made by clients, then the
  // other outputs'.
  std::vector<MonitorInfo> monitors() override {
    std::vector<MonitorInfo> automatic;
    for (const auto& crtc : state.screen.crtcs) {
      auto bounds = crtcBounds(crtc, state.modes);
      if (!bounds) continue;
      for (RandRId id : crtc.outputs) {
        bool claimed = std::any_of(state.userMonitors.begin(), state.userMonitors.end(),
                                   [&](const MonitorInfo& m) { return has(m.outputs, id); });
        if (claimed) continue;
        MonitorInfo m{output(id)->name, bounds->x, bounds->y, bounds->width,
                      bounds->height,   0,         0,         {id}};
        if (id == state.screen.primary) {
          automatic.insert(automatic.begin(), m);
        } else {
          automatic.push_back(m);
        }
      }
    }
    std::vector<MonitorInfo> all;
    auto rest = automatic.begin();
    if (rest != automatic.end() && has(rest->outputs, state.screen.primary)) {
      all.push_back(*rest++);
    }
    all.insert(all.end(), state.userMonitors.begin(), state.userMonitors.end());
    all.insert(all.end(), rest, automatic.end());
    return all;
  }

  RandRId createMode(const std::string& name, const ModeTiming& timing) override {
    change("createMode " + name);
    for (const auto& m : state.modes) {
      if (m.name == name) throw VirtualDisplayError::requestFailed("X11", 15);
    }
    state.modes.push_back({server_->nextId, name, timing});
    return server_->nextId++;
  }

  void destroyMode(RandRId mode) override {
    change("destroyMode " + std::to_string(mode));
    for (const auto& o : state.outputs) {
      if (has(o.modes, mode)) throw VirtualDisplayError::requestFailed("X11", 10);
    }
    std::erase_if(state.modes, [&](const ModeInfo& m) { return m.id == mode; });
  }

  void addOutputMode(RandRId id, RandRId mode) override {
    change("addOutputMode " + std::to_string(id) + " " + std::to_string(mode));
    OutputInfo* o = output(id);
    if (!o || !modeInfo(mode)) throw VirtualDisplayError::requestFailed("X11", 8);
    if (!has(o->modes, mode)) o->modes.push_back(mode);
  }

  void deleteOutputMode(RandRId id, RandRId mode) override {
    change("deleteOutputMode " + std::to_string(id) + " " + std::to_string(mode));
    OutputInfo* o = output(id);
    if (!o || !has(o->modes, mode)) throw VirtualDisplayError::requestFailed("X11", 8);
    if (o->crtc && crtc(o->crtc)->mode == mode) {
      throw VirtualDisplayError::requestFailed("X11", 10);
    }
    std::erase(o->modes, mode);
  }

  void setScreenSize(std::uint32_t width, std::uint32_t height, std::uint32_t widthMM,
                     std::uint32_t heightMM) override {
    change("setScreenSize " + std::to_string(width) + "x" + std::to_string(height));
    const ScreenLimits& range = server_->limits;
    if (width < range.minWidth || width > range.maxWidth || height < range.minHeight ||
        height > range.maxHeight || widthMM == 0 || heightMM == 0) {
      throw VirtualDisplayError::requestFailed("X11", 2);
    }
    for (const auto& c : state.screen.crtcs) {
      auto b = crtcBounds(c, state.modes);
      if (b && !inside(*b, width, height)) {
        throw VirtualDisplayError::requestFailed("X11", 8);
      }
    }
    state.screen.width = width;
    state.screen.height = height;
    state.screen.widthMM = widthMM;
    state.screen.heightMM = heightMM;
  }

  void setCrtc(const CrtcState& s) override {
    change("setCrtc " + std::to_string(s.crtc) + (s.active() ? " on" : " off"));
    CrtcState* c = crtc(s.crtc);
    if (!c) throw VirtualDisplayError::requestFailed("X11", 8);
    if (s.active()) {
      const ModeInfo* m = modeInfo(s.mode);
      if (!m || s.outputs.empty()) throw VirtualDisplayError::requestFailed("X11", 8);
      for (RandRId id : s.outputs) {
        OutputInfo* o = output(id);
        if (!o || !has(o->modes, s.mode) || !has(o->possibleCrtcs, s.crtc) ||
            (o->crtc != 0 && o->crtc != s.crtc)) {
          throw VirtualDisplayError::requestFailed("X11", 8);
        }
      }
      auto b = crtcBounds(s, state.modes);
      if (!inside(*b, state.screen.width, state.screen.height)) {
        throw VirtualDisplayError::requestFailed("RandR", 3);
      }
    }
    for (RandRId id : c->outputs)
      output(id)->crtc = 0;
    *c = s;
    for (RandRId id : s.outputs)
      output(id)->crtc = s.crtc;
  }

  void setPrimary(RandRId id) override {
    change("setPrimary " + std::to_string(id));
    if (id != 0 && !output(id)) throw VirtualDisplayError::requestFailed("X11", 8);
    state.screen.primary = id;
  }

  void setMonitor(const MonitorInfo& monitor) override {
    change("setMonitor " + monitor.name);
    std::erase_if(state.userMonitors, [&](const MonitorInfo& m) { return m.name == monitor.name; });
    state.userMonitors.push_back(monitor);
  }

  void deleteMonitor(const std::string& name) override {
    change("deleteMonitor " + name);
    if (!std::erase_if(state.userMonitors, [&](const MonitorInfo& m) { return m.name == name; })) {
      throw VirtualDisplayError::requestFailed("X11", 15);
    }
  }

  OutputInfo* output(RandRId id) {
    auto it = std::find_if(state.outputs.begin(), state.outputs.end(),
                           [&](const OutputInfo& o) { return o.id == id; });
    return it == state.outputs.end() ? nullptr : &*it;
  }
  OutputInfo* output(const std::string& name) {
    auto it = std::find_if(state.outputs.begin(), state.outputs.end(),
                           [&](const OutputInfo& o) { return o.name == name; });
    return it == state.outputs.end() ? nullptr : &*it;
  }
  CrtcState* crtc(RandRId id) {
    auto it = std::find_if(state.screen.crtcs.begin(), state.screen.crtcs.end(),
                           [&](const CrtcState& c) { return c.crtc == id; });
    return it == state.screen.crtcs.end() ? nullptr : &*it;
  }
  const ModeInfo* modeInfo(RandRId id) const {
    auto it = std::find_if(state.modes.begin(), state.modes.end(),
                           [&](const ModeInfo& m) { return m.id == id; });
    return it == state.modes.end() ? nullptr : &*it;
  }

 private:
  static bool inside(const Rect& r, std::uint32_t width, std::uint32_t height) {
    return r.x >= 0 && r.y >= 0 && r.x + std::int64_t{r.width} <= width &&
           r.y + std::int64_t{r.height} <= height;
  }

  template <typename T>
  static bool has(const std::vector<T>& list, T value) {
    return std::find(list.begin(), list.end(), value) != list.end();
  }

  void change(const std::string& what) {
    changes.push_back(what);
    if (refused.count(what.substr(0, what.find(' ')))) {
      throw VirtualDisplayError::requestFailed("X11", 11);
    }
  }
};

}  // namespace orin::screen::testing
