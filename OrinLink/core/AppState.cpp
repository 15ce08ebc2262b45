#include "OrinLink/core/AppState.h"

#include <algorithm>
#include <cmath>
#include <ctime>
#include <mutex>
#include <optional>

#include <boost/asio/co_spawn.hpp>
#include <boost/asio/detached.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/use_awaitable.hpp>

#include "OrinLink/common/AtomicFile.h"
#include "OrinLink/common/ErrorDescription.h"
#include "OrinLink/core/Diagnostics.h"
#include "OrinLink/server/EndpointDiscovery.h"
#include "OrinLinkShared/Text.h"

namespace orin {

namespace asio = boost::asio;

namespace {

std::string localDay(Date date) {
  const auto seconds = static_cast<std::time_t>(std::floor(date.unixSeconds()));
  std::tm parts{};
  ::localtime_r(&seconds, &parts);
  char text[16];
  std::strftime(text, sizeof text, "%Y-%m-%d", &parts);
  return text;
}

}  // namespace

std::shared_ptr<AppState> AppState::make(Environment environment) {
  auto state = std::shared_ptr<AppState>(new AppState(std::move(environment)));
  state->createScreenStream();
  state->wire();
  return state;
}

void AppState::wire() {
  std::weak_ptr<AppState> weak = weak_from_this();
  registry_.onChanged = [weak] {
    if (auto self = weak.lock()) self->changed("registry");
  };
  registry_.onRevoked = [weak](const std::string& hash) {
    auto self = weak.lock();
    if (!self) return;
    if (self->screenStream_) self->screenStream_->revoke(hash);
    if (self->server_) self->server_->revoke(hash);
    self->aiService_->republish();
  };
  registry_.onPaired = [weak](const std::string& name) {
    auto self = weak.lock();
    if (!self) return;
    // Only pairing and removal change the credentials; every request rewrites the registry's
    // last-seen times, which the server's loop does not need.
    self->aiService_->republish();
    self->celebratePairing(name);
  };
}

void AppState::createScreenStream() {
  if (!env_.streamPlatform) return;
  screen::ScreenStreamService::Environment stream;
  stream.mainExecutor = env_.mainExecutor;
  stream.serverExecutor = env_.streamServerExecutor;
  stream.platformExecutor = env_.streamPlatformExecutor;
  stream.settings = &settings_;
  stream.registry = &registry_;
  stream.httpPort = [weak = weak_from_this()]() -> std::uint16_t {
    auto self = weak.lock();
    return self ? self->p_.serverPort : defaultServerPort;
  };
  stream.system = env_.system;
  stream.advertiser = env_.advertiser;
  stream.platform = *env_.streamPlatform;
  stream.bindAddress = env_.bindAddress;
  stream.portOverride = env_.streamPortOverride;
  screenStream_ = screen::ScreenStreamService::make(std::move(stream));
  screenStream_->observe([weak = weak_from_this()](std::string_view property) {
    auto self = weak.lock();
    if (!self) return;
    if (property == "connectedClients") self->streamClientsPublished();
    self->changed("screenStream." + std::string(property));
  });
  streamClientsPublished();
}

void AppState::streamClientsPublished() {
  const auto& names = screenStream_->properties().connectedClients;
  if (handledStreamClients_ == names) return;
  handledStreamClients_ = names;
  handleStreamClientsChanged(names);
}

std::size_t AppState::streamClientCount() const {
  return screenStream_ ? screenStream_->properties().connectedClients.size() : 0;
}

AppState::AppState(Environment environment)
    : env_(std::move(environment)),
      settings_(env_.settingsFile),
      registry_(env_.registryFile, env_.clock, env_.random) {
  // Files are written on the background executor, in order, and only as they are latest: one
  // generation updates the device list and the settings several times within a millisecond, and
  // none of them may wait for fsync on the main loop.
  auto writer = [executor = env_.backgroundExecutor](std::filesystem::path file) -> FileWriter {
    struct Pending {
      std::mutex mutex;
      std::optional<std::string> contents;
    };
    return [executor, file = std::move(file),
            pending = std::make_shared<Pending>()](std::string contents) {
      {
        std::lock_guard lock(pending->mutex);
        const bool queued = pending->contents.has_value();
        pending->contents = std::move(contents);
        if (queued) return;
      }
      asio::post(executor, [file, pending] {
        std::string latest;
        {
          std::lock_guard lock(pending->mutex);
          latest = std::move(*pending->contents);
          pending->contents.reset();
        }
        try {
          writePrivateFile(file, latest);
        } catch (const std::exception&) {
          // The state in memory stays authoritative; the next change writes the file again.
        }
      });
    };
  };
  settings_.setFileWriter(writer(env_.settingsFile));
  registry_.setFileWriter(writer(env_.registryFile));
  const double bytes = static_cast<double>(env_.system->physicalMemoryBytes());
  physicalMemoryGB_ = static_cast<std::uint64_t>(std::llround(bytes / 1073741824.0));
  readSettings();
  aiService_ = AIService::make(*this, env_.mainExecutor, env_.httpExecutor);
  runtime_ = RuntimeSupervisor::make(
      *this, {env_.mainExecutor, env_.backgroundExecutor, env_.system, env_.installWatchInterval});
}

AppState::~AppState() {
  shutdown();
}

void AppState::readSettings() {
  const std::int64_t port = settings_.integer("serverPort");
  if (port < 0 || port > 65535) {
    throw StartupError("The setting \"serverPort\" in " + settings_.file().string() + " is " +
                       std::to_string(port) +
                       ", which is not a port number from 0 to 65535. Correct or remove it, "
                       "then start Orin Link again.");
  }
  p_.serverPort = port == 0 ? defaultServerPort : static_cast<std::uint16_t>(port);
  p_.activeModel =
      settings_.string("activeModel").value_or(defaultModelForMemory(physicalMemoryGB_));
  p_.baseURLText =
      settings_.string("ollamaBaseURL").value_or(std::string(OllamaEndpoint::defaultBaseURL));
  p_.reliabilityModeEnabled = settings_.boolean("reliabilityModeEnabled");
  p_.startAtLoginEnabled = settings_.boolean("startAtLoginEnabled");
  p_.manualEndpointHost = settings_.string("manualEndpointHost").value_or("");
  p_.manualEndpointKind =
      enumFromRawValue<OrinLinkConnectionKind>(settings_.string("manualEndpointKind").value_or(""))
          .value_or(OrinLinkConnectionKind::manual);
  p_.showConversations = settings_.boolean("showConversationsOnMac");
  p_.hasSeenGuide = settings_.boolean("hasSeenGuide");
  p_.isGuidePresented = !settings_.boolean("hasSeenGuide");
  p_.showInDock = settings_.boolean("showInDock");
  // Read as it is stored, so that absence (and anything but a Boolean) means on.
  const auto sound = settings_.object("pairingSoundEnabled");
  p_.pairingSoundEnabled = !sound || !sound->is_boolean() || sound->get<bool>();
  const auto openPanel = settings_.object("openPanelAtLaunch");
  p_.openPanelAtLaunch = !openPanel || !openPanel->is_boolean() || openPanel->get<bool>();
  p_.connectNotificationsEnabled = settings_.boolean("connectNotificationsEnabled");
  p_.lastRequestedModel = settings_.string("lastRequestedModel");
  p_.repliesToday = settings_.string("repliesTodayDate") == localDay(env_.clock())
                        ? settings_.integer("repliesTodayCount")
                        : 0;
}

std::uint64_t AppState::observe(Observer observer) {
  observers_.emplace(++nextSubscription_, std::move(observer));
  return nextSubscription_;
}

void AppState::unobserve(std::uint64_t subscription) {
  observers_.erase(subscription);
}

void AppState::changed(std::string_view property) {
  if (property == "activeModel") aiService_->republish();
  // A copy, because an observer may subscribe or leave while being told.
  const auto observers = observers_;
  for (const auto& [id, observer] : observers)
    observer(property);
}

// The other edition is refused before the state exists; the panel's assets are compiled in, so
// there is no font to register.
void AppState::launch() {
  if (launched_) return;
  launched_ = true;
  if (screenStream_) screenStream_->resumeIfEnabled();
  startServer();
  refreshEndpointCandidates();
  applyAvailabilitySettings();
  startSetupTimer();
  asio::co_spawn(
      env_.mainExecutor,
      [self = shared_from_this()]() -> asio::awaitable<void> {
        co_await self->runtime_->refresh();
      },
      asio::detached);
  if (p_.openPanelAtLaunch) openSettingsWindow();
}

void AppState::shutdown() {
  if (screenStream_) screenStream_->shutdown();
  if (setupTimer_) setupTimer_->cancel();
  runtime_->shutdown();
  if (server_) server_->stop();
  server_.reset();
}

void AppState::startSetupTimer() {
  setupTimer_.emplace(env_.mainExecutor);
  asio::co_spawn(
      env_.mainExecutor,
      [weak = weak_from_this()]() -> asio::awaitable<void> {
        while (true) {
          auto self = weak.lock();
          if (!self || !self->setupTimer_) co_return;
          auto& timer = *self->setupTimer_;
          self.reset();
          timer.expires_after(std::chrono::seconds(1));
          co_await timer.async_wait(asio::use_awaitable);
          self = weak.lock();
          if (!self) co_return;
          self->set(&Properties::setupTick, self->p_.setupTick + 1, "setupTick");
          if (self->registry_.pairingCodeRemainingSeconds() == 0) {
            self->registry_.refreshPairingCode();
          }
        }
      },
      asio::detached);
}

void AppState::startServer() {
  set(&Properties::serverError, std::nullopt, "serverError");
  if (server_) return;
  LocalHTTPServer::Options options;
  options.port = env_.serverPortOverride.value_or(p_.serverPort);
  options.bindAddress = env_.bindAddress;
  options.serviceName = env_.serviceName;
  options.advertiser = env_.advertiser;
  auto server = std::make_unique<LocalHTTPServer>(
      options, env_.httpExecutor, env_.mainExecutor,
      [weak = weak_from_this()](HTTPRequest request) -> asio::awaitable<HTTPHandlerResult> {
        return
            [](std::weak_ptr<AppState> owner, HTTPRequest r) -> asio::awaitable<HTTPHandlerResult> {
              auto self = owner.lock();
              if (!self) throw Error("Orin Link is shutting down.");
              auto routing = self->aiService_->route(std::move(r));
              co_return co_await std::move(routing);
            }(weak, std::move(request));
      });
  server->setImmediateHandler(aiService_->immediateHandler());
  const LocalHTTPServer* current = server.get();
  server->setStateChanged([weak = weak_from_this(), current](bool running, std::uint16_t port,
                                                             std::optional<std::string> error) {
    auto self = weak.lock();
    if (!self || self->server_.get() != current) return;
    const bool wasRunning = self->p_.isServerRunning;
    self->set(&Properties::isServerRunning, running, "isServerRunning");
    self->set(&Properties::serverPort, port, "serverPort");
    self->set(&Properties::serverError, error, "serverError");
    if (running) {
      self->set(&Properties::lastEvent, "Server started on port " + std::to_string(port) + ".",
                "lastEvent");
    } else {
      // A listener that never ran failed to bind: the start itself failed.
      self->set(&Properties::lastEvent,
                (wasRunning ? "Server failed: " : "Server failed to start: ") +
                    error.value_or("unknown error"),
                "lastEvent");
      self->server_.reset();
    }
    self->refreshEndpointCandidates();
  });
  server_ = std::move(server);
  server_->start();
  set(&Properties::lastEvent, std::string("Starting server\u2026"), "lastEvent");
}

void AppState::stopServer() {
  if (server_) server_->stop();
  server_.reset();
  set(&Properties::isServerRunning, false, "isServerRunning");
  refreshEndpointCandidates();
  set(&Properties::lastEvent, std::string("Server stopped."), "lastEvent");
}

void AppState::saveSettings() {
  settings_.set("serverPort", p_.serverPort);
  settings_.set("activeModel", p_.activeModel);
  // The window edits the properties in place, so what is answered off the main loop learns of a
  // new model or daemon address here.
  aiService_->republish();
  settings_.set("ollamaBaseURL", p_.baseURLText);
  settings_.set("reliabilityModeEnabled", p_.reliabilityModeEnabled);
  settings_.set("startAtLoginEnabled", p_.startAtLoginEnabled);
  settings_.set("manualEndpointHost", p_.manualEndpointHost);
  settings_.set("manualEndpointKind", std::string(rawValue(p_.manualEndpointKind)));
  applyAvailabilitySettings();
  refreshEndpointCandidates();
  set(&Properties::lastEvent, std::string("Settings saved."), "lastEvent");
  runtime_->warm(true);
}

void AppState::applyAvailabilitySettings() {
  set(&Properties::availabilityError, std::nullopt, "availabilityError");
  if (auto* sleep = env_.desktop.sleepPrevention.get()) {
    try {
      sleep->setEnabled(p_.reliabilityModeEnabled);
    } catch (...) {
      set(&Properties::reliabilityModeEnabled, false, "reliabilityModeEnabled");
      set(&Properties::availabilityError, describe(std::current_exception()), "availabilityError");
    }
  }
  if (auto* login = env_.desktop.loginItem.get()) {
    try {
      login->setEnabled(p_.startAtLoginEnabled);
    } catch (...) {
      set(&Properties::startAtLoginEnabled, false, "startAtLoginEnabled");
      std::string text = p_.availabilityError.value_or("");
      if (!text.empty()) text += '\n';
      text += "Start at Login: " + describe(std::current_exception());
      set(&Properties::availabilityError, std::move(text), "availabilityError");
    }
  }
}

void AppState::openSettingsWindow() {
  if (auto* opener = env_.desktop.panelOpener.get()) opener->openControlPanel();
}

void AppState::setShowConversations(bool on) {
  set(&Properties::showConversations, on, "showConversations");
  settings_.set("showConversationsOnMac", on);
  if (!on) set(&Properties::conversationLog, std::deque<ConversationEntry>{}, "conversationLog");
}

void AppState::setHasSeenGuide(bool seen) {
  set(&Properties::hasSeenGuide, seen, "hasSeenGuide");
  settings_.set("hasSeenGuide", seen);
}

void AppState::setShowInDock(bool show) {
  set(&Properties::showInDock, show, "showInDock");
  settings_.set("showInDock", show);
  applyDockPolicy();
}

void AppState::setPairingSoundEnabled(bool on) {
  set(&Properties::pairingSoundEnabled, on, "pairingSoundEnabled");
  settings_.set("pairingSoundEnabled", on);
}

void AppState::setOpenPanelAtLaunch(bool on) {
  set(&Properties::openPanelAtLaunch, on, "openPanelAtLaunch");
  settings_.set("openPanelAtLaunch", on);
}

void AppState::setConnectNotificationsEnabled(bool on) {
  set(&Properties::connectNotificationsEnabled, on, "connectNotificationsEnabled");
  settings_.set("connectNotificationsEnabled", on);
  auto* center = env_.desktop.notifications.get();
  // The answer does not matter: a refusal only means that nothing is shown.
  if (on && center != nullptr && center->isAvailable()) center->requestAuthorization();
}

void AppState::setGuidePresented(bool presented) {
  set(&Properties::isGuidePresented, presented, "isGuidePresented");
  if (!presented && !p_.hasSeenGuide) setHasSeenGuide(true);
}

// --- Desktop presence and notifications ---------------------------------------------------------

void AppState::applyDockPolicy() {
  if (auto* presence = env_.desktop.presence.get()) {
    presence->setShowsWindowedPresence(p_.showInDock);
  }
  updateDockBadge();
}

void AppState::updateDockBadge() {
  auto text = badgeText(streamClientCount(), p_.activeGenerations);
  if (auto* presence = env_.desktop.presence.get()) presence->setBadge(text);
  if (text != p_.badge) set(&Properties::badge, std::move(text), "badge");
}

void AppState::postNotification(const std::string& title, const std::string& body) {
  auto* center = env_.desktop.notifications.get();
  if (!p_.connectNotificationsEnabled || center == nullptr || !center->isAvailable()) return;
  center->post(title, body);
}

void AppState::celebratePairing(const std::string& name) {
  set(&Properties::lastPairedDeviceName, std::optional<std::string>(name), "lastPairedDeviceName");
  set(&Properties::lastPairedAt, std::optional<Date>(env_.clock()), "lastPairedAt");
  set(&Properties::lastEvent, "Paired " + name + ".", "lastEvent");
  if (auto* sound = env_.desktop.sound.get(); sound != nullptr && p_.pairingSoundEnabled) {
    sound->playPairingSound();
  }
  postNotification(name + " joined", "Paired with Orin Link on this Mac.");
}

void AppState::handleStreamClientsChanged(const std::vector<std::string>& names) {
  std::set<std::string> announced;
  for (const auto& name : names) {
    if (previousStreamClients_.contains(name) || !announced.insert(name).second) continue;
    postNotification(name + " connected", "Streaming your desktop into Vantaro.");
  }
  previousStreamClients_ = std::set<std::string>(names.begin(), names.end());
  updateDockBadge();
}

void AppState::setDiscoveryAvailable(bool available) {
  if (p_.isDiscoveryAvailable == available) return;
  set(&Properties::isDiscoveryAvailable, std::optional<bool>(available), "isDiscoveryAvailable");
  set(&Properties::lastEvent,
      std::string(available ? "Discovery is available: devices on this network can find Orin "
                              "Link."
                            : "Discovery is unavailable (no Avahi daemon), so devices must be "
                              "given an address. Everything else works."),
      "lastEvent");
}

// --- Setup issues -------------------------------------------------------------------------------

StateSnapshot AppState::stateSnapshot() const {
  StateSnapshot s;
  s.isServerRunning = p_.isServerRunning;
  s.serverPort = p_.serverPort;
  s.serverError = p_.serverError;
  s.isOllamaAvailable = p_.isOllamaAvailable;
  s.installState = runtime_->installState();
  s.ollamaError = p_.ollamaError;
  s.activeModel = p_.activeModel;
  s.isActiveModelInstalled = isActiveModelInstalled();
  s.baseURLText = p_.baseURLText;
  s.physicalMemoryGB = physicalMemoryGB_;
  s.isModelResident = p_.modelResidentSince.has_value();
  s.pairedDevices = registry_.devices().size();
  s.activeGenerations = p_.activeGenerations;
  s.busyDeviceName = p_.busyDeviceName;
  s.tokensPerSecond = p_.tokensPerSecond;
  s.repliesToday = p_.repliesToday;
  s.reliabilityModeEnabled = p_.reliabilityModeEnabled;
  s.startAtLoginEnabled = p_.startAtLoginEnabled;
  s.lastEvent = p_.lastEvent;
  s.availabilityError = p_.availabilityError;
  s.endpoints = p_.endpointCandidates;
  if (screenStream_) {
    const auto& stream = screenStream_->properties();
    s.stream.isEnabled = stream.isEnabled;
    s.stream.isCapturing = stream.isCapturing;
    s.stream.clients = stream.connectedClients;
    s.stream.port = screenStream_->activePort().value_or(stream.streamPort);
    s.stream.statusText = stream.statusText;
    s.stream.error = stream.streamError;
    s.stream.capture = stream.captureBinding;
    s.stream.virtualDisplayProblem = stream.virtualDisplayProblem;
    if (stream.captureBlocker) {
      using Blocker = screen::DisplayCaptureError::Kind;
      switch (*stream.captureBlocker) {
        case Blocker::sharingDeclined:
          s.stream.blocked = StreamBlock::sharingDeclined;
          break;
        case Blocker::pipeWireUnavailable:
          s.stream.blocked = StreamBlock::pipeWireMissing;
          break;
        case Blocker::screenCastUnavailable:
          s.stream.blocked = StreamBlock::screenCastMissing;
          break;
        default:
          break;
      }
    }
  }
  s.missingFacilities = missingFacilities(env_.desktop, p_.isDiscoveryAvailable);
  return s;
}

std::optional<SetupIssue> AppState::setupIssue() const {
  return orin::setupIssue(stateSnapshot());
}

std::optional<SetupIssue::Kind> AppState::performSetupAction() {
  const auto issue = setupIssue();
  if (!issue) return std::nullopt;
  switch (issue->kind) {
    case SetupIssue::Kind::serverStopped:
      startServer();
      break;
    case SetupIssue::Kind::ollamaNotRunning:
      runtime_->startOllama();
      break;
    case SetupIssue::Kind::ollamaNotInstalled:
      runtime_->openDownloadPage();
      break;
    case SetupIssue::Kind::modelMissing:
      runtime_->pull(p_.activeModel);
      break;
    case SetupIssue::Kind::noDevicePaired:
      newPairingCode();
      break;
    case SetupIssue::Kind::screenSharingBlocked:
      if (screenStream_) screenStream_->retryCapture();
      break;
  }
  return issue->kind;
}

void AppState::refreshEndpointCandidates() {
  set(&Properties::endpointCandidates,
      EndpointDiscovery::discover(p_.serverPort, p_.manualEndpointHost, p_.manualEndpointKind),
      "endpointCandidates");
  // The Tailscale tool is a child process we wait for: never on the main loop.
  asio::post(env_.backgroundExecutor, [weak = weak_from_this(), system = env_.system,
                                       main = env_.mainExecutor] {
    auto name = EndpointDiscovery::magicDNSName(*system);
    if (!name) return;
    asio::post(main, [weak, name = std::move(*name)] {
      if (auto self = weak.lock()) {
        auto endpoints = self->p_.endpointCandidates;
        if (EndpointDiscovery::insertMagicDNSName(endpoints, name, self->p_.serverPort)) {
          self->set(&Properties::endpointCandidates, std::move(endpoints), "endpointCandidates");
        }
      }
    });
  });
}

// --- Runtime supervision -----------------------------------------------------------------------

OllamaRuntime AppState::runtime() const {
  return runtimeOn(env_.mainExecutor);
}

OllamaRuntime AppState::runtimeOn(const asio::any_io_executor& executor) const {
  return OllamaRuntime(
      OllamaEndpoint::parse(p_.baseURLText).value_or(OllamaEndpoint::defaultEndpoint()), executor,
      env_.ollamaTimeouts);
}

std::chrono::steady_clock::duration AppState::requestWarmUp() {
  return runtime_->warm(false);
}

bool AppState::isActiveModelInstalled() const {
  return std::any_of(p_.models.begin(), p_.models.end(),
                     [this](const OllamaModel& m) { return m.name == p_.activeModel; });
}

std::string AppState::recommendedModel() const {
  return defaultModelForMemory(physicalMemoryGB_);
}

// --- Pairing -----------------------------------------------------------------------------------

std::string AppState::pairingPayload() const {
  PairingPayload payload;
  payload.pairingCode = registry_.pairingCode();
  payload.expiresAt = registry_.pairingCodeCreatedAt().adding(DeviceRegistry::pairingCodeLifetime);
  payload.port = p_.serverPort;
  payload.endpoints = p_.endpointCandidates;
  return payload.text();
}

void AppState::newPairingCode() {
  registry_.refreshPairingCode();
}

bool AppState::removeDevice(const Uuid& id) {
  return registry_.removeDevice(id);
}

std::optional<std::string> AppState::authenticate(const std::optional<std::string>& token) {
  if (!registry_.authenticate(token)) return std::nullopt;
  return registry_.deviceName(token).value_or("Device");
}

std::string AppState::pair(const PairRequest& request) {
  return registry_.pair(request.deviceId, request.displayName, request.pairingCode);
}

std::vector<AIServiceHost::Credential> AppState::pairedDevices() const {
  std::vector<Credential> credentials;
  for (const auto& device : registry_.devices())
    credentials.push_back({device.tokenHash, device.displayName});
  return credentials;
}

AIServiceHost::StatusFacts AppState::statusFacts() const {
  return {p_.isServerRunning,   static_cast<std::int64_t>(registry_.devices().size()),
          p_.isOllamaAvailable, p_.activeModel,
          p_.serverPort,        p_.reliabilityModeEnabled};
}

// --- Statistics and the conversation log --------------------------------------------------------

void AppState::noteRequestedModel(const std::optional<std::string>& model) {
  if (!model || model->empty() || model == p_.lastRequestedModel) return;
  p_.lastRequestedModel = model;
  settings_.set("lastRequestedModel", *model);
}

void AppState::noteGenerationStarted(const std::string& deviceName) {
  set(&Properties::activeGenerations, p_.activeGenerations + 1, "activeGenerations");
  set(&Properties::busyDeviceName, std::optional<std::string>(deviceName), "busyDeviceName");
  updateDockBadge();
}

void AppState::noteTokenRate(double tokensPerSecond) {
  set(&Properties::tokensPerSecond, std::optional<double>(tokensPerSecond), "tokensPerSecond");
}

void AppState::endGeneration(std::int64_t tokens, Date since) {
  set(&Properties::activeGenerations, std::max<std::int64_t>(p_.activeGenerations - 1, 0),
      "activeGenerations");
  if (p_.activeGenerations == 0) set(&Properties::busyDeviceName, std::nullopt, "busyDeviceName");
  if (tokens >= 1) {
    const Date now = env_.clock();
    set(&Properties::tokensPerSecond,
        static_cast<double>(tokens) / std::max(now.secondsSince(since), 0.05), "tokensPerSecond");
    if (!p_.modelResidentSince) {
      set(&Properties::modelResidentSince, std::optional<Date>(now), "modelResidentSince");
    }
    recordReply();
  }
  updateDockBadge();
}

void AppState::recordReply() {
  const std::string today = localDay(env_.clock());
  if (settings_.string("repliesTodayDate") != today) {
    p_.repliesToday = 0;
    settings_.set("repliesTodayDate", today);
  }
  set(&Properties::repliesToday, p_.repliesToday + 1, "repliesToday");
  settings_.set("repliesTodayCount", p_.repliesToday);
}

std::optional<Uuid> AppState::beginConversationEntry(const std::string& prompt,
                                                     const std::string& deviceName) {
  if (!p_.showConversations) return std::nullopt;
  ConversationEntry entry{Uuid::random(),        env_.clock(), deviceName,
                          displayPrompt(prompt), "",           false};
  const Uuid id = entry.id;
  p_.conversationLog.push_back(std::move(entry));
  while (p_.conversationLog.size() > conversationLogLimit)
    p_.conversationLog.pop_front();
  changed("conversationLog");
  return id;
}

void AppState::appendConversationToken(const std::string& text, const Uuid& id) {
  if (!p_.showConversations) return;
  for (auto& entry : p_.conversationLog) {
    if (entry.id == id) {
      entry.response += text;
      changed("conversationLog");
      return;
    }
  }
}

void AppState::completeConversationEntry(const Uuid& id) {
  for (auto& entry : p_.conversationLog) {
    if (entry.id == id) {
      entry.isComplete = true;
      changed("conversationLog");
      return;
    }
  }
}

}  // namespace orin
