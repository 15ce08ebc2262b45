#include "OrinLink/core/AppState.h"

#include <algorithm>
#include <cmath>
#include <ctime>

#include <boost/asio/bind_cancellation_slot.hpp>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/detached.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/this_coro.hpp>
#include <boost/asio/use_awaitable.hpp>

#include "OrinLink/common/AtomicFile.h"
#include "OrinLink/common/ErrorDescription.h"
#include "OrinLink/core/Diagnostics.h"
#include "OrinLink/server/EndpointDiscovery.h"
#include "OrinLinkShared/Text.h"
#include "OrinLinkShared/ToolCallParser.h"

namespace orin {

namespace asio = boost::asio;

namespace {

constexpr std::string_view unauthorizedMessage =
    "Pair this device with Orin Link before calling this endpoint.";

// How often a streamed reply's tokens reach the conversation log and the statistics at most:
// often enough that the panel shows the reply growing smoothly.
constexpr auto bookkeepingInterval = std::chrono::milliseconds(50);

const std::vector<std::filesystem::path>& ollamaBinaryPaths() {
  static const std::vector<std::filesystem::path> paths{
      "/usr/local/bin/ollama", "/opt/homebrew/bin/ollama", "/usr/bin/ollama"};
  return paths;
}

const std::vector<std::filesystem::path>& ollamaSystemUnits() {
  static const std::vector<std::filesystem::path> paths{"/etc/systemd/system/ollama.service",
                                                        "/usr/lib/systemd/system/ollama.service",
                                                        "/lib/systemd/system/ollama.service"};
  return paths;
}

// Where systemd finds a user's units: the user's own folder first.
std::vector<std::filesystem::path> userUnitFolders() {
  std::vector<std::filesystem::path> folders;
  const char* config = std::getenv("XDG_CONFIG_HOME");
  const char* home = std::getenv("HOME");
  if (config != nullptr && *config != '\0') {
    folders.emplace_back(std::filesystem::path(config) / "systemd/user");
  } else if (home != nullptr && *home != '\0') {
    folders.emplace_back(std::filesystem::path(home) / ".config/systemd/user");
  }
  folders.emplace_back("/etc/systemd/user");
  folders.emplace_back("/usr/lib/systemd/user");
  return folders;
}

// What the user is told when systemd would not start the service, with what to run instead.
std::string serviceRefusal(const std::optional<SystemActions::Outcome>& outcome,
                           const std::string& retry) {
  std::string reason = "systemctl could not run";
  if (outcome) {
    reason = outcome->output.substr(0, outcome->output.find('\n'));
    if (reason.empty())
      reason = "systemctl ended with status " + std::to_string(outcome->exitStatus);
    while (!reason.empty() && (reason.back() == '.' || reason.back() == ' '))
      reason.pop_back();
  }
  return "Could not start Ollama's service: " + reason + ". Start it in a terminal with \"" +
         retry + "\".";
}

std::string localDay(Date date) {
  const auto seconds = static_cast<std::time_t>(std::floor(date.unixSeconds()));
  std::tm parts{};
  ::localtime_r(&seconds, &parts);
  char text[16];
  std::strftime(text, sizeof text, "%Y-%m-%d", &parts);
  return text;
}

// The one error form a device sees when a handler fails.
HTTPResponse handlerFailure(const std::exception_ptr& error) {
  OrinLinkResponse response{Uuid::random(),
                            std::nullopt,
                            OrinLinkStatus::failed,
                            OrinLane::chat,
                            "",
                            std::nullopt,
                            std::nullopt,
                            OrinLinkError{"request_failed", describe(error)}};
  return HTTPResponse::json(response, HTTPStatus::internalServerError,
                            std::string(reasonPhrase(HTTPStatus::internalServerError)));
}

std::int64_t characterCount(std::string_view text) {
  std::int64_t count = 0;
  for (const char c : text)
    count += (static_cast<unsigned char>(c) & 0xC0) != 0x80 ? 1 : 0;
  return count;
}

bool wasCancelled(asio::cancellation_state state) {
  return state.cancelled() != asio::cancellation_type::none;
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
  };
  registry_.onPaired = [weak](const std::string& name) {
    if (auto self = weak.lock()) self->celebratePairing(name);
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
  // Files are written on the background executor, in order: every request that authenticates
  // rewrites the device list, and none of them may wait for fsync on the main loop.
  auto writer = [executor = env_.backgroundExecutor](std::filesystem::path file) -> FileWriter {
    return [executor, file = std::move(file)](std::string contents) {
      asio::post(executor, [file, contents = std::move(contents)] {
        try {
          writePrivateFile(file, contents);
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
  publishHealth();
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
  if (property == "activeModel") publishHealth();
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
        co_await self->refreshRuntimeStatus();
      },
      asio::detached);
  if (p_.openPanelAtLaunch) openSettingsWindow();
}

void AppState::shutdown() {
  if (screenStream_) screenStream_->shutdown();
  if (setupTimer_) setupTimer_->cancel();
  if (pullCancel_) pullCancel_->emit(asio::cancellation_type::terminal);
  if (watchCancel_) watchCancel_->emit(asio::cancellation_type::terminal);
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
              auto routing = self->route(std::move(r));
              co_return co_await std::move(routing);
            }(weak, std::move(request));
      });
  server->setImmediateHandler([weak = weak_from_this(), board = health_, main = env_.mainExecutor](
                                  const HTTPRequest& request) -> std::optional<std::string> {
    if (request.method != "GET" || request.path.substr(0, request.path.find('?')) != "/health")
      return std::nullopt;
    const auto now = std::chrono::steady_clock::now().time_since_epoch().count();
    if (now >= board->noWarmBefore.load(std::memory_order_relaxed) &&
        !board->warmPending.exchange(true)) {
      asio::post(main, [weak] {
        if (auto self = weak.lock()) {
          self->health_->warmPending = false;
          self->warmActiveModel(false);
        }
      });
    }
    return *board->reply.load();
  });
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
  // The window edits the properties in place, so /health, answered off the main loop, learns of
  // a new model here.
  publishHealth();
  settings_.set("ollamaBaseURL", p_.baseURLText);
  settings_.set("reliabilityModeEnabled", p_.reliabilityModeEnabled);
  settings_.set("startAtLoginEnabled", p_.startAtLoginEnabled);
  settings_.set("manualEndpointHost", p_.manualEndpointHost);
  settings_.set("manualEndpointKind", std::string(rawValue(p_.manualEndpointKind)));
  applyAvailabilitySettings();
  refreshEndpointCandidates();
  set(&Properties::lastEvent, std::string("Settings saved."), "lastEvent");
  warmActiveModel(true);
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
  s.installState = ollamaInstallState();
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
      startOllama();
      break;
    case SetupIssue::Kind::ollamaNotInstalled:
      openOllamaDownload();
      break;
    case SetupIssue::Kind::modelMissing:
      pullModel(p_.activeModel);
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
  return OllamaRuntime(
      OllamaEndpoint::parse(p_.baseURLText).value_or(OllamaEndpoint::defaultEndpoint()),
      env_.mainExecutor, env_.ollamaTimeouts);
}

OllamaInstallState AppState::ollamaInstallState() const {
  if (p_.isOllamaAvailable) return OllamaInstallState::running;
  for (const auto& path : ollamaBinaryPaths()) {
    if (env_.system->fileExists(path)) return OllamaInstallState::installed;
  }
  if (env_.system->findOnPath("ollama")) return OllamaInstallState::installed;
  return OllamaInstallState::notInstalled;
}

bool AppState::isActiveModelInstalled() const {
  return std::any_of(p_.models.begin(), p_.models.end(),
                     [this](const OllamaModel& m) { return m.name == p_.activeModel; });
}

std::string AppState::recommendedModel() const {
  return defaultModelForMemory(physicalMemoryGB_);
}

asio::awaitable<void> AppState::refreshRuntimeStatus() {
  auto self = shared_from_this();
  OllamaRuntime client = runtime();
  std::vector<OllamaModel> models;
  std::exception_ptr failure;
  try {
    models = co_await client.listModels();
  } catch (...) {
    failure = std::current_exception();
  }
  if (failure) {
    set(&Properties::isOllamaAvailable, false, "isOllamaAvailable");
    set(&Properties::modelResidentSince, std::nullopt, "modelResidentSince");
    set(&Properties::models, std::vector<OllamaModel>{}, "models");
    set(&Properties::ollamaError, describe(failure), "ollamaError");
    set(&Properties::lastEvent, std::string("Ollama is not reachable."), "lastEvent");
    co_return;
  }
  set(&Properties::models, std::move(models), "models");
  if (!p_.isOllamaAvailable) warmActiveModel(false);
  set(&Properties::isOllamaAvailable, true, "isOllamaAvailable");
  set(&Properties::ollamaError, std::nullopt, "ollamaError");
  set(&Properties::lastEvent,
      isActiveModelInstalled() ? "Ollama is ready with " + p_.activeModel + "."
                               : "Ollama is reachable, but " + p_.activeModel + " was not found.",
      "lastEvent");
}

void AppState::watchForOllama() {
  if (watchCancel_) watchCancel_->emit(asio::cancellation_type::terminal);
  watchCancel_ = std::make_shared<asio::cancellation_signal>();
  asio::co_spawn(
      env_.mainExecutor,
      // The coroutine holds its signal: its slot must not outlive it when a new watch replaces it.
      [weak = weak_from_this(), interval = env_.installWatchInterval,
       signal = watchCancel_]() -> asio::awaitable<void> {
        asio::steady_timer timer(co_await asio::this_coro::executor);
        for (int attempt = 0; attempt < installWatchAttempts; ++attempt) {
          timer.expires_after(interval);
          co_await timer.async_wait(asio::use_awaitable);
          auto self = weak.lock();
          if (!self) co_return;
          co_await self->refreshRuntimeStatus();
          if (self->p_.isOllamaAvailable) co_return;
        }
      },
      asio::bind_cancellation_slot(watchCancel_->slot(), asio::detached));
}

void AppState::startOllama() {
  SystemActions& system = *env_.system;
  const auto folders = userUnitFolders();
  const bool userUnit = std::any_of(folders.begin(), folders.end(), [&system](const auto& folder) {
    return system.fileExists(folder / "ollama.service");
  });
  const bool systemUnit =
      std::any_of(ollamaSystemUnits().begin(), ollamaSystemUnits().end(),
                  [&system](const auto& path) { return system.fileExists(path); });
  set(&Properties::lastEvent, std::string("Starting Ollama\u2026"), "lastEvent");
  if (userUnit || systemUnit) {
    // systemctl answers once the unit started or was refused (polkit, a failing unit): a refusal
    // is said at once instead of after the whole watch.
    std::vector<std::string> command =
        userUnit
            ? std::vector<std::string>{"systemctl", "--user", "start", "ollama.service"}
            : std::vector<std::string>{"systemctl", "start", "--no-ask-password", "ollama.service"};
    const std::string retry =
        userUnit ? "systemctl --user start ollama" : "sudo systemctl start ollama";
    asio::post(env_.backgroundExecutor, [weak = weak_from_this(), system = env_.system,
                                         main = env_.mainExecutor, command, retry] {
      auto outcome = system->run(command);
      asio::post(main, [weak, outcome = std::move(outcome), retry] {
        auto self = weak.lock();
        if (!self) return;
        if (outcome && outcome->exitStatus == 0) {
          self->watchForOllama();
          return;
        }
        self->set(&Properties::ollamaError, serviceRefusal(outcome, retry), "ollamaError");
        self->set(&Properties::lastEvent, std::string("Could not start Ollama."), "lastEvent");
      });
    });
    return;
  }
  std::optional<std::filesystem::path> binary;
  for (const auto& path : ollamaBinaryPaths()) {
    if (system.fileExists(path)) {
      binary = path;
      break;
    }
  }
  if (!binary) binary = system.findOnPath("ollama");
  if (binary) system.launchDetached({binary->string(), "serve"});
  watchForOllama();
}

void AppState::openOllamaDownload() {
  env_.system->openURL(std::string(ollamaDownloadPage));
  set(&Properties::lastEvent,
      std::string("Opened the Ollama download page. Orin Link will notice once it's installed and "
                  "running."),
      "lastEvent");
  watchForOllama();
}

void AppState::pullModel(const std::string& name) {
  if (pullCancel_) pullCancel_->emit(asio::cancellation_type::terminal);
  set(&Properties::pullError, std::nullopt, "pullError");
  set(&Properties::pullPausedModel, std::nullopt, "pullPausedModel");
  set(&Properties::pullProgress, PullProgress{"Starting download\u2026", std::nullopt, 0, 0},
      "pullProgress");
  pullCancel_ = std::make_shared<asio::cancellation_signal>();
  asio::co_spawn(
      env_.mainExecutor,
      [weak = weak_from_this(), name, client = runtime(),
       signal = pullCancel_]() mutable -> asio::awaitable<void> {
        auto progress = client.pull(name);
        std::exception_ptr failure;
        try {
          while (auto report = co_await progress.next(asio::use_awaitable)) {
            if (wasCancelled(co_await asio::this_coro::cancellation_state)) co_return;
            auto self = weak.lock();
            if (!self) co_return;
            self->set(&Properties::pullProgress, std::optional<PullProgress>(std::move(*report)),
                      "pullProgress");
          }
        } catch (...) {
          failure = std::current_exception();
        }
        if (wasCancelled(co_await asio::this_coro::cancellation_state)) co_return;
        auto self = weak.lock();
        if (!self) co_return;
        self->set(&Properties::pullProgress, std::nullopt, "pullProgress");
        if (failure) {
          self->set(&Properties::pullError, describe(failure), "pullError");
          co_return;
        }
        self->set(&Properties::lastEvent, "Downloaded " + name + ".", "lastEvent");
        co_await self->refreshRuntimeStatus();
      },
      asio::bind_cancellation_slot(pullCancel_->slot(), asio::detached));
}

void AppState::cancelPull() {
  if (pullCancel_) {
    pullCancel_->emit(asio::cancellation_type::terminal);
    pullCancel_.reset();
  }
  set(&Properties::pullProgress, std::nullopt, "pullProgress");
  set(&Properties::lastEvent,
      std::string("Download paused \u2014 Ollama keeps what it has, so it resumes where it left "
                  "off."),
      "lastEvent");
}

void AppState::warmActiveModel(bool force) {
  const Date now = env_.clock();
  const double sinceLast = lastModelWarmAt_ ? now.secondsSince(*lastModelWarmAt_) : 0;
  if (!force && lastModelWarmAt_ && sinceLast < warmUpSpacingSeconds) {
    const auto wait = std::chrono::duration_cast<std::chrono::steady_clock::duration>(
        std::chrono::duration<double>(warmUpSpacingSeconds - sinceLast));
    health_->noWarmBefore = (std::chrono::steady_clock::now() + wait).time_since_epoch().count();
    return;
  }
  lastModelWarmAt_ = now;
  const std::string model = p_.lastRequestedModel.value_or(p_.activeModel);
  asio::co_spawn(
      env_.mainExecutor,
      [weak = weak_from_this(), client = runtime(), model]() mutable -> asio::awaitable<void> {
        auto warming = client.warmModel(model);
        const bool warmed = co_await std::move(warming);
        auto self = weak.lock();
        if (warmed && self && !self->p_.modelResidentSince) {
          self->set(&Properties::modelResidentSince, std::optional<Date>(self->env_.clock()),
                    "modelResidentSince");
        }
      },
      asio::detached);
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

// --- Statistics and the conversation log --------------------------------------------------------

void AppState::noteRequestedModel(const std::optional<std::string>& model) {
  if (!model || model->empty() || model == p_.lastRequestedModel) return;
  p_.lastRequestedModel = model;
  settings_.set("lastRequestedModel", *model);
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

// --- Routing ------------------------------------------------------------------------------------

asio::awaitable<HTTPHandlerResult> AppState::route(HTTPRequest request) {
  auto self = shared_from_this();
  // Awaited calls are made in statements of their own: GCC 12 destroys temporaries created
  // inside a co_await expression twice.
  auto routing = routeUnsafe(std::move(request));
  co_return co_await std::move(routing);
}

asio::awaitable<HTTPHandlerResult> AppState::routeUnsafe(HTTPRequest request) {
  const std::string path = request.path.substr(0, request.path.find('?'));
  const std::string& method = request.method;

  if (method == "GET" && path == "/health") {
    warmActiveModel(false);
    co_return HTTPHandlerResult::response(healthResponse());
  }
  if (method == "POST" && path == "/v1/pair") {
    try {
      co_return HTTPHandlerResult::response(handlePair(request));
    } catch (...) {
      co_return HTTPHandlerResult::response(handlerFailure(std::current_exception()));
    }
  }

  if (!registry_.authenticate(request.bearerToken())) {
    co_return HTTPHandlerResult::response(HTTPResponse::error(
        HTTPStatus::unauthorized, "unauthorized", std::string(unauthorizedMessage)));
  }

  if (method == "GET" && path == "/status") {
    co_return HTTPHandlerResult::response(
        HTTPResponse::json(statusPayload(), HTTPStatus::ok, "OK"));
  }
  if (method == "GET" && path == "/models") {
    std::exception_ptr failure;
    std::vector<OllamaModel> models;
    try {
      OllamaRuntime client = runtime();
      auto listing = client.listModels();
      models = co_await std::move(listing);
    } catch (...) {
      failure = std::current_exception();
    }
    if (failure) co_return HTTPHandlerResult::response(handlerFailure(failure));
    std::vector<std::string> names;
    for (auto& model : models)
      names.push_back(std::move(model.name));
    co_return HTTPHandlerResult::response(HTTPResponse::json(
        std::map<std::string, std::vector<std::string>, std::less<>>{{"models", names}},
        HTTPStatus::ok, "OK"));
  }
  if (method == "POST" && path == "/v1/generate") {
    std::exception_ptr failure;
    std::optional<OrinLinkResponse> response;
    try {
      auto generating = handleGenerate(std::move(request));
      response = co_await std::move(generating);
    } catch (...) {
      failure = std::current_exception();
    }
    if (failure) co_return HTTPHandlerResult::response(handlerFailure(failure));
    co_return HTTPHandlerResult::response(HTTPResponse::json(*response, HTTPStatus::ok, "OK"));
  }
  if (method == "POST" && path == "/v1/generate/stream") {
    try {
      co_return HTTPHandlerResult::eventStream(handleGenerateStream(request));
    } catch (...) {
      co_return HTTPHandlerResult::response(handlerFailure(std::current_exception()));
    }
  }
  co_return HTTPHandlerResult::response(HTTPResponse::error(
      HTTPStatus::notFound, "not_found", "No Orin Link endpoint exists at " + request.path + "."));
}

HTTPResponse AppState::healthResponse() const {
  return HTTPResponse::json(
      OrinLinkHealth{"ok", "Orin Link", std::string(appVersion), "ollama", p_.activeModel},
      HTTPStatus::ok, "OK");
}

void AppState::publishHealth() {
  health_->reply = std::make_shared<const std::string>(healthResponse().serialized());
}

HTTPResponse AppState::handlePair(const HTTPRequest& request) {
  const auto pairing = decodeJSON<PairRequest>(request.body);
  std::string token = registry_.pair(pairing.deviceId, pairing.displayName, pairing.pairingCode);
  return HTTPResponse::json(PairResponse{pairing.deviceId, std::move(token)}, HTTPStatus::ok, "OK");
}

OrinLinkStatusPayload AppState::statusPayload() const {
  return {p_.isServerRunning,
          static_cast<std::int64_t>(registry_.devices().size()),
          p_.isOllamaAvailable,
          p_.activeModel,
          p_.serverPort,
          true,
          p_.reliabilityModeEnabled,
          "website",
          std::vector<std::string>{"textAI", "displayMirroring", "portal", "virtualUltrawide"}};
}

// Counts a generation in and returns the caller's device name.
std::string AppState::beginGeneration(const HTTPRequest& request) {
  std::string deviceName = registry_.deviceName(request.bearerToken()).value_or("Device");
  noteGenerationStarted(deviceName);
  return deviceName;
}

void AppState::noteGenerationStarted(const std::string& deviceName) {
  set(&Properties::activeGenerations, p_.activeGenerations + 1, "activeGenerations");
  set(&Properties::busyDeviceName, std::optional<std::string>(deviceName), "busyDeviceName");
  updateDockBadge();
}

asio::awaitable<OrinLinkResponse> AppState::handleGenerate(HTTPRequest request) {
  const auto generate = decodeJSON<OrinLinkGenerateRequest>(request.body);
  noteRequestedModel(generate.model);
  const std::string deviceName = beginGeneration(request);
  const Date start = env_.clock();
  ModelGenerateRequest modelRequest{generate.prompt, generate.model.value_or(p_.activeModel),
                                    generate.temperature.value_or(0.7),
                                    generate.think.value_or(false)};
  OllamaRuntime client = runtime();
  std::string text;
  std::exception_ptr failure;
  bool retryWithoutThink = false;
  try {
    auto generating = client.generateOnce(modelRequest, modelRequest.think);
    text = co_await std::move(generating);
  } catch (const OllamaError& error) {
    retryWithoutThink = error.kind() == OllamaError::Kind::httpStatus && error.statusCode() == 400;
    if (!retryWithoutThink) failure = std::current_exception();
  } catch (...) {
    failure = std::current_exception();
  }
  if (retryWithoutThink) {
    try {
      auto retrying = client.generateOnce(modelRequest, std::nullopt);
      text = co_await std::move(retrying);
    } catch (...) {
      failure = std::current_exception();
    }
  }
  if (failure) {
    endGeneration(0, start);
    std::rethrow_exception(failure);
  }
  const std::int64_t characters = characterCount(text);
  endGeneration(characters > 3 ? characters / 4 : 1, start);

  auto toolCall = OrinToolParser::extractToolCall(text);
  std::string shown = OrinToolParser::removingToolCallMarkup(text);
  if (auto entry = beginConversationEntry(generate.prompt, deviceName)) {
    appendConversationToken(shown, *entry);
    completeConversationEntry(*entry);
  }
  const OrinLane lane = toolCall ? OrinLane::toolProposal : OrinLane::chat;
  co_return OrinLinkResponse{Uuid::random(), generate.id,      OrinLinkStatus::success,
                             lane,           std::move(shown), std::move(toolCall),
                             std::nullopt,   std::nullopt};
}

TextChunkStream AppState::handleGenerateStream(const HTTPRequest& request) {
  const auto generate = decodeJSON<OrinLinkGenerateRequest>(request.body);
  noteRequestedModel(generate.model);
  const std::string deviceName = beginGeneration(request);
  const auto entry = beginConversationEntry(generate.prompt, deviceName);
  const Date start = env_.clock();
  ModelGenerateRequest modelRequest{generate.prompt, generate.model.value_or(p_.activeModel),
                                    generate.temperature.value_or(0.7),
                                    generate.think.value_or(false)};

  auto made = TextChunkStream::make();
  TextChunkStream chunks = std::move(made.first);
  const TextChunkStream::Continuation continuation = made.second;
  // Tokens are read upstream and relayed on the server's own loop, where the device's socket is
  // written, so a token crosses no thread; the bookkeeping follows on the main loop.
  const asio::any_io_executor relay = env_.httpExecutor;
  OllamaRuntime upstreamClient(
      OllamaEndpoint::parse(p_.baseURLText).value_or(OllamaEndpoint::defaultEndpoint()), relay,
      env_.ollamaTimeouts);
  auto tally = std::make_shared<GenerationTally>();
  // The device going away cancels the relay, which cancels the runtime's stream and so the
  // request upstream. Emitted on the relay's loop, and only while the relay runs.
  auto cancel = std::make_shared<RelayCancellation>();
  continuation.onTermination([relay, cancel](TextChunkStream::Termination why) {
    if (why != TextChunkStream::Termination::cancelled) return;
    asio::post(relay, [cancel] {
      if (!cancel->finished) cancel->signal.emit(asio::cancellation_type::terminal);
    });
  });
  asio::co_spawn(
      relay,
      [weak = weak_from_this(), main = env_.mainExecutor, relay,
       upstream = upstreamClient.stream(std::move(modelRequest)), continuation, entry, start,
       cancel, tally]() mutable -> asio::awaitable<void> {
        std::exception_ptr failure;
        const auto handOff = [weak, main, tally, entry, start] {
          asio::post(main, [weak, tally, entry, start] {
            if (auto self = weak.lock()) self->applyTally(*tally, entry, start);
          });
        };
        // Waking the main loop costs the relay's thread more than a token does, so tokens reach
        // the bookkeeping at most once per interval; the first one at once.
        asio::steady_timer handOffTimer(relay);
        std::chrono::steady_clock::time_point lastHandOff;
        try {
          while (true) {
            std::optional<std::string> token = co_await upstream.next(asio::use_awaitable);
            if (!token) break;
            const bool handOffNeeded = tally->add(*token);
            continuation.yield(std::move(*token));
            if (!handOffNeeded) continue;
            const auto now = std::chrono::steady_clock::now();
            if (now >= lastHandOff + bookkeepingInterval) {
              lastHandOff = now;
              // Queued behind the token's delivery, so the main loop wakes after the write.
              asio::post(relay, handOff);
            } else {
              lastHandOff += bookkeepingInterval;
              handOffTimer.expires_at(lastHandOff);
              handOffTimer.async_wait([handOff](boost::system::error_code ec) {
                if (!ec) handOff();
              });
            }
          }
        } catch (...) {
          failure = std::current_exception();
        }
        cancel->finished = true;
        asio::post(main, [weak, tally, entry, start] {
          auto self = weak.lock();
          if (!self) return;
          self->applyTally(*tally, entry, start);
          if (entry) self->completeConversationEntry(*entry);
          self->endGeneration(tally->total(), start);
        });
        if (failure) {
          continuation.finish(failure);
        } else {
          continuation.finish();
        }
      },
      asio::bind_cancellation_slot(cancel->signal.slot(), asio::detached));
  return chunks;
}

bool AppState::GenerationTally::add(const std::string& token) {
  const std::lock_guard lock(mutex_);
  pending_ += token;
  ++count_;
  const bool first = !posted_;
  posted_ = true;
  return first;
}

AppState::GenerationTally::Taken AppState::GenerationTally::take() {
  const std::lock_guard lock(mutex_);
  posted_ = false;
  Taken taken{std::move(pending_), applied_, count_};
  pending_.clear();
  applied_ = count_;
  return taken;
}

std::int64_t AppState::GenerationTally::total() {
  const std::lock_guard lock(mutex_);
  return count_;
}

void AppState::applyTally(GenerationTally& tally, const std::optional<Uuid>& entry, Date start) {
  const auto taken = tally.take();
  if (taken.count == taken.before) return;
  if (entry) appendConversationToken(taken.text, *entry);
  // The rate is refreshed every eighth token.
  if (taken.count / 8 > taken.before / 8) {
    const double elapsed = std::max(env_.clock().secondsSince(start), 0.05);
    set(&Properties::tokensPerSecond,
        std::optional<double>(static_cast<double>(taken.count / 8 * 8) / elapsed),
        "tokensPerSecond");
  }
}

}  // namespace orin
