#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include <boost/asio/any_io_executor.hpp>
#include <boost/asio/ip/address.hpp>
#include <boost/asio/steady_timer.hpp>

#include "OrinLink/aiservice/AIService.h"
#include "OrinLink/core/RuntimeSupervisor.h"
#include "OrinLink/core/SetupGuide.h"
#include "OrinLink/pairing/DeviceRegistry.h"
#include "OrinLink/runtime/OllamaRuntime.h"
#include "OrinLink/screenstream/ScreenStreamService.h"
#include "OrinLink/server/LocalHTTPServer.h"
#include "OrinLink/settings/SettingsStore.h"
#include "OrinLink/system/DesktopIntegration.h"
#include "OrinLink/system/SystemActions.h"
#include "OrinLinkShared/AIRecords.h"

namespace orin {

struct ConversationEntry {
  Uuid id;
  Date date;
  std::string deviceName;
  std::string prompt;
  std::string response;
  bool isComplete = false;
  bool operator==(const ConversationEntry&) const = default;
};

// A settings value that cannot start the application, with the text the user sees.
class StartupError : public Error {
 public:
  using Error::Error;
};

// The one application-wide model and controller. Everything here runs on the main loop; the
// servers call in through posted work and every user-visible change is announced to observers by
// the name of the property that changed.
class AppState : public std::enable_shared_from_this<AppState>, public AIServiceHost {
 public:
  static constexpr std::uint16_t defaultServerPort = 38141;
  static constexpr std::size_t conversationLogLimit = 20;

  struct Environment {
    boost::asio::any_io_executor mainExecutor;
    boost::asio::any_io_executor httpExecutor;
    // Where blocking work (child processes) runs.
    boost::asio::any_io_executor backgroundExecutor;
    std::filesystem::path settingsFile;
    std::filesystem::path registryFile;
    SystemActions* system = nullptr;
    ServiceAdvertiser* advertiser = nullptr;
    DeviceRegistry::Clock clock = Date::now;
    DeviceRegistry::RandomSource random = DeviceRegistry::systemRandom;
    OllamaRuntime::Timeouts ollamaTimeouts;
    std::chrono::steady_clock::duration installWatchInterval = std::chrono::seconds(5);
    // Tests narrow the AI service to loopback and let the system choose its port.
    std::optional<boost::asio::ip::address> bindAddress;
    std::optional<std::uint16_t> serverPortOverride;
    std::string serviceName = std::string(LocalHTTPServer::defaultServiceName);
    // Screen streaming. Without a platform (tests of the AI service alone) there is no stream
    // service.
    std::optional<screen::StreamPlatform> streamPlatform;
    boost::asio::any_io_executor streamServerExecutor;
    // Where capture, encoders and the virtual display are set up and taken down.
    boost::asio::any_io_executor streamPlatformExecutor;
    std::optional<std::uint16_t> streamPortOverride;
    // Sleep, login, notifications, sound, tray and panel. A facility left empty is missing: what
    // is asked of it does nothing.
    DesktopIntegration desktop;
  };

  // Reads the settings; throws StartupError for a stored port outside 0-65535.
  static std::shared_ptr<AppState> make(Environment environment);
  ~AppState();

  // Resumes streaming, starts the server, the endpoint refresh, the availability options, the
  // one-second timer and the runtime refresh, and opens the control panel.
  void launch();
  // Stops what launch() started, so the loops can wind down.
  void shutdown();

  // Observers hear the name of each property as it changes.
  using Observer = std::function<void(std::string_view property)>;
  std::uint64_t observe(Observer observer);
  void unobserve(std::uint64_t subscription);

  // Lifecycle and settings.
  void startServer();
  void stopServer();
  void saveSettings();
  void applyAvailabilitySettings();
  void refreshEndpointCandidates();
  void openSettingsWindow();

  // Settings that take effect, and are stored, as soon as they change.
  void setShowConversations(bool on);
  void setHasSeenGuide(bool seen);
  void setShowInDock(bool show);
  void setPairingSoundEnabled(bool on);
  void setOpenPanelAtLaunch(bool on);
  void setConnectNotificationsEnabled(bool on);
  // Dismissing the guide also remembers that it was seen.
  void setGuidePresented(bool presented);

  // Presence on the desktop: the windowed presence and the badge of busy things.
  void applyDockPolicy();
  void updateDockBadge();
  void postNotification(const std::string& title, const std::string& body);
  void celebratePairing(const std::string& name);
  void handleStreamClientsChanged(const std::vector<std::string>& names);
  // What the advertiser found: whether devices can discover this machine.
  void setDiscoveryAvailable(bool available);

  // The derived views' inputs, and the current setup issue.
  StateSnapshot stateSnapshot() const;
  std::optional<SetupIssue> setupIssue() const;
  // Performs the fix of the current setup issue; returns which one, or nothing when all is set.
  std::optional<SetupIssue::Kind> performSetupAction();

  // Runtime supervision.
  RuntimeSupervisor& runtimeSupervisor() { return *runtime_; }
  const RuntimeSupervisor& runtimeSupervisor() const { return *runtime_; }
  bool isActiveModelInstalled() const;
  std::string recommendedModel() const;
  std::uint64_t physicalMemoryGB() const { return physicalMemoryGB_; }
  OllamaRuntime runtime() const;

  // Pairing.
  std::string pairingPayload() const;
  void newPairingCode();
  bool removeDevice(const Uuid& id);

  // What the AI service asks of the application.
  std::optional<std::string> authenticate(const std::optional<std::string>& token) override;
  std::string pair(const PairRequest& request) override;
  StatusFacts statusFacts() const override;
  std::vector<Credential> pairedDevices() const override;
  OllamaRuntime runtimeOn(const boost::asio::any_io_executor& executor) const override;
  std::chrono::steady_clock::duration requestWarmUp() override;
  Date now() const override { return env_.clock(); }

  // Statistics and the conversation log.
  void noteRequestedModel(const std::optional<std::string>& model) override;
  void noteGenerationStarted(const std::string& deviceName) override;
  void noteTokenRate(double tokensPerSecond) override;
  void endGeneration(std::int64_t tokens, Date since) override;
  void recordReply();
  std::optional<Uuid> beginConversationEntry(const std::string& prompt,
                                             const std::string& deviceName) override;
  void appendConversationToken(const std::string& text, const Uuid& id) override;
  void completeConversationEntry(const Uuid& id) override;

  // Null when the environment has no stream platform.
  const std::shared_ptr<screen::ScreenStreamService>& screenStream() const { return screenStream_; }

  DeviceRegistry& registry() { return registry_; }
  const DeviceRegistry& registry() const { return registry_; }
  SettingsStore& settings() { return settings_; }

  // What the interface shows. Written on the main loop only.
  struct Properties {
    std::int64_t activeGenerations = 0;
    std::optional<std::string> busyDeviceName;
    std::optional<double> tokensPerSecond;
    std::int64_t repliesToday = 0;
    std::optional<Date> modelResidentSince;
    std::optional<std::string> lastPairedDeviceName;
    std::optional<Date> lastPairedAt;
    bool hasSeenGuide = false;
    bool isGuidePresented = true;
    bool showInDock = false;
    bool pairingSoundEnabled = true;
    // The control panel opens at every start unless the user turned that off.
    bool openPanelAtLaunch = true;
    bool connectNotificationsEnabled = false;
    std::optional<PullProgress> pullProgress;
    std::optional<std::string> pullPausedModel;
    std::optional<std::string> pullError;
    bool isServerRunning = false;
    std::uint16_t serverPort = defaultServerPort;
    std::optional<std::string> serverError;
    bool isOllamaAvailable = false;
    std::optional<std::string> ollamaError;
    std::vector<OllamaModel> models;
    std::string activeModel;
    std::string baseURLText;
    bool reliabilityModeEnabled = false;
    bool startAtLoginEnabled = false;
    std::string lastEvent = "Starting Orin Link...";
    std::vector<OrinLinkEndpoint> endpointCandidates;
    std::string manualEndpointHost;
    OrinLinkConnectionKind manualEndpointKind = OrinLinkConnectionKind::manual;
    std::optional<std::string> availabilityError;
    std::int64_t setupTick = 0;
    bool showConversations = false;
    std::deque<ConversationEntry> conversationLog;
    std::optional<std::string> lastRequestedModel;
    // The badge last shown, and whether discovery works (unknown until the advertiser says).
    std::optional<std::string> badge;
    std::optional<bool> isDiscoveryAvailable;
  };
  const Properties& properties() const { return p_; }
  // The settings window's edits go here, then saveSettings().
  Properties& editableProperties() { return p_; }

  // Writes one property and tells the observers.
  template <class T, class V>
  void set(T Properties::*member, V&& value, std::string_view name) {
    p_.*member = std::forward<V>(value);
    changed(name);
  }
  void changed(std::string_view property);

 private:
  explicit AppState(Environment environment);
  void wire();
  void readSettings();
  void startSetupTimer();

  void createScreenStream();
  void streamClientsPublished();
  std::size_t streamClientCount() const;

  Environment env_;
  SettingsStore settings_;
  DeviceRegistry registry_;
  Properties p_;
  std::map<std::uint64_t, Observer> observers_;
  std::uint64_t nextSubscription_ = 0;
  std::shared_ptr<AIService> aiService_;
  std::shared_ptr<RuntimeSupervisor> runtime_;
  std::unique_ptr<LocalHTTPServer> server_;
  std::shared_ptr<screen::ScreenStreamService> screenStream_;
  std::optional<boost::asio::steady_timer> setupTimer_;
  std::uint64_t physicalMemoryGB_ = 0;
  bool launched_ = false;
  // The stream's client list as last handled, so that a repeat of the same list is dropped.
  std::optional<std::vector<std::string>> handledStreamClients_;
  std::set<std::string> previousStreamClients_;
};

}  // namespace orin
