#include "OrinLink/screenstream/VirtualDisplayRecord.h"

#include <algorithm>

#include <nlohmann/json.hpp>

#include "OrinLink/screenstream/VirtualDisplayLayout.h"

namespace orin::screen {

void to_json(nlohmann::json& j, const CrtcState& c) {
  j = {{"crtc", c.crtc}, {"mode", c.mode},         {"x", c.x},
       {"y", c.y},       {"rotation", c.rotation}, {"outputs", c.outputs}};
}

void from_json(const nlohmann::json& j, CrtcState& c) {
  j.at("crtc").get_to(c.crtc);
  j.at("mode").get_to(c.mode);
  j.at("x").get_to(c.x);
  j.at("y").get_to(c.y);
  j.at("rotation").get_to(c.rotation);
  j.at("outputs").get_to(c.outputs);
}

void to_json(nlohmann::json& j, const ScreenState& s) {
  j = {{"width", s.width},       {"height", s.height}, {"widthMM", s.widthMM},
       {"heightMM", s.heightMM}, {"crtcs", s.crtcs},   {"primary", s.primary}};
}

void from_json(const nlohmann::json& j, ScreenState& s) {
  j.at("width").get_to(s.width);
  j.at("height").get_to(s.height);
  j.at("widthMM").get_to(s.widthMM);
  j.at("heightMM").get_to(s.heightMM);
  j.at("crtcs").get_to(s.crtcs);
  j.at("primary").get_to(s.primary);
}

std::string encodeRecord(const VirtualDisplayRecord& r) {
  nlohmann::json j = {
      {"name", r.name},
      {"modeName", r.modeName},
      {"output", r.output},
      {"crtc", r.crtc},
      {"width", r.width},
      {"height", r.height},
      {"x", r.x},
      {"y", r.y},
      {"originalWidth", r.originalWidth},
      {"originalHeight", r.originalHeight},
      {"originalWidthMM", r.originalWidthMM},
      {"originalHeightMM", r.originalHeightMM},
      {"originalPrimary", r.originalPrimary},
  };
  if (r.sole) {
    j["sole"] = {{"before", r.sole->before}, {"x", r.sole->x}, {"y", r.sole->y}};
  }
  return j.dump();
}

std::optional<VirtualDisplayRecord> decodeRecord(std::string_view line) {
  try {
    auto j = nlohmann::json::parse(line);
    VirtualDisplayRecord r;
    j.at("name").get_to(r.name);
    j.at("modeName").get_to(r.modeName);
    j.at("output").get_to(r.output);
    j.at("crtc").get_to(r.crtc);
    j.at("width").get_to(r.width);
    j.at("height").get_to(r.height);
    j.at("x").get_to(r.x);
    j.at("y").get_to(r.y);
    j.at("originalWidth").get_to(r.originalWidth);
    j.at("originalHeight").get_to(r.originalHeight);
    j.at("originalWidthMM").get_to(r.originalWidthMM);
    j.at("originalHeightMM").get_to(r.originalHeightMM);
    j.at("originalPrimary").get_to(r.originalPrimary);
    if (j.contains("sole")) {
      const auto& s = j.at("sole");
      r.sole = SoleDesktopState{s.at("before").get<ScreenState>(), s.at("x").get<std::int32_t>(),
                                s.at("y").get<std::int32_t>()};
    }
    if (r.name.empty()) return std::nullopt;
    return r;
  } catch (const nlohmann::json::exception&) {
    return std::nullopt;
  }
}

MonitorInfo monitorOf(const VirtualDisplayRecord& r) {
  MonitorInfo m{r.name,
                r.x,
                r.y,
                r.width,
                r.height,
                millimetresAt109ppi(r.width),
                millimetresAt109ppi(r.height),
                {}};
  if (r.output != 0) m.outputs.push_back(r.output);
  return m;
}

ScreenState soleDesktopLayout(const ScreenState& current, const VirtualDisplayRecord& r) {
  ScreenState target = current;
  for (auto& crtc : target.crtcs) {
    if (r.output != 0 && crtc.crtc == r.crtc) {
      crtc.x = 0;
      crtc.y = 0;
    } else if (crtc.active()) {
      crtc = CrtcState{crtc.crtc, 0, 0, 0, rotate0, {}};
    }
  }
  target.width = r.width;
  target.height = r.height;
  Millimetres mm = scaledMillimetres(current, r.width, r.height);
  target.widthMM = mm.width;
  target.heightMM = mm.height;
  if (r.output != 0) target.primary = r.output;
  return target;
}

namespace {

// Keeps the first failure; a lost connection ends the attempt, as nothing more can be done.
class Attempts {
 public:
  template <typename Step>
  void run(Step&& step) {
    if (lost_) return;
    try {
      if (auto failure = step()) keep(*failure);
    } catch (const VirtualDisplayError& error) {
      keep(error);
    }
  }
  std::optional<VirtualDisplayError> first() const { return first_; }

 private:
  void keep(const VirtualDisplayError& error) {
    if (!first_) first_ = error;
    if (error.kind() == VirtualDisplayError::Kind::connectionLost) lost_ = true;
  }
  std::optional<VirtualDisplayError> first_;
  bool lost_ = false;
};

using Outcome = std::optional<VirtualDisplayError>;

bool drives(const CrtcState& crtc, RandRId output) {
  return std::find(crtc.outputs.begin(), crtc.outputs.end(), output) != crtc.outputs.end();
}

// The framebuffer back at its size before the display came, unless what is shown now needs
// more; with that, its physical size as it was too.
void restoreFramebuffer(ScreenState& target, const std::vector<ModeInfo>& modes,
                        const VirtualDisplayRecord& r) {
  std::uint32_t width = r.originalWidth;
  std::uint32_t height = r.originalHeight;
  for (const auto& crtc : target.crtcs) {
    if (auto b = crtcBounds(crtc, modes)) {
      width = std::max(width, static_cast<std::uint32_t>(std::max(0, b->x)) + b->width);
      height = std::max(height, static_cast<std::uint32_t>(std::max(0, b->y)) + b->height);
    }
  }
  if (width == r.originalWidth && height == r.originalHeight && r.originalWidthMM > 0 &&
      r.originalHeightMM > 0) {
    target.widthMM = r.originalWidthMM;
    target.heightMM = r.originalHeightMM;
  } else {
    Millimetres mm = scaledMillimetres(target, width, height);
    target.widthMM = mm.width;
    target.heightMM = mm.height;
  }
  target.width = width;
  target.height = height;
}

}  // namespace

std::optional<VirtualDisplayError> restoreSeparateDesktops(DisplayConfigurator& configurator,
                                                           const VirtualDisplayRecord& r) {
  if (!r.sole) return std::nullopt;
  Attempts attempts;
  attempts.run([&] { return applyScreenState(configurator, r.sole->before); });
  attempts.run([&]() -> Outcome {
    VirtualDisplayRecord placed = r;
    placed.x = r.sole->x;
    placed.y = r.sole->y;
    configurator.setMonitor(monitorOf(placed));
    return std::nullopt;
  });
  return attempts.first();
}

std::optional<VirtualDisplayError> removeVirtualDisplay(DisplayConfigurator& configurator,
                                                        const VirtualDisplayRecord& r) {
  Attempts attempts;
  attempts.run([&]() -> Outcome {
    auto monitors = configurator.monitors();
    if (std::any_of(monitors.begin(), monitors.end(),
                    [&](const MonitorInfo& m) { return m.name == r.name; })) {
      configurator.deleteMonitor(r.name);
    }
    return std::nullopt;
  });
  attempts.run([&]() -> Outcome {
    ScreenState current = configurator.screen();
    auto modes = configurator.modes();
    ScreenState target = current;
    if (r.output != 0) {
      for (auto& crtc : target.crtcs) {
        if (drives(crtc, r.output)) crtc = CrtcState{crtc.crtc, 0, 0, 0, rotate0, {}};
      }
      if (target.primary == r.output) target.primary = 0;
    }
    restoreFramebuffer(target, modes, r);
    if (target.primary == 0 && r.originalPrimary != r.output) target.primary = r.originalPrimary;
    if (target == current) return std::nullopt;
    return applyScreenState(configurator, target);
  });
  if (r.modeName.empty()) return attempts.first();
  attempts.run([&]() -> Outcome {
    for (const auto& mode : configurator.modes()) {
      if (mode.name != r.modeName) continue;
      for (const auto& output : configurator.outputs()) {
        if (std::find(output.modes.begin(), output.modes.end(), mode.id) != output.modes.end()) {
          configurator.deleteOutputMode(output.id, mode.id);
        }
      }
      configurator.destroyMode(mode.id);
    }
    return std::nullopt;
  });
  return attempts.first();
}

namespace {

bool anythingShown(DisplayConfigurator& configurator) {
  auto screen = configurator.screen();
  return std::any_of(screen.crtcs.begin(), screen.crtcs.end(),
                     [](const CrtcState& c) { return c.active(); });
}

Outcome switchOnFirstScreen(DisplayConfigurator& configurator, const VirtualDisplayRecord& r) {
  ScreenState screen = configurator.screen();
  auto modes = configurator.modes();
  Outcome failure;
  for (const auto& output : configurator.outputs()) {
    if (output.id == r.output || !output.connected || output.modes.empty()) continue;
    for (RandRId crtc : output.possibleCrtcs) {
      auto idle = std::find_if(screen.crtcs.begin(), screen.crtcs.end(),
                               [&](const CrtcState& c) { return c.crtc == crtc && !c.active(); });
      if (idle == screen.crtcs.end()) continue;
      ScreenState target = screen;
      auto& on = target.crtcs[static_cast<std::size_t>(idle - screen.crtcs.begin())];
      on = CrtcState{crtc, output.modes.front(), 0, 0, rotate0, {output.id}};
      if (auto b = crtcBounds(on, modes)) {
        target.width = std::max(target.width, b->width);
        target.height = std::max(target.height, b->height);
        Millimetres mm = scaledMillimetres(screen, target.width, target.height);
        if (target.width != screen.width || target.height != screen.height) {
          target.widthMM = mm.width;
          target.heightMM = mm.height;
        }
      }
      if (target.primary == 0) target.primary = output.id;
      auto outcome = applyScreenState(configurator, target);
      if (!outcome && anythingShown(configurator)) return std::nullopt;
      if (!failure) failure = outcome;
    }
  }
  return failure;
}

}  // namespace

std::optional<VirtualDisplayError> restoreUserDesktop(DisplayConfigurator& configurator,
                                                      const VirtualDisplayRecord& r) {
  Attempts attempts;
  attempts.run([&] { return restoreSeparateDesktops(configurator, r); });
  attempts.run([&] { return removeVirtualDisplay(configurator, r); });
  if (r.sole) {
    attempts.run([&]() -> Outcome {
      if (anythingShown(configurator)) return std::nullopt;
      return switchOnFirstScreen(configurator, r);
    });
  }
  return attempts.first();
}

}  // namespace orin::screen
