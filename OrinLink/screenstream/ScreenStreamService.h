#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include <boost/asio/any_io_executor.hpp>
#include <boost/asio/awaitable.hpp>
#include <boost/asio/ip/address.hpp>
#include <boost/asio/steady_timer.hpp>

#include "OrinLink/pairing/DeviceRegistry.h"
#include "OrinLink/screenstream/CapturedFrame.h"
#include "OrinLink/screenstream/DisplayBackend.h"
#include "OrinLink/screenstream/DisplayCaptureEngine.h"
#include "OrinLink/screenstream/DisplayCaptureError.h"
#include "OrinLink/screenstream/EncodedVideoFrame.h"
#include "OrinLink/screenstream/ScreenStreamServer.h"
#include "OrinLink/screenstream/StreamEncoder.h"
#include "OrinLink/screenstream/VirtualDisplayFactory.h"
#include "OrinLink/server/ServiceAdvertiser.h"
#include "OrinLink/settings/SettingsStore.h"
#include "OrinLink/system/SystemActions.h"
#include "OrinLinkShared/ScreenStream.h"

namespace orin::screen {

// Target height and bitrate class of the stream.
enum class StreamResolutionPreset { fullHD, quadHD, ultraHD };

inline constexpr std::array<StreamResolutionPreset, 3> allResolutionPresets{
    StreamResolutionPreset::fullHD, StreamResolutionPreset::quadHD,
    StreamResolutionPreset::ultraHD};

int presetHeight(StreamResolutionPreset preset);
// "1080p", "1440p", "4K".
std::string_view shortLabel(StreamResolutionPreset preset);
std::int64_t baseAverageBitrate(StreamResolutionPreset preset);
// 1080 and 2160 name their presets; every other height is quadHD.
StreamResolutionPreset resolutionPresetForHeight(std::int64_t height);

// The desktop shape: a real display mirrored, or a virtual wide one. Case for case the wire's
// OrinScreenShape.
enum class VirtualDisplayPreset { off, ultrawide, superUltrawide };

inline constexpr std::array<VirtualDisplayPreset, 3> allVirtualDisplayPresets{
    VirtualDisplayPreset::off, VirtualDisplayPreset::ultrawide,
    VirtualDisplayPreset::superUltrawide};

// Nothing for off.
std::optional<PixelSize> virtualSize(VirtualDisplayPreset preset);
std::string_view label(VirtualDisplayPreset preset);
std::string_view detail(VirtualDisplayPreset preset);
// The stored form: 0, 1, 2; anything else reads as off.
std::int64_t settingsValue(VirtualDisplayPreset preset);
VirtualDisplayPreset virtualPresetForSettingsValue(std::int64_t value);
OrinScreenShape screenShape(VirtualDisplayPreset preset);
VirtualDisplayPreset virtualPreset(OrinScreenShape shape);

// The stream size for a real display at a preset: the preset's height, the display's aspect
// (16:9 when it reports no height), at most 5120 wide, the width rounded down to an even number.
PixelSize pixelSize(const CapturableDisplay& display, StreamResolutionPreset resolution);
// The stream size for a virtual display: its own height or the preset's, whichever is smaller.
// Off has no size of its own and gives {0, 0}.
PixelSize streamSize(VirtualDisplayPreset preset, StreamResolutionPreset resolution);
// The preset's base rate scaled by area against a 16:9 picture of its height, within half and
// twice the base.
std::int64_t averageBitrate(int width, int height, StreamResolutionPreset resolution);

// The platform pieces of streaming. All their blocking calls are made on the service's
// platform executor, one at a time.
struct StreamPlatform {
  std::shared_ptr<DisplayBackend> displays;
  EncoderFactory encoders;
  std::shared_ptr<VirtualDisplayFactory> virtualDisplays;
  // What captures, for the diagnostics ("X11 on :0"); may block, so asked on the platform
  // executor.
  std::function<std::string()> describeCapture;
};

// X11 capture, libavcodec HEVC and RandR virtual displays on `xDisplay` (empty means $DISPLAY).
// The virtual display's watchdog is the one next to the running executable unless named.
StreamPlatform makeDefaultStreamPlatform(const std::string& xDisplay = {},
                                         const std::string& watchdogPath = {});

// The bindings of the desktop session this runs in: Wayland's screen casts on a Wayland desktop
// (the portal's restore token kept in `configDirectory`), X11's otherwise.
StreamPlatform makeSessionStreamPlatform(const std::filesystem::path& configDirectory);

// The stream settings as the user edits them.
struct StreamSettings {
  std::uint32_t selectedDisplayID = 0;
  StreamResolutionPreset resolutionPreset = StreamResolutionPreset::quadHD;
  VirtualDisplayPreset virtualDisplayPreset = VirtualDisplayPreset::off;
  bool virtualDisplayReplacesDesktop = true;
  int framesPerSecond = 60;
  std::uint16_t streamPort = OrinScreenStream::defaultPort;
  bool operator==(const StreamSettings&) const = default;
};

// The controller of screen streaming: the user's stream settings, the stream server and its
// callbacks, and, while a client streams, capture, encoding and the virtual display. Lives on the
// main loop. Frames never pass through it: capture hands them to the encoder on the capture
// thread, and the encoder hands its output to the server on its own thread.
class ScreenStreamService : public std::enable_shared_from_this<ScreenStreamService> {
 public:
  static constexpr std::uint16_t defaultPort = OrinScreenStream::defaultPort;
  static constexpr int defaultFramesPerSecond = 60;
  static constexpr int maxFramesPerSecond = 240;
  static constexpr std::string_view fallbackServiceName = "Orin Link";
  static constexpr std::string_view virtualDisplayName = "Orin Link";

  struct Environment {
    boost::asio::any_io_executor mainExecutor;
    // The stream server's own serial loop.
    boost::asio::any_io_executor serverExecutor;
    // Where the blocking display and encoder work runs (display listing, opening the encoder,
    // creating the virtual display). The service serialises its work there itself.
    boost::asio::any_io_executor platformExecutor;
    // Both live on the main loop and outlive the service.
    SettingsStore* settings = nullptr;
    DeviceRegistry* registry = nullptr;
    // The AI service's port, published to headsets in the DNS-SD record.
    std::function<std::uint16_t()> httpPort;
    // Names the service and the "accepted" answer; optional.
    SystemActions* system = nullptr;
    ServiceAdvertiser* advertiser = nullptr;
    StreamPlatform platform;
    // Tests listen on loopback on a port of the system's choice.
    std::optional<boost::asio::ip::address> bindAddress;
    std::optional<std::uint16_t> portOverride;
    std::chrono::steady_clock::duration rejectionClearDelay = std::chrono::seconds(15);
  };

  // What the interface shows. Written on the main loop only; observers hear each name as it
  // changes.
  struct Properties {
    bool isEnabled = false;
    bool isCapturing = false;
    std::vector<CapturableDisplay> availableDisplays;
    std::uint32_t selectedDisplayID = 0;
    StreamResolutionPreset resolutionPreset = StreamResolutionPreset::quadHD;
    VirtualDisplayPreset virtualDisplayPreset = VirtualDisplayPreset::off;
    bool virtualDisplayReplacesDesktop = true;
    int framesPerSecond = defaultFramesPerSecond;
    std::uint16_t streamPort = defaultPort;
    std::vector<std::string> connectedClients;
    std::optional<std::string> lastRejection;
    std::optional<std::string> streamError;
    std::string statusText = "Streaming is off.";
    bool isPortalEnabled = false;
    // How the screen is captured, or why it cannot be ("GNOME screen cast through PipeWire").
    std::string captureBinding;
    // Whether this desktop can make the virtual displays that wide shapes stream.
    bool supportsVirtualDisplays = true;
    // Why wide shapes are refused here, while they are.
    std::optional<std::string> virtualDisplayProblem;
    // Why capture cannot start until something changes, while it cannot.
    std::optional<DisplayCaptureError::Kind> captureBlocker;
  };

  // Reads the stream settings; starts nothing.
  static std::shared_ptr<ScreenStreamService> make(Environment environment);
  ~ScreenStreamService();
  ScreenStreamService(const ScreenStreamService&) = delete;
  ScreenStreamService& operator=(const ScreenStreamService&) = delete;

  const Properties& properties() const { return p_; }
  using Observer = std::function<void(std::string_view property)>;
  std::uint64_t observe(Observer observer);
  void unobserve(std::uint64_t subscription);

  // Stores the choice and starts or stops the server.
  void setEnabled(bool on);
  // At launch: lists the displays and starts the server when streaming was left on.
  void resumeIfEnabled();
  // Stops the server, capture and the virtual display, keeping the stored choice. The platform
  // executor finishes the teardown, so let it run before it is destroyed.
  void shutdown();

  // Reloads availableDisplays on the platform executor.
  void refreshDisplays();
  // After the user fixed what blocked capture: looks again, and asks the desktop again for
  // clients that are waiting.
  void retryCapture();
  // Takes the user's edits, stores them, and restarts whatever they affect.
  void applySettings(const StreamSettings& settings);
  StreamSettings settings() const;
  void saveStreamSettings();

  // Refuses a token hash from now on, in this server and every later one.
  void revoke(const std::string& tokenHash);

  std::string streamSummary() const;
  std::int64_t averageBitrate(int width, int height) const;
  PixelSize pixelSize(const CapturableDisplay& display) const;
  PixelSize streamSize(VirtualDisplayPreset preset) const;
  // The text streaming clients are sent when capture cannot start.
  std::string clientFacingCaptureProblem() const;

  // The port the server listens on, while it does.
  std::optional<std::uint16_t> activePort() const { return activePort_; }
  // The encoder's settings of the running capture.
  std::optional<StreamEncoderSettings> encoderSettings() const;

 private:
  struct CaptureRun;
  struct CaptureRequest;
  struct CaptureResult;

  explicit ScreenStreamService(Environment environment);

  template <class T, class V>
  void set(T Properties::*member, V&& value, std::string_view name) {
    p_.*member = std::forward<V>(value);
    changed(name);
  }
  void changed(std::string_view property);
  void loadSettings();

  void startServer();
  void stopServer();
  ScreenStreamServer::Callbacks serverCallbacks(std::uint64_t generation);
  bool isCurrentServer(std::uint64_t generation) const;

  void applyShape(VirtualDisplayPreset requested, bool supported);

  void startCapture();
  void stopCapture(bool keepVirtualDisplay);
  // Stops and starts a running capture; starts one for clients left waiting by a failure. The
  // virtual display is kept when it still fits the shape.
  void restartCapture(bool keepVirtualDisplay);
  void stopVirtualDisplay();
  void launchCaptureStart();
  // Throws DisplayCaptureError when there is no display to mirror.
  CaptureRequest captureRequest(std::uint64_t generation);
  // On the platform executor; throws what the platform throws.
  static CaptureResult buildCapture(CaptureRequest request);
  void finishCaptureStart(std::uint64_t generation, std::optional<CaptureResult> result,
                          std::exception_ptr failure);
  void captureStopped(std::uint64_t generation, std::optional<DisplayCaptureError> error);
  void captureFailed(const std::string& description);
  void releaseOnPlatform(std::shared_ptr<void> object);

  void handleClientsChanged(std::vector<std::string> names);
  void noteRejectedClient(const std::string& text);
  void publishDisplays(std::vector<CapturableDisplay> displays);
  void noteDisplayProblem(const DisplayCaptureError& error);
  void refreshStatus();
  std::string advertisingStatus() const;
  std::string streamingStatus() const;

  static boost::asio::awaitable<void> startCaptureTask(std::weak_ptr<ScreenStreamService> weak,
                                                       std::uint64_t generation);
  static boost::asio::awaitable<void> refreshDisplaysTask(std::weak_ptr<ScreenStreamService> weak);
  static boost::asio::awaitable<void> setShapeTask(std::weak_ptr<ScreenStreamService> weak,
                                                   OrinScreenShape shape,
                                                   std::uint64_t serverGeneration);
  static boost::asio::awaitable<OrinScreenShape> currentShapeTask(
      std::weak_ptr<ScreenStreamService> weak);
  static boost::asio::awaitable<bool> authenticateTask(std::weak_ptr<ScreenStreamService> weak,
                                                       std::string token);
  static boost::asio::awaitable<std::string> pairTask(std::weak_ptr<ScreenStreamService> weak,
                                                      std::string code, std::string deviceId,
                                                      std::string deviceName);

  Environment env_;
  boost::asio::any_io_executor platform_;
  Properties p_;
  std::map<std::uint64_t, Observer> observers_;
  std::uint64_t nextSubscription_ = 0;

  std::shared_ptr<ScreenStreamServer> server_;
  std::optional<std::uint16_t> activePort_;
  std::uint64_t serverGeneration_ = 0;
  // The listener gave up; its text stays until the server is started again.
  bool serverFailed_ = false;
  std::set<std::string> revokedHashes_;
  // Read by the server's loop when it accepts a client.
  std::shared_ptr<std::atomic<bool>> virtualSupport_ = std::make_shared<std::atomic<bool>>(true);

  // The running capture, its encoder with it.
  std::shared_ptr<CaptureRun> capture_;
  std::shared_ptr<VirtualScreen> virtualDisplay_;
  std::uint32_t virtualDisplayID_ = 0;
  std::optional<VirtualDisplayPreset> activeVirtualPreset_;
  // Moves on with every start and stop, so a start or a capture that has since been replaced
  // is recognised when it reports back.
  std::uint64_t captureGeneration_ = 0;
  bool captureStarting_ = false;
  bool captureWanted_ = false;
  // Set while the display server cannot be reached or refuses capture.
  std::optional<DisplayCaptureError> captureBlocker_;

  boost::asio::steady_timer rejectionTimer_;
  std::uint64_t rejectionSerial_ = 0;
};

}  // namespace orin::screen
