#include "OrinLink/screenstream/WaylandCapture.h"

#include <algorithm>
#include <cstdlib>
#include <string_view>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

#include "OrinLink/screenstream/DisplayCaptureError.h"
#include "OrinLink/screenstream/MutterScreenCast.h"
#include "OrinLink/screenstream/PipeWireCapture.h"
#include "OrinLink/screenstream/PortalScreenCast.h"
#include "OrinLink/screenstream/X11DisplayBackend.h"

namespace orin::screen {

DesktopSessionKind desktopSessionKind(const char* waylandDisplay, const char* sessionType) {
  if (waylandDisplay != nullptr && *waylandDisplay != '\0') return DesktopSessionKind::wayland;
  if (sessionType != nullptr && std::string_view(sessionType) == "wayland") {
    return DesktopSessionKind::wayland;
  }
  return DesktopSessionKind::x11;
}

DesktopSessionKind currentDesktopSessionKind() {
  return desktopSessionKind(std::getenv("WAYLAND_DISPLAY"), std::getenv("XDG_SESSION_TYPE"));
}

namespace {

// A screen cast that made a virtual monitor. The capture goes before the session that feeds it.
struct VirtualCast {
  std::shared_ptr<void> session;
  std::shared_ptr<PipeWireCapture> capture;
  std::uint32_t id = 0;
  std::string name;
  // Makes it the only monitor of the desktop and returns what puts the others back; null where
  // the desktop arranges its monitors itself.
  std::function<std::function<void()>()> adoptAsSole;
};

// What one kind of Wayland desktop offers.
class Binding {
 public:
  virtual ~Binding() = default;
  virtual std::string description() const = 0;
  virtual std::vector<BackendDisplay> displays() = 0;
  virtual std::unique_ptr<FrameSource> open(std::uint32_t displayID) = 0;
  virtual bool canMakeVirtual() = 0;
  virtual std::string whyNoVirtual() const = 0;
  // The cast and the id of the monitor it made.
  virtual std::shared_ptr<VirtualCast> makeVirtual(std::uint32_t width, std::uint32_t height,
                                                   double refreshRate) = 0;
};

int wholeRate(double refreshRate) {
  return std::clamp(static_cast<int>(refreshRate + 0.5), 1, 240);
}

class GnomeBinding final : public Binding {
 public:
  explicit GnomeBinding(std::chrono::milliseconds startTimeout) : startTimeout_(startTimeout) {}

  std::string description() const override { return "GNOME screen cast through PipeWire"; }

  std::vector<BackendDisplay> displays() override {
    std::vector<BackendDisplay> found;
    for (const auto& [id, monitor] : numbered(mutter_.monitors())) {
      found.push_back({id,
                       monitor.displayName.empty() ? std::optional<std::string>(monitor.connector)
                                                   : std::optional(monitor.displayName),
                       monitor.width, monitor.height});
    }
    return found;
  }

  std::unique_ptr<FrameSource> open(std::uint32_t displayID) override {
    for (const auto& [id, monitor] : numbered(mutter_.monitors())) {
      if (id != displayID) continue;
      std::shared_ptr<MutterScreenCast::Session> session = mutter_.recordMonitor(monitor.connector);
      std::shared_ptr<PipeWireCapture> capture = PipeWireCapture::open(
          {-1, session->nodeId(), {}, {}, wholeRate(monitor.refreshRate)}, startTimeout_);
      return makePipeWireFrameSource(std::move(capture), std::move(session));
    }
    throw DisplayCaptureError::displayNotFound();
  }

  bool canMakeVirtual() override { return mutter_.canRecordVirtual(); }
  std::string whyNoVirtual() const override {
    return "This version of GNOME cannot add a virtual display; GNOME 40 or later can.";
  }

  std::shared_ptr<VirtualCast> makeVirtual(std::uint32_t width, std::uint32_t height,
                                           double refreshRate) override {
    const auto before = mutter_.monitors();
    auto cast = std::make_shared<VirtualCast>();
    std::shared_ptr<MutterScreenCast::Session> session = mutter_.recordVirtual();
    const std::uint32_t node = session->nodeId();
    cast->session = std::move(session);
    // The size the consumer asks for is the size the monitor gets.
    cast->capture =
        PipeWireCapture::open({-1, node, width, height, wholeRate(refreshRate)}, startTimeout_);
    // The monitor joins the configuration once the stream runs; until it is listed its id is
    // unknown, so wait for it (bounded: the stream is usable without it).
    const auto deadline = std::chrono::steady_clock::now() + startTimeout_;
    do {
      const auto after = mutter_.monitors();
      const auto added = addedMonitors(before, after);
      // A busy compositor lists the monitor before it gives it a mode, and a monitor without
      // one can neither be numbered nor laid out.
      const auto ready = std::find_if(added.begin(), added.end(),
                                      [](const MutterMonitor& m) { return !m.modeId.empty(); });
      if (ready != added.end()) {
        for (const auto& [id, monitor] : numbered(after)) {
          if (monitor.connector == ready->connector) {
            cast->id = id;
            cast->name = monitor.displayName.empty() ? monitor.connector : monitor.displayName;
          }
        }
        cast->adoptAsSole = [this, connector = ready->connector] { return adoptAsSole(connector); };
        return cast;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    } while (std::chrono::steady_clock::now() < deadline);
    cast->id = displayIdForMonitorName("virtual:" + std::to_string(node));
    return cast;
  }

 private:
  // Ids from connector names, stable across restarts; monitors that are off are left out.
  static std::vector<std::pair<std::uint32_t, MutterMonitor>> numbered(
      const std::vector<MutterMonitor>& monitors) {
    std::vector<std::pair<std::uint32_t, MutterMonitor>> result;
    std::vector<std::uint32_t> ids;
    for (const auto& monitor : monitors) {
      if (monitor.width <= 0 || monitor.height <= 0) continue;
      const std::uint32_t id = displayIdForMonitorName(monitor.connector, ids);
      ids.push_back(id);
      result.emplace_back(id, monitor);
    }
    return result;
  }

  // The layout as it was goes back exactly, in this login session; the user's stored layout was
  // never changed.
  std::function<void()> adoptAsSole(const std::string& connector) {
    MutterDisplayState before = mutter_.displayState();
    // The compositor refuses a layout based on a configuration it has changed since, as it does
    // while the new monitor settles; each try starts from the current one.
    for (int attempt = 1;; ++attempt) {
      try {
        mutter_.applyLayout(before.serial, {{0, 0, 1.0, 0, true, {connector}}}, before.monitors);
        break;
      } catch (const Error&) {
        if (attempt == layoutAttempts) throw;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
      before = mutter_.displayState();
    }
    return [this, before] {
      try {
        mutter_.applyLayout(mutter_.displayState().serial, before.layout, before.monitors);
      } catch (const Error&) {
        // The compositor lays the monitors out again itself once the virtual one is gone.
      }
    };
  }

  static constexpr int layoutAttempts = 10;

  MutterScreenCast mutter_;
  std::chrono::milliseconds startTimeout_;
};

// The portal lets the user pick the screen, so it lists one display: whichever is shared.
class PortalBinding final : public Binding {
 public:
  static constexpr std::uint32_t sharedScreenID = wholeScreenDisplayID;

  PortalBinding(std::uint32_t sourceTypes, const WaylandCaptureOptions& options)
      : sourceTypes_(sourceTypes),
        portal_({options.configDirectory / "screencast-restore-token"}),
        startTimeout_(options.startTimeout) {}

  std::string description() const override { return "desktop portal screen cast through PipeWire"; }

  std::vector<BackendDisplay> displays() override {
    return {{sharedScreenID, std::string("Shared screen"), lastWidth_, lastHeight_}};
  }

  std::unique_ptr<FrameSource> open(std::uint32_t displayID) override {
    if (displayID != sharedScreenID) throw DisplayCaptureError::displayNotFound();
    auto [stream, capture] = start(portalSourceMonitor, {}, {}, 60);
    lastWidth_ = static_cast<int>(capture->width());
    lastHeight_ = static_cast<int>(capture->height());
    return makePipeWireFrameSource(std::move(capture), std::move(stream));
  }

  bool canMakeVirtual() override { return (sourceTypes_ & portalSourceVirtual) != 0; }
  std::string whyNoVirtual() const override {
    return "This desktop's screen-sharing portal offers no virtual screens, so only a real "
           "display can be streamed.";
  }

  std::shared_ptr<VirtualCast> makeVirtual(std::uint32_t width, std::uint32_t height,
                                           double refreshRate) override {
    auto [stream, capture] = start(portalSourceVirtual, width, height, wholeRate(refreshRate));
    auto cast = std::make_shared<VirtualCast>();
    cast->session = std::move(stream);
    cast->capture = std::move(capture);
    cast->id = displayIdForMonitorName("portal-virtual:" + std::to_string(++virtualCount_));
    cast->name = "Virtual screen";
    return cast;
  }

 private:
  std::pair<std::shared_ptr<PortalStream>, std::shared_ptr<PipeWireCapture>> start(
      std::uint32_t type, std::optional<std::uint32_t> width, std::optional<std::uint32_t> height,
      int rate) {
    auto stream = std::make_shared<PortalStream>(portal_.start(type));
    const int fd = std::exchange(stream->remoteFd, -1);
    std::shared_ptr<PipeWireCapture> capture =
        PipeWireCapture::open({fd, stream->nodeId, width, height, rate}, startTimeout_);
    return {std::move(stream), std::move(capture)};
  }

  std::uint32_t sourceTypes_;
  PortalScreenCast portal_;
  std::chrono::milliseconds startTimeout_;
  int lastWidth_ = 0;
  int lastHeight_ = 0;
  std::uint32_t virtualCount_ = 0;
};

bool pipeWireSocketExists() {
  if (const char* remote = std::getenv("PIPEWIRE_REMOTE"); remote && *remote) return true;
  const char* runtime = std::getenv("XDG_RUNTIME_DIR");
  if (runtime == nullptr || *runtime == '\0') return false;
  return ::access((std::string(runtime) + "/pipewire-0").c_str(), F_OK) == 0;
}

// The chosen binding and the virtual monitors alive now, shared by the display backend and the
// virtual display factory. Used from the platform executor and the capture thread.
class WaylandDesktop {
 public:
  explicit WaylandDesktop(WaylandCaptureOptions options) : options_(std::move(options)) {}

  Binding& binding() {
    std::lock_guard lock(mutex_);
    if (!binding_) binding_ = choose();
    return *binding_;
  }

  std::string describe() {
    try {
      return binding().description();
    } catch (const Error& error) {
      return std::string("none. ") + error.what();
    }
  }

  void add(const std::shared_ptr<VirtualCast>& cast) {
    std::lock_guard lock(mutex_);
    virtuals_.push_back(cast);
  }

  std::shared_ptr<VirtualCast> find(std::uint32_t id) {
    std::lock_guard lock(mutex_);
    std::erase_if(virtuals_, [](const auto& weak) { return weak.expired(); });
    for (const auto& weak : virtuals_) {
      if (auto cast = weak.lock(); cast && cast->id == id) return cast;
    }
    return nullptr;
  }

  std::vector<std::shared_ptr<VirtualCast>> virtuals() {
    std::lock_guard lock(mutex_);
    std::vector<std::shared_ptr<VirtualCast>> alive;
    for (const auto& weak : virtuals_) {
      if (auto cast = weak.lock()) alive.push_back(std::move(cast));
    }
    return alive;
  }

 private:
  std::unique_ptr<Binding> choose() {
    if (MutterScreenCast().isAvailable()) {
      return std::make_unique<GnomeBinding>(options_.startTimeout);
    }
    PortalScreenCast portal({options_.configDirectory / "screencast-restore-token"});
    const std::uint32_t types = portal.availableSourceTypes();
    if ((types & portalSourceMonitor) != 0 || (types & portalSourceVirtual) != 0) {
      return std::make_unique<PortalBinding>(types, options_);
    }
    if (!pipeWireSocketExists()) throw DisplayCaptureError::pipeWireUnavailable();
    throw DisplayCaptureError::screenCastUnavailable();
  }

  WaylandCaptureOptions options_;
  std::mutex mutex_;
  std::unique_ptr<Binding> binding_;
  std::vector<std::weak_ptr<VirtualCast>> virtuals_;
};

class WaylandDisplayBackend final : public DisplayBackend {
 public:
  explicit WaylandDisplayBackend(std::shared_ptr<WaylandDesktop> desktop)
      : desktop_(std::move(desktop)) {}

  std::vector<BackendDisplay> displays() override {
    auto found = desktop_->binding().displays();
    // A virtual monitor the desktop does not list (yet) is still ours to capture.
    for (const auto& cast : desktop_->virtuals()) {
      const bool listed = std::any_of(found.begin(), found.end(),
                                      [&](const BackendDisplay& d) { return d.id == cast->id; });
      if (!listed) {
        found.push_back({cast->id, cast->name, static_cast<int>(cast->capture->width()),
                         static_cast<int>(cast->capture->height())});
      }
    }
    return found;
  }

  std::unique_ptr<FrameSource> open(std::uint32_t displayID) override {
    if (auto cast = desktop_->find(displayID)) {
      return makePipeWireFrameSource(cast->capture, cast);
    }
    return desktop_->binding().open(displayID);
  }

 private:
  std::shared_ptr<WaylandDesktop> desktop_;
};

class CastVirtualScreen final : public VirtualScreen {
 public:
  explicit CastVirtualScreen(std::shared_ptr<VirtualCast> cast) : cast_(std::move(cast)) {}
  ~CastVirtualScreen() override {
    if (restore_) restore_();
  }
  std::uint32_t displayID() const override { return cast_->id; }
  bool adoptAsSoleDesktop() override {
    if (!cast_->adoptAsSole || restore_) return static_cast<bool>(restore_);
    try {
      restore_ = cast_->adoptAsSole();
    } catch (const Error&) {
      return false;
    }
    return true;
  }

 private:
  std::shared_ptr<VirtualCast> cast_;
  std::function<void()> restore_;
};

class WaylandVirtualDisplayFactory final : public VirtualDisplayFactory {
 public:
  explicit WaylandVirtualDisplayFactory(std::shared_ptr<WaylandDesktop> desktop)
      : desktop_(std::move(desktop)) {}

  bool isSupported() override {
    try {
      return desktop_->binding().canMakeVirtual();
    } catch (const Error&) {
      return false;
    }
  }

  std::string whyUnsupported() override {
    try {
      return desktop_->binding().whyNoVirtual();
    } catch (const Error& error) {
      return error.what();
    }
  }

  std::unique_ptr<VirtualScreen> create(const std::string&, std::uint32_t width,
                                        std::uint32_t height, double refreshRate) override {
    auto cast = desktop_->binding().makeVirtual(width, height, refreshRate);
    desktop_->add(cast);
    return std::make_unique<CastVirtualScreen>(std::move(cast));
  }

 private:
  std::shared_ptr<WaylandDesktop> desktop_;
};

}  // namespace

WaylandBindings makeWaylandBindings(const WaylandCaptureOptions& options) {
  auto desktop = std::make_shared<WaylandDesktop>(options);
  WaylandBindings bindings;
  bindings.displays = std::make_shared<WaylandDisplayBackend>(desktop);
  bindings.virtualDisplays = std::make_shared<WaylandVirtualDisplayFactory>(desktop);
  bindings.describe = [desktop] { return desktop->describe(); };
  return bindings;
}

}  // namespace orin::screen
