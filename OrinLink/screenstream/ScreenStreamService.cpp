#include "OrinLink/screenstream/ScreenStreamService.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <type_traits>

#include <boost/asio/co_spawn.hpp>
#include <boost/asio/detached.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/strand.hpp>
#include <boost/asio/use_awaitable.hpp>

#include "OrinLink/common/ErrorDescription.h"
#include "OrinLink/screenstream/OrinVirtualDisplay.h"
#include "OrinLink/screenstream/VirtualDisplayError.h"
#include "OrinLink/screenstream/WaylandCapture.h"
#include "OrinLink/screenstream/X11DisplayBackend.h"

namespace orin::screen {

namespace asio = boost::asio;

namespace {

constexpr int maxStreamWidth = 5120;

constexpr std::string_view keyEnabled = "screenStreamEnabled";
constexpr std::string_view keyPort = "screenStreamPort";
constexpr std::string_view keyDisplayID = "screenStreamDisplayID";
constexpr std::string_view keyPresetHeight = "screenStreamPresetHeight";
constexpr std::string_view keyVirtualPreset = "screenStreamVirtualPreset";
constexpr std::string_view keyMergeDesktop = "screenStreamVirtualMergeDesktop";
constexpr std::string_view keyFPS = "screenStreamFPS";

constexpr std::string_view streamingOff = "Streaming is off.";

// Capped, then halved, truncated and doubled: always even, never above the cap.
int evenWidth(double width) {
  const double capped = std::min(width, static_cast<double>(maxStreamWidth));
  return static_cast<int>(capped / 2.0) * 2;
}

int clampFramesPerSecond(std::int64_t fps) {
  if (fps <= 0) return ScreenStreamService::defaultFramesPerSecond;
  return static_cast<int>(std::min<std::int64_t>(fps, ScreenStreamService::maxFramesPerSecond));
}

std::uint16_t portOrDefault(std::int64_t port) {
  if (port <= 0 || port > std::numeric_limits<std::uint16_t>::max()) {
    return ScreenStreamService::defaultPort;
  }
  return static_cast<std::uint16_t>(port);
}

std::vector<CapturableDisplay> listDisplays(DisplayBackend& backend) {
  std::vector<CapturableDisplay> displays;
  for (const auto& d : backend.displays()) {
    displays.push_back({d.id, displayName(d.id, d.screenName, d.pointWidth, d.pointHeight),
                        d.pointWidth, d.pointHeight});
  }
  return displays;
}

bool blocksCapture(const DisplayCaptureError& error) {
  switch (error.kind()) {
    case DisplayCaptureError::Kind::permissionDenied:
    case DisplayCaptureError::Kind::displayServerUnreachable:
    case DisplayCaptureError::Kind::sharingDeclined:
    case DisplayCaptureError::Kind::pipeWireUnavailable:
    case DisplayCaptureError::Kind::screenCastUnavailable:
      return true;
    default:
      return false;
  }
}

// What the platform offers, found out on its executor in one go.
struct Survey {
  std::string binding;
  bool virtualSupported = false;
  std::string virtualProblem;
  std::vector<CapturableDisplay> displays;
  std::exception_ptr failure;
};

Survey survey(const StreamPlatform& platform) {
  Survey result;
  if (platform.describeCapture) result.binding = platform.describeCapture();
  try {
    result.virtualSupported = platform.virtualDisplays && platform.virtualDisplays->isSupported();
    if (!result.virtualSupported && platform.virtualDisplays)
      result.virtualProblem = platform.virtualDisplays->whyUnsupported();
    if (!result.virtualSupported && result.virtualProblem.empty())
      result.virtualProblem = VirtualDisplayError::unsupported().what();
  } catch (...) {
    result.virtualSupported = false;
  }
  try {
    result.displays = listDisplays(*platform.displays);
  } catch (...) {
    result.failure = std::current_exception();
  }
  return result;
}

// Runs a blocking call where it is spawned; its result or exception goes to the awaiting
// coroutine.
template <class F>
asio::awaitable<std::invoke_result_t<F&>> blocking(F f) {
  co_return f();
}

class RandRVirtualScreen final : public VirtualScreen {
 public:
  explicit RandRVirtualScreen(std::unique_ptr<OrinVirtualDisplay> display)
      : display_(std::move(display)) {}
  std::uint32_t displayID() const override { return display_->displayID(); }
  bool adoptAsSoleDesktop() override { return display_->adoptAsSoleDesktop(); }

 private:
  std::unique_ptr<OrinVirtualDisplay> display_;
};

class RandRVirtualDisplayFactory final : public VirtualDisplayFactory {
 public:
  explicit RandRVirtualDisplayFactory(OrinVirtualDisplay::Options options)
      : options_(std::move(options)) {}
  bool isSupported() override { return OrinVirtualDisplay::isSupported(options_.xDisplay); }
  std::unique_ptr<VirtualScreen> create(const std::string& name, std::uint32_t width,
                                        std::uint32_t height, double refreshRate) override {
    return std::make_unique<RandRVirtualScreen>(
        OrinVirtualDisplay::create(name, width, height, refreshRate, options_));
  }

 private:
  OrinVirtualDisplay::Options options_;
};

}  // namespace

int presetHeight(StreamResolutionPreset preset) {
  switch (preset) {
    case StreamResolutionPreset::fullHD:
      return 1080;
    case StreamResolutionPreset::quadHD:
      return 1440;
    case StreamResolutionPreset::ultraHD:
      return 2160;
  }
  return 1440;
}

std::string_view shortLabel(StreamResolutionPreset preset) {
  switch (preset) {
    case StreamResolutionPreset::fullHD:
      return "1080p";
    case StreamResolutionPreset::quadHD:
      return "1440p";
    case StreamResolutionPreset::ultraHD:
      return "4K";
  }
  return "1440p";
}

std::int64_t baseAverageBitrate(StreamResolutionPreset preset) {
  switch (preset) {
    case StreamResolutionPreset::fullHD:
      return 12'000'000;
    case StreamResolutionPreset::quadHD:
      return 20'000'000;
    case StreamResolutionPreset::ultraHD:
      return 35'000'000;
  }
  return 20'000'000;
}

StreamResolutionPreset resolutionPresetForHeight(std::int64_t height) {
  if (height == 1080) return StreamResolutionPreset::fullHD;
  if (height == 2160) return StreamResolutionPreset::ultraHD;
  return StreamResolutionPreset::quadHD;
}

std::optional<PixelSize> virtualSize(VirtualDisplayPreset preset) {
  switch (preset) {
    case VirtualDisplayPreset::off:
      return std::nullopt;
    case VirtualDisplayPreset::ultrawide:
      return PixelSize{3440, 1440};
    case VirtualDisplayPreset::superUltrawide:
      return PixelSize{5120, 1440};
  }
  return std::nullopt;
}

std::string_view label(VirtualDisplayPreset preset) {
  switch (preset) {
    case VirtualDisplayPreset::off:
      return "Mirror a Display";
    case VirtualDisplayPreset::ultrawide:
      return "Ultrawide 21:9";
    case VirtualDisplayPreset::superUltrawide:
      return "Super Ultrawide 32:9";
  }
  return {};
}

std::string_view detail(VirtualDisplayPreset preset) {
  switch (preset) {
    case VirtualDisplayPreset::off:
      return "Streams one of this Mac's real displays.";
    case VirtualDisplayPreset::ultrawide:
      return "3440 \u00D7 1440 of desktop, like a 34-inch ultrawide.";
    case VirtualDisplayPreset::superUltrawide:
      return "5120 \u00D7 1440 of desktop, like a 49-inch super ultrawide.";
  }
  return {};
}

std::int64_t settingsValue(VirtualDisplayPreset preset) {
  return static_cast<std::int64_t>(preset);
}

VirtualDisplayPreset virtualPresetForSettingsValue(std::int64_t value) {
  if (value == 1) return VirtualDisplayPreset::ultrawide;
  if (value == 2) return VirtualDisplayPreset::superUltrawide;
  return VirtualDisplayPreset::off;
}

OrinScreenShape screenShape(VirtualDisplayPreset preset) {
  switch (preset) {
    case VirtualDisplayPreset::off:
      return OrinScreenShape::mirror;
    case VirtualDisplayPreset::ultrawide:
      return OrinScreenShape::ultrawide;
    case VirtualDisplayPreset::superUltrawide:
      return OrinScreenShape::superUltrawide;
  }
  return OrinScreenShape::mirror;
}

VirtualDisplayPreset virtualPreset(OrinScreenShape shape) {
  switch (shape) {
    case OrinScreenShape::mirror:
      return VirtualDisplayPreset::off;
    case OrinScreenShape::ultrawide:
      return VirtualDisplayPreset::ultrawide;
    case OrinScreenShape::superUltrawide:
      return VirtualDisplayPreset::superUltrawide;
  }
  return VirtualDisplayPreset::off;
}

PixelSize pixelSize(const CapturableDisplay& display, StreamResolutionPreset resolution) {
  const int height = presetHeight(resolution);
  const double width = display.pointHeight <= 0
                           ? static_cast<double>(height) * 16.0 / 9.0
                           : static_cast<double>(display.pointWidth) / display.pointHeight * height;
  return {evenWidth(width), height};
}

PixelSize streamSize(VirtualDisplayPreset preset, StreamResolutionPreset resolution) {
  const auto size = virtualSize(preset);
  if (!size) return {};
  const int height = std::min(size->height, presetHeight(resolution));
  const double width = static_cast<double>(size->width) / size->height * height;
  return {evenWidth(width), height};
}

std::int64_t averageBitrate(int width, int height, StreamResolutionPreset resolution) {
  const double h = presetHeight(resolution);
  const double reference = h * h * 16.0 / 9.0;
  const double ratio =
      std::clamp(static_cast<double>(width) * static_cast<double>(height) / reference, 0.5, 2.0);
  return static_cast<std::int64_t>(static_cast<double>(baseAverageBitrate(resolution)) * ratio);
}

StreamPlatform makeDefaultStreamPlatform(const std::string& xDisplay,
                                         const std::string& watchdogPath) {
  StreamPlatform platform;
  platform.displays = std::make_shared<X11DisplayBackend>(xDisplay);
  platform.encoders = loadableEncoderFactory();
  platform.virtualDisplays = std::make_shared<RandRVirtualDisplayFactory>(
      OrinVirtualDisplay::Options{xDisplay, watchdogPath});
  platform.describeCapture = [xDisplay] {
    const char* variable = std::getenv("DISPLAY");
    const std::string name = !xDisplay.empty() ? xDisplay : variable ? variable : "";
    if (name.empty()) return std::string("X11, but DISPLAY is not set");
    return "X11 screen grabs on display " + name;
  };
  return platform;
}

StreamPlatform makeSessionStreamPlatform(const std::filesystem::path& configDirectory) {
  StreamPlatform platform = makeDefaultStreamPlatform();
  if (currentDesktopSessionKind() != DesktopSessionKind::wayland) return platform;
  // Xwayland's root shows none of the native windows: never capture it on a Wayland desktop.
  auto wayland = makeWaylandBindings({configDirectory});
  platform.displays = std::move(wayland.displays);
  platform.virtualDisplays = std::move(wayland.virtualDisplays);
  platform.describeCapture = std::move(wayland.describe);
  return platform;
}

// One capture run: the engine feeding the encoder. The engine goes first, so no frame reaches
// an encoder that is being taken down.
struct ScreenStreamService::CaptureRun {
  StreamEncoderSettings settings;
  std::shared_ptr<StreamEncoder> encoder;
  std::unique_ptr<DisplayCaptureEngine> engine;

  ~CaptureRun() {
    engine.reset();
    encoder.reset();
  }
};

// Everything the platform side needs to start a capture, taken on the main loop.
struct ScreenStreamService::CaptureRequest {
  VirtualDisplayPreset preset = VirtualDisplayPreset::off;
  std::uint32_t displayID = 0;
  // The virtual display to capture again; none means make one when the preset needs it.
  std::shared_ptr<VirtualScreen> virtualDisplay;
  StreamEncoderSettings encoder;
  bool replacesDesktop = true;
  StreamPlatform platform;
  std::weak_ptr<ScreenStreamServer> server;
  DisplayCaptureEngine::StopHandler onStop;
};

struct ScreenStreamService::CaptureResult {
  std::shared_ptr<CaptureRun> run;
  std::shared_ptr<VirtualScreen> virtualDisplay;
  std::uint32_t virtualDisplayID = 0;
  VirtualDisplayPreset preset = VirtualDisplayPreset::off;
};

std::shared_ptr<ScreenStreamService> ScreenStreamService::make(Environment environment) {
  return std::shared_ptr<ScreenStreamService>(new ScreenStreamService(std::move(environment)));
}

ScreenStreamService::ScreenStreamService(Environment environment)
    : env_(std::move(environment)),
      platform_(asio::make_strand(env_.platformExecutor)),
      rejectionTimer_(env_.mainExecutor) {
  loadSettings();
}

ScreenStreamService::~ScreenStreamService() {
  if (server_) server_->stop();
}

std::uint64_t ScreenStreamService::observe(Observer observer) {
  observers_.emplace(++nextSubscription_, std::move(observer));
  return nextSubscription_;
}

void ScreenStreamService::unobserve(std::uint64_t subscription) {
  observers_.erase(subscription);
}

void ScreenStreamService::changed(std::string_view property) {
  // A copy, because an observer may subscribe or leave while being told.
  const auto observers = observers_;
  for (const auto& [id, observer] : observers)
    observer(property);
}

void ScreenStreamService::loadSettings() {
  const SettingsStore& s = *env_.settings;
  p_.isEnabled = s.boolean(keyEnabled);
  p_.streamPort = portOrDefault(s.integer(keyPort));
  const std::int64_t displayID = s.integer(keyDisplayID);
  p_.selectedDisplayID = displayID >= 0 && displayID <= std::numeric_limits<std::uint32_t>::max()
                             ? static_cast<std::uint32_t>(displayID)
                             : 0;
  p_.resolutionPreset = resolutionPresetForHeight(s.integer(keyPresetHeight));
  p_.virtualDisplayPreset = virtualPresetForSettingsValue(s.integer(keyVirtualPreset));
  const auto merge = s.object(keyMergeDesktop);
  p_.virtualDisplayReplacesDesktop = merge && merge->is_boolean() ? merge->get<bool>() : true;
  p_.framesPerSecond = clampFramesPerSecond(s.integer(keyFPS));
}

StreamSettings ScreenStreamService::settings() const {
  return {p_.selectedDisplayID,    p_.resolutionPreset,
          p_.virtualDisplayPreset, p_.virtualDisplayReplacesDesktop,
          p_.framesPerSecond,      p_.streamPort};
}

void ScreenStreamService::saveStreamSettings() {
  SettingsStore& s = *env_.settings;
  s.set(keyEnabled, p_.isEnabled);
  s.set(keyPort, p_.streamPort);
  s.set(keyDisplayID, p_.selectedDisplayID);
  s.set(keyPresetHeight, presetHeight(p_.resolutionPreset));
  s.set(keyVirtualPreset, settingsValue(p_.virtualDisplayPreset));
  s.set(keyMergeDesktop, p_.virtualDisplayReplacesDesktop);
  s.set(keyFPS, p_.framesPerSecond);
}

void ScreenStreamService::applySettings(const StreamSettings& wanted) {
  StreamSettings next = wanted;
  next.framesPerSecond = clampFramesPerSecond(next.framesPerSecond);
  if (next.streamPort == 0) next.streamPort = defaultPort;
  const StreamSettings before = settings();
  if (next == before) return;

  if (next.selectedDisplayID != before.selectedDisplayID)
    set(&Properties::selectedDisplayID, next.selectedDisplayID, "selectedDisplayID");
  if (next.resolutionPreset != before.resolutionPreset)
    set(&Properties::resolutionPreset, next.resolutionPreset, "resolutionPreset");
  if (next.virtualDisplayPreset != before.virtualDisplayPreset)
    set(&Properties::virtualDisplayPreset, next.virtualDisplayPreset, "virtualDisplayPreset");
  if (next.virtualDisplayReplacesDesktop != before.virtualDisplayReplacesDesktop) {
    set(&Properties::virtualDisplayReplacesDesktop, next.virtualDisplayReplacesDesktop,
        "virtualDisplayReplacesDesktop");
  }
  if (next.framesPerSecond != before.framesPerSecond)
    set(&Properties::framesPerSecond, next.framesPerSecond, "framesPerSecond");
  if (next.streamPort != before.streamPort)
    set(&Properties::streamPort, next.streamPort, "streamPort");
  saveStreamSettings();

  if (next.streamPort != before.streamPort && p_.isEnabled && !env_.portOverride) {
    // Clients reconnect to the new port; capture follows them.
    stopServer();
    startServer();
    return;
  }
  if (next.virtualDisplayPreset != before.virtualDisplayPreset && server_) {
    server_->broadcastShape(screenShape(next.virtualDisplayPreset));
  }
  // The virtual display is made for its shape, rate and desktop arrangement.
  restartCapture(next.virtualDisplayPreset == before.virtualDisplayPreset &&
                 next.framesPerSecond == before.framesPerSecond &&
                 next.virtualDisplayReplacesDesktop == before.virtualDisplayReplacesDesktop);
  refreshStatus();
}

void ScreenStreamService::setEnabled(bool on) {
  if (p_.isEnabled != on) set(&Properties::isEnabled, on, "isEnabled");
  env_.settings->set(keyEnabled, on);
  if (on) {
    startServer();
  } else {
    stopServer();
  }
}

void ScreenStreamService::resumeIfEnabled() {
  if (p_.isEnabled) {
    startServer();
  } else {
    refreshDisplays();
  }
}

void ScreenStreamService::shutdown() {
  rejectionTimer_.cancel();
  stopServer();
}

void ScreenStreamService::revoke(const std::string& tokenHash) {
  revokedHashes_.insert(tokenHash);
  if (server_) server_->revoke(tokenHash);
}

bool ScreenStreamService::isCurrentServer(std::uint64_t generation) const {
  return server_ && generation == serverGeneration_;
}

void ScreenStreamService::startServer() {
  if (server_) return;
  if (p_.streamError) set(&Properties::streamError, std::nullopt, "streamError");
  serverFailed_ = false;

  std::optional<std::string> hostName;
  if (env_.system) hostName = env_.system->computerName();

  ScreenStreamServer::Options options;
  options.port = env_.portOverride ? *env_.portOverride : p_.streamPort;
  options.httpPort = env_.httpPort ? env_.httpPort() : 38141;
  options.serviceName = hostName.value_or(std::string(fallbackServiceName));
  options.hostName = hostName;
  options.bindAddress = env_.bindAddress;
  options.advertiser = env_.advertiser;
  options.supportsVirtualDisplays = [support = virtualSupport_] { return support->load(); };

  const std::uint64_t generation = ++serverGeneration_;
  auto server = std::make_shared<ScreenStreamServer>(
      options, env_.serverExecutor, env_.mainExecutor, serverCallbacks(generation));
  std::uint16_t port = 0;
  try {
    port = server->start();
  } catch (...) {
    set(&Properties::streamError, describe(std::current_exception()), "streamError");
    set(&Properties::statusText, std::string("Stream server could not start."), "statusText");
    return;
  }
  for (const auto& hash : revokedHashes_)
    server->revoke(hash);
  server_ = std::move(server);
  activePort_ = port;
  set(&Properties::statusText, advertisingStatus(), "statusText");
  refreshDisplays();
}

void ScreenStreamService::stopServer() {
  ++serverGeneration_;
  if (server_) {
    server_->stop();
    server_.reset();
  }
  activePort_.reset();
  stopCapture(false);
  if (!p_.connectedClients.empty())
    set(&Properties::connectedClients, std::vector<std::string>{}, "connectedClients");
  if (p_.isPortalEnabled) set(&Properties::isPortalEnabled, false, "isPortalEnabled");
  set(&Properties::statusText, std::string(streamingOff), "statusText");
}

ScreenStreamServer::Callbacks ScreenStreamService::serverCallbacks(std::uint64_t generation) {
  const std::weak_ptr<ScreenStreamService> weak = weak_from_this();
  ScreenStreamServer::Callbacks c;
  c.authenticate = [weak](std::string token) { return authenticateTask(weak, std::move(token)); };
  c.pair = [weak](std::string code, std::string deviceId, std::string deviceName) {
    return pairTask(weak, std::move(code), std::move(deviceId), std::move(deviceName));
  };
  c.clientsChanged = [weak, generation](std::vector<std::string> names) {
    auto self = weak.lock();
    if (self && self->isCurrentServer(generation)) self->handleClientsChanged(std::move(names));
  };
  c.needsKeyframe = [weak, generation] {
    auto self = weak.lock();
    if (self && self->isCurrentServer(generation) && self->capture_) {
      self->capture_->encoder->forceKeyframe();
    }
  };
  c.serverStateChanged = [weak, generation](std::optional<std::string> failure) {
    auto self = weak.lock();
    if (!self || !self->isCurrentServer(generation) || !failure) return;
    self->serverFailed_ = true;
    self->set(&Properties::streamError, std::move(failure), "streamError");
    self->set(&Properties::statusText, std::string("Stream server hit a problem."), "statusText");
  };
  c.clientRejected = [weak](std::string text) {
    if (auto self = weak.lock()) self->noteRejectedClient(text);
  };
  c.setShape = [weak, generation](OrinScreenShape shape) {
    return setShapeTask(weak, shape, generation);
  };
  c.currentShape = [weak] { return currentShapeTask(weak); };
  c.portalStateChanged = [weak, generation](bool open) {
    auto self = weak.lock();
    if (self && self->isCurrentServer(generation) && self->p_.isPortalEnabled != open) {
      self->set(&Properties::isPortalEnabled, open, "isPortalEnabled");
    }
  };
  return c;
}

asio::awaitable<bool> ScreenStreamService::authenticateTask(std::weak_ptr<ScreenStreamService> weak,
                                                            std::string token) {
  auto self = weak.lock();
  co_return self && self->env_.registry->authenticate(token);
}

asio::awaitable<std::string> ScreenStreamService::pairTask(std::weak_ptr<ScreenStreamService> weak,
                                                           std::string code, std::string deviceId,
                                                           std::string deviceName) {
  auto self = weak.lock();
  if (!self) throw Error("Orin Link is shutting down.");
  co_return self->env_.registry->pair(deviceId, deviceName, code);
}

asio::awaitable<OrinScreenShape> ScreenStreamService::currentShapeTask(
    std::weak_ptr<ScreenStreamService> weak) {
  auto self = weak.lock();
  co_return self ? screenShape(self->p_.virtualDisplayPreset) : OrinScreenShape::mirror;
}

asio::awaitable<void> ScreenStreamService::setShapeTask(std::weak_ptr<ScreenStreamService> weak,
                                                        OrinScreenShape shape,
                                                        std::uint64_t serverGeneration) {
  const VirtualDisplayPreset requested = virtualPreset(shape);
  bool supported = true;
  if (requested != VirtualDisplayPreset::off) {
    std::shared_ptr<VirtualDisplayFactory> factory;
    asio::any_io_executor platform;
    {
      auto self = weak.lock();
      if (!self) co_return;
      factory = self->env_.platform.virtualDisplays;
      platform = self->platform_;
    }
    supported = false;
    if (factory) {
      try {
        auto probe = asio::co_spawn(
            platform, blocking([factory] { return factory->isSupported(); }), asio::use_awaitable);
        supported = co_await std::move(probe);
      } catch (...) {
        supported = false;
      }
    }
  }
  auto self = weak.lock();
  if (!self || !self->isCurrentServer(serverGeneration)) co_return;
  self->applyShape(requested, supported);
}

void ScreenStreamService::applyShape(VirtualDisplayPreset requested, bool supported) {
  if (!supported) {
    noteRejectedClient(
        std::string(label(requested)) + " is not available. " +
        p_.virtualDisplayProblem.value_or(VirtualDisplayError::unsupported().what()));
  } else if (requested != p_.virtualDisplayPreset) {
    set(&Properties::virtualDisplayPreset, requested, "virtualDisplayPreset");
    saveStreamSettings();
    // The old shape's display goes first: as sole desktop it hides the real displays from the
    // listing that the new capture starts with.
    restartCapture(false);
    refreshStatus();
  }
  if (server_) server_->broadcastShape(screenShape(p_.virtualDisplayPreset));
}

void ScreenStreamService::handleClientsChanged(std::vector<std::string> names) {
  if (names != p_.connectedClients) set(&Properties::connectedClients, names, "connectedClients");
  if (!names.empty()) {
    set(&Properties::statusText, streamingStatus(), "statusText");
    if (!capture_ && !captureStarting_) startCapture();
    return;
  }
  set(&Properties::statusText, server_ ? advertisingStatus() : std::string(streamingOff),
      "statusText");
  stopCapture(false);
}

void ScreenStreamService::noteRejectedClient(const std::string& text) {
  set(&Properties::lastRejection, "A device tried to connect: " + text, "lastRejection");
  const std::uint64_t serial = ++rejectionSerial_;
  rejectionTimer_.expires_after(env_.rejectionClearDelay);
  rejectionTimer_.async_wait([weak = weak_from_this(), serial](boost::system::error_code ec) {
    auto self = weak.lock();
    // A wait already under way when the timer was re-armed still completes; its serial is old.
    if (ec || !self || serial != self->rejectionSerial_) return;
    self->set(&Properties::lastRejection, std::nullopt, "lastRejection");
  });
}

std::string ScreenStreamService::advertisingStatus() const {
  std::string text = "Advertising on port " + std::to_string(activePort_.value_or(p_.streamPort));
  if (captureBlocker_ && captureBlocker_->kind() == DisplayCaptureError::Kind::permissionDenied) {
    return text + ", but streaming is blocked until Screen Recording is allowed.";
  }
  if (captureBlocker_) {
    switch (captureBlocker_->kind()) {
      case DisplayCaptureError::Kind::sharingDeclined:
        return text + ", but streaming is blocked until screen sharing is allowed.";
      case DisplayCaptureError::Kind::pipeWireUnavailable:
      case DisplayCaptureError::Kind::screenCastUnavailable:
        return text + ", but streaming is blocked until the desktop can share the screen.";
      default:
        return text + ", but streaming is blocked until an X display is available.";
    }
  }
  return text + ". Waiting for Vantaro.";
}

std::string ScreenStreamService::streamingStatus() const {
  std::string text = "Streaming to ";
  for (std::size_t i = 0; i < p_.connectedClients.size(); ++i) {
    if (i > 0) text += ", ";
    text += p_.connectedClients[i];
  }
  // The chosen shape rather than the display itself, which only exists once capture is up.
  if (p_.virtualDisplayPreset != VirtualDisplayPreset::off) {
    text += " as ";
    text += label(p_.virtualDisplayPreset);
  }
  return text + ".";
}

void ScreenStreamService::refreshStatus() {
  if (!server_ || serverFailed_) return;
  const std::string text = p_.connectedClients.empty() ? advertisingStatus() : streamingStatus();
  if (text != p_.statusText) set(&Properties::statusText, text, "statusText");
}

void ScreenStreamService::retryCapture() {
  if (!p_.connectedClients.empty() && !capture_ && !captureStarting_) startCapture();
  refreshDisplays();
}

void ScreenStreamService::refreshDisplays() {
  asio::co_spawn(env_.mainExecutor, refreshDisplaysTask(weak_from_this()), asio::detached);
}

asio::awaitable<void> ScreenStreamService::refreshDisplaysTask(
    std::weak_ptr<ScreenStreamService> weak) {
  StreamPlatform platform;
  asio::any_io_executor executor;
  {
    auto self = weak.lock();
    if (!self || !self->env_.platform.displays) co_return;
    platform = self->env_.platform;
    executor = self->platform_;
  }
  Survey found;
  try {
    auto surveying = asio::co_spawn(executor, blocking([platform] { return survey(platform); }),
                                    asio::use_awaitable);
    found = co_await std::move(surveying);
  } catch (...) {
    found.failure = std::current_exception();
  }
  auto self = weak.lock();
  if (!self) co_return;
  if (found.binding != self->p_.captureBinding)
    self->set(&Properties::captureBinding, found.binding, "captureBinding");
  self->virtualSupport_->store(found.virtualSupported);
  std::optional<std::string> problem;
  if (!found.virtualSupported) problem = found.virtualProblem;
  if (problem != self->p_.virtualDisplayProblem)
    self->set(&Properties::virtualDisplayProblem, problem, "virtualDisplayProblem");
  if (found.virtualSupported != self->p_.supportsVirtualDisplays)
    self->set(&Properties::supportsVirtualDisplays, found.virtualSupported,
              "supportsVirtualDisplays");
  if (!found.failure) {
    self->publishDisplays(std::move(found.displays));
    co_return;
  }
  if (!self->p_.availableDisplays.empty()) {
    self->set(&Properties::availableDisplays, std::vector<CapturableDisplay>{},
              "availableDisplays");
  }
  try {
    std::rethrow_exception(found.failure);
  } catch (const DisplayCaptureError& error) {
    self->noteDisplayProblem(error);
  } catch (...) {
  }
}

void ScreenStreamService::publishDisplays(std::vector<CapturableDisplay> displays) {
  // Our own virtual display is no display to mirror.
  if (virtualDisplayID_ != 0) {
    std::erase_if(displays, [&](const CapturableDisplay& d) { return d.id == virtualDisplayID_; });
  }
  if (displays != p_.availableDisplays) {
    set(&Properties::availableDisplays, std::move(displays), "availableDisplays");
  }
  if (captureBlocker_) {
    const std::string blocked = captureBlocker_->what();
    captureBlocker_.reset();
    set(&Properties::captureBlocker, std::nullopt, "captureBlocker");
    if (p_.streamError == blocked) set(&Properties::streamError, std::nullopt, "streamError");
    refreshStatus();
  }
}

void ScreenStreamService::noteDisplayProblem(const DisplayCaptureError& error) {
  if (!blocksCapture(error)) return;
  captureBlocker_ = error;
  if (p_.captureBlocker != error.kind())
    set(&Properties::captureBlocker, error.kind(), "captureBlocker");
  if (p_.streamError != error.what())
    set(&Properties::streamError, std::string(error.what()), "streamError");
  refreshStatus();
}

void ScreenStreamService::startCapture() {
  captureWanted_ = true;
  // A start under way that has been overtaken starts again when it reports back.
  if (capture_ || captureStarting_) return;
  launchCaptureStart();
}

void ScreenStreamService::launchCaptureStart() {
  const std::uint64_t generation = ++captureGeneration_;
  captureStarting_ = true;
  asio::co_spawn(env_.mainExecutor, startCaptureTask(weak_from_this(), generation), asio::detached);
}

void ScreenStreamService::stopCapture(bool keepVirtualDisplay) {
  captureWanted_ = false;
  ++captureGeneration_;
  if (capture_) releaseOnPlatform(std::move(capture_));
  capture_.reset();
  if (p_.isCapturing) set(&Properties::isCapturing, false, "isCapturing");
  if (!keepVirtualDisplay) stopVirtualDisplay();
}

void ScreenStreamService::restartCapture(bool keepVirtualDisplay) {
  if (capture_ || captureStarting_) {
    stopCapture(keepVirtualDisplay);
    startCapture();
  } else if (server_ && !p_.connectedClients.empty()) {
    // Clients are still waiting after a capture that could not start; this one may.
    startCapture();
  }
}

void ScreenStreamService::stopVirtualDisplay() {
  if (virtualDisplay_) releaseOnPlatform(std::move(virtualDisplay_));
  virtualDisplay_.reset();
  virtualDisplayID_ = 0;
  activeVirtualPreset_.reset();
}

void ScreenStreamService::releaseOnPlatform(std::shared_ptr<void> object) {
  // Stopping capture joins threads and removing a virtual display talks to the X server: both
  // block, so they happen where the platform work does, in order with it.
  asio::post(platform_, [object = std::move(object)]() mutable { object.reset(); });
}

ScreenStreamService::CaptureRequest ScreenStreamService::captureRequest(std::uint64_t generation) {
  CaptureRequest request;
  request.preset = p_.virtualDisplayPreset;
  request.replacesDesktop = p_.virtualDisplayReplacesDesktop;
  request.platform = env_.platform;
  request.server = server_;
  PixelSize size;
  if (request.preset != VirtualDisplayPreset::off) {
    if (virtualDisplay_ && activeVirtualPreset_ == request.preset) {
      request.virtualDisplay = virtualDisplay_;
    } else {
      stopVirtualDisplay();
    }
    size = streamSize(request.preset);
  } else {
    stopVirtualDisplay();
    const auto& displays = p_.availableDisplays;
    auto chosen = std::find_if(displays.begin(), displays.end(), [&](const CapturableDisplay& d) {
      return d.id == p_.selectedDisplayID;
    });
    if (chosen == displays.end()) chosen = displays.begin();
    if (chosen == displays.end()) throw DisplayCaptureError::noDisplayAvailable();
    request.displayID = chosen->id;
    size = pixelSize(*chosen);
  }
  request.encoder = {size.width, size.height, p_.framesPerSecond,
                     averageBitrate(size.width, size.height)};
  request.onStop = [weak = weak_from_this(), main = env_.mainExecutor,
                    generation](const std::optional<DisplayCaptureError>& error) {
    asio::post(main, [weak, generation, error] {
      if (auto self = weak.lock()) self->captureStopped(generation, error);
    });
  };
  return request;
}

ScreenStreamService::CaptureResult ScreenStreamService::buildCapture(CaptureRequest request) {
  CaptureResult result;
  result.preset = request.preset;
  std::uint32_t displayID = request.displayID;
  if (request.preset != VirtualDisplayPreset::off) {
    result.virtualDisplay = std::move(request.virtualDisplay);
    if (!result.virtualDisplay) {
      if (!request.platform.virtualDisplays) throw VirtualDisplayError::unsupported();
      const PixelSize size = *virtualSize(request.preset);
      result.virtualDisplay = request.platform.virtualDisplays->create(
          std::string(virtualDisplayName), static_cast<std::uint32_t>(size.width),
          static_cast<std::uint32_t>(size.height), request.encoder.framesPerSecond);
      // Refused without a way to give the screens back; streaming goes on beside them.
      if (request.replacesDesktop) result.virtualDisplay->adoptAsSoleDesktop();
    }
    displayID = result.virtualDisplay->displayID();
    result.virtualDisplayID = displayID;
  }

  auto run = std::make_shared<CaptureRun>();
  run->settings = request.encoder;
  const std::weak_ptr<ScreenStreamServer> server = request.server;
  run->encoder = request.platform.encoders(request.encoder, [server](EncodedVideoFrame frame) {
    if (auto s = server.lock()) s->broadcast(std::move(frame));
  });
  run->engine = std::make_unique<DisplayCaptureEngine>(
      request.platform.displays,
      [encoder = run->encoder](const CapturedFrame& frame) { encoder->encode(frame); },
      std::move(request.onStop));
  run->engine->start(displayID, request.encoder.width, request.encoder.height,
                     request.encoder.framesPerSecond, run->encoder->pacer());
  result.run = std::move(run);
  return result;
}

asio::awaitable<void> ScreenStreamService::startCaptureTask(std::weak_ptr<ScreenStreamService> weak,
                                                            std::uint64_t generation) {
  std::shared_ptr<DisplayBackend> backend;
  asio::any_io_executor platform;
  {
    auto self = weak.lock();
    if (!self) co_return;
    backend = self->env_.platform.displays;
    platform = self->platform_;
  }

  std::vector<CapturableDisplay> displays;
  std::exception_ptr failure;
  try {
    auto listing = asio::co_spawn(platform, blocking([backend] { return listDisplays(*backend); }),
                                  asio::use_awaitable);
    displays = co_await std::move(listing);
  } catch (...) {
    failure = std::current_exception();
  }

  CaptureRequest request;
  {
    auto self = weak.lock();
    if (!self) co_return;
    if (generation != self->captureGeneration_ || failure) {
      self->finishCaptureStart(generation, std::nullopt, failure);
      co_return;
    }
    self->publishDisplays(std::move(displays));
    try {
      request = self->captureRequest(generation);
    } catch (...) {
      self->finishCaptureStart(generation, std::nullopt, std::current_exception());
      co_return;
    }
  }

  std::optional<CaptureResult> result;
  try {
    auto building = asio::co_spawn(
        platform, blocking([request]() mutable { return buildCapture(std::move(request)); }),
        asio::use_awaitable);
    result = co_await std::move(building);
  } catch (...) {
    failure = std::current_exception();
  }

  auto self = weak.lock();
  if (!self) {
    if (result)
      asio::post(platform, [leftover = std::move(result)]() mutable { leftover.reset(); });
    co_return;
  }
  self->finishCaptureStart(generation, std::move(result), failure);
}

void ScreenStreamService::finishCaptureStart(std::uint64_t generation,
                                             std::optional<CaptureResult> result,
                                             std::exception_ptr failure) {
  captureStarting_ = false;
  if (generation != captureGeneration_) {
    if (result) {
      releaseOnPlatform(std::move(result->run));
      if (result->virtualDisplay != virtualDisplay_)
        releaseOnPlatform(std::move(result->virtualDisplay));
    }
    if (captureWanted_ && !capture_) launchCaptureStart();
    return;
  }
  if (failure) {
    captureWanted_ = false;
    try {
      std::rethrow_exception(failure);
    } catch (const DisplayCaptureError& error) {
      noteDisplayProblem(error);
    } catch (...) {
    }
    captureFailed(describe(failure));
    return;
  }
  capture_ = std::move(result->run);
  if (result->virtualDisplay) {
    virtualDisplay_ = std::move(result->virtualDisplay);
    virtualDisplayID_ = result->virtualDisplayID;
    activeVirtualPreset_ = result->preset;
  }
  if (p_.streamError) set(&Properties::streamError, std::nullopt, "streamError");
  set(&Properties::isCapturing, true, "isCapturing");
}

void ScreenStreamService::captureFailed(const std::string& description) {
  set(&Properties::streamError, description, "streamError");
  if (server_) server_->broadcastError(clientFacingCaptureProblem());
  stopVirtualDisplay();
}

void ScreenStreamService::captureStopped(std::uint64_t generation,
                                         std::optional<DisplayCaptureError> error) {
  if (generation != captureGeneration_) return;
  stopCapture(false);
  set(&Properties::streamError,
      "Capture stopped: " + (error ? std::string(error->what()) : std::string("unknown error")),
      "streamError");
}

std::optional<StreamEncoderSettings> ScreenStreamService::encoderSettings() const {
  if (!capture_) return std::nullopt;
  return capture_->settings;
}

std::string ScreenStreamService::clientFacingCaptureProblem() const {
  if (p_.streamError && p_.streamError->find("Screen Recording") != std::string::npos) {
    return "The Mac needs Screen Recording permission: on the Mac, allow Orin Link in System "
           "Settings > Privacy & Security > Screen Recording, then quit and reopen Orin Link.";
  }
  return "The Mac could not start streaming: " + p_.streamError.value_or("unknown error") +
         ". Check the Orin Link window on the Mac.";
}

std::int64_t ScreenStreamService::averageBitrate(int width, int height) const {
  return screen::averageBitrate(width, height, p_.resolutionPreset);
}

PixelSize ScreenStreamService::pixelSize(const CapturableDisplay& display) const {
  return screen::pixelSize(display, p_.resolutionPreset);
}

PixelSize ScreenStreamService::streamSize(VirtualDisplayPreset preset) const {
  return screen::streamSize(preset, p_.resolutionPreset);
}

std::string ScreenStreamService::streamSummary() const {
  PixelSize size;
  if (p_.virtualDisplayPreset != VirtualDisplayPreset::off) {
    size = streamSize(p_.virtualDisplayPreset);
  } else {
    const auto& displays = p_.availableDisplays;
    const auto chosen =
        std::find_if(displays.begin(), displays.end(),
                     [&](const CapturableDisplay& d) { return d.id == p_.selectedDisplayID; });
    if (chosen == displays.end()) {
      return std::string(shortLabel(p_.resolutionPreset)) + " at " +
             std::to_string(p_.framesPerSecond) + " fps";
    }
    size = pixelSize(*chosen);
  }
  const double megabits =
      static_cast<double>(averageBitrate(size.width, size.height)) / 1'000'000.0;
  char text[128];
  std::snprintf(text, sizeof text, "%d\u00D7%d at %d fps, HEVC, ~%.0f Mbps", size.width,
                size.height, p_.framesPerSecond, megabits);
  return text;
}

}  // namespace orin::screen
