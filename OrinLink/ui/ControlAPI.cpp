#include "OrinLink/ui/ControlAPI.h"

#include <set>

#include <boost/asio/co_spawn.hpp>
#include <boost/asio/detached.hpp>
#include <boost/asio/post.hpp>
#include <openssl/crypto.h>
#include <openssl/rand.h>

#include "OrinLink/common/AtomicFile.h"
#include "OrinLink/common/ErrorDescription.h"
#include "OrinLink/controlclient/ControlClient.h"
#include "OrinLink/core/Diagnostics.h"
#include "OrinLink/http/RouteTable.h"
#include "OrinLink/ui/ControlPanelAssets.h"

namespace orin {

namespace asio = boost::asio;
using Ordered = nlohmann::ordered_json;

namespace {

HTTPResponse jsonReply(int status, const Ordered& body) {
  HTTPResponse response{status, std::string(reasonPhrase(status)), HTTPResponse::jsonHeaders(), ""};
  try {
    response.body = json::serialize(body);
  } catch (const EncodingError&) {
  }
  return response;
}

Ordered optionalText(const std::optional<std::string>& text) {
  return text ? Ordered(*text) : Ordered(nullptr);
}

Ordered optionalDate(const std::optional<Date>& date) {
  return date ? Ordered(date->iso8601()) : Ordered(nullptr);
}

std::string_view installStateName(OllamaInstallState state) {
  switch (state) {
    case OllamaInstallState::running:
      return "running";
    case OllamaInstallState::installed:
      return "installed";
    case OllamaInstallState::notInstalled:
      break;
  }
  return "notInstalled";
}

std::optional<std::string> cookieValue(const HTTPRequest& request, std::string_view name) {
  const auto it = request.headers.find("cookie");
  if (it == request.headers.end()) return std::nullopt;
  std::string_view rest = it->second;
  while (!rest.empty()) {
    const std::size_t end = std::min(rest.find(';'), rest.size());
    std::string_view pair = rest.substr(0, end);
    while (!pair.empty() && pair.front() == ' ')
      pair.remove_prefix(1);
    if (pair.starts_with(name) && pair.size() > name.size() && pair[name.size()] == '=') {
      return std::string(pair.substr(name.size() + 1));
    }
    rest.remove_prefix(std::min(end + 1, rest.size()));
  }
  return std::nullopt;
}

bool constantTimeEqual(std::string_view a, std::string_view b) {
  return a.size() == b.size() && CRYPTO_memcmp(a.data(), b.data(), a.size()) == 0;
}

}  // namespace

std::filesystem::path ControlAPI::defaultSecretFile() {
  return defaultConfigDirectory() / "control-secret";
}

std::string ControlAPI::loadOrCreateSecret(const std::filesystem::path& file) {
  if (auto existing = readControlSecret(file); existing && existing->size() >= 32) {
    return *existing;
  }
  unsigned char bytes[32];
  if (RAND_bytes(bytes, sizeof bytes) != 1) throw Error("Could not create the control secret.");
  static constexpr char hex[] = "0123456789abcdef";
  std::string secret;
  for (const unsigned char b : bytes) {
    secret.push_back(hex[b >> 4]);
    secret.push_back(hex[b & 0x0F]);
  }
  createPrivateDirectory(file.parent_path(), 0700);
  writeFileAtomically(file, secret + "\n", 0600);
  return secret;
}

ControlAPI::ControlAPI(std::shared_ptr<AppState> app, std::string secret, std::uint16_t port,
                       asio::any_io_executor serverExecutor, asio::any_io_executor mainExecutor)
    : app_(app), secret_(std::move(secret)), mainExecutor_(mainExecutor) {
  LocalHTTPServer::Options options;
  options.port = port;
  options.bindAddress = asio::ip::address_v4::loopback();
  server_ = std::make_unique<LocalHTTPServer>(
      options, std::move(serverExecutor), std::move(mainExecutor),
      [this](HTTPRequest request) { return handle(std::move(request)); });
}

ControlAPI::~ControlAPI() {
  stop();
}

void ControlAPI::setStateChanged(LocalHTTPServer::StateChanged callback) {
  server_->setStateChanged(std::move(callback));
}

void ControlAPI::start() {
  server_->start();
}
void ControlAPI::stop() {
  server_->stop();
}
std::uint16_t ControlAPI::port() const {
  return server_->port();
}

namespace {

// Host and Origin must name this server by one of the loopback names, on its own port.
bool namesLoopback(std::string_view value, std::string_view scheme, std::uint16_t port) {
  const std::string suffix = ":" + std::to_string(port);
  for (const std::string_view host : {"127.0.0.1", "localhost", "[::1]"}) {
    if (value == std::string(scheme) + std::string(host) + suffix) return true;
  }
  return false;
}

}  // namespace

bool ControlAPI::hostAllowed(const HTTPRequest& request) const {
  const auto it = request.headers.find("host");
  return it != request.headers.end() && namesLoopback(it->second, "", server_->port());
}

bool ControlAPI::originAllowed(const HTTPRequest& request) const {
  const auto it = request.headers.find("origin");
  // Browsers always name the origin of a cross-site request; other clients need not.
  return it == request.headers.end() || namesLoopback(it->second, "http://", server_->port());
}

bool ControlAPI::hasSecret(const HTTPRequest& request) const {
  if (auto token = request.bearerToken(); token && constantTimeEqual(*token, secret_)) return true;
  if (auto cookie = cookieValue(request, sessionCookie);
      cookie && constantTimeEqual(*cookie, secret_)) {
    return true;
  }
  return false;
}

asio::awaitable<HTTPHandlerResult> ControlAPI::handle(HTTPRequest request) {
  using View = HTTPHandlerResult (*)(ControlAPI&, AppState&);
  static const RouteTable<View> views{
      {{"GET", "/api/state"},
       [](ControlAPI&, AppState& app) {
         return HTTPHandlerResult::response(jsonReply(HTTPStatus::ok, snapshot(app)));
       }},
      {{"GET", "/api/events"},
       [](ControlAPI& api, AppState&) {
         return HTTPHandlerResult::eventStream(api.changeStream());
       }},
      {{"GET", "/api/pairing/qr.svg"},
       [](ControlAPI&, AppState& app) {
         return HTTPHandlerResult::response(qrCodeResponse(app.pairingPayload()));
       }},
  };
  if (!hostAllowed(request)) {
    co_return HTTPHandlerResult::response(HTTPResponse::error(HTTPStatus::forbidden, "forbidden",
                                                              "This address is not allowed here."));
  }
  const std::string path(routingPath(request.path));
  // The page and its files hold nothing secret, and must load before there is a session.
  if (request.method == "GET") {
    if (const EmbeddedAsset* asset = findPanelAsset(path)) {
      co_return HTTPHandlerResult::response(panelAssetResponse(*asset));
    }
  }
  if (!hasSecret(request)) {
    co_return HTTPHandlerResult::response(HTTPResponse::error(
        HTTPStatus::unauthorized, "unauthorized",
        "Open the control panel from Orin Link, or pass the secret from its control-secret file."));
  }
  auto app = app_.lock();
  if (!app) {
    co_return HTTPHandlerResult::response(HTTPResponse::error(
        HTTPStatus::internalServerError, "unavailable", "Orin Link is shutting down."));
  }
  if (const View* view = views.find(request.method, request.path)) {
    co_return (*view)(*this, *app);
  }
  if (request.method == "POST" && path.starts_with("/api/")) {
    if (!originAllowed(request)) {
      co_return HTTPHandlerResult::response(HTTPResponse::error(
          HTTPStatus::forbidden, "forbidden", "Changes are accepted only from the control panel."));
    }
    if (path == "/api/session") {
      HTTPResponse reply = jsonReply(HTTPStatus::ok, snapshot(*app));
      reply.headers["Set-Cookie"] = sessionCookieHeader(sessionCookie, secret_);
      co_return HTTPHandlerResult::response(std::move(reply));
    }
    try {
      co_return HTTPHandlerResult::response(performOperation(path, request));
    } catch (...) {
      co_return HTTPHandlerResult::response(HTTPResponse::error(
          HTTPStatus::badRequest, "bad_request", describe(std::current_exception())));
    }
  }
  co_return HTTPHandlerResult::response(HTTPResponse::error(HTTPStatus::notFound, "not_found",
                                                            "Nothing is at " + request.path + "."));
}

namespace {

// Everything is decoded before anything changes, so a bad field changes nothing. The window's
// settings are saved together; the others take effect and are stored one by one, and a request
// with only those does not count as saving the window.
void applySettings(AppState& app, const json::ObjectReader& args) {
  const auto port = args.optional<std::uint16_t>("serverPort");
  const auto model = args.optional<std::string>("activeModel");
  const auto url = args.optional<std::string>("ollamaBaseURL");
  const auto reliability = args.optional<bool>("reliabilityModeEnabled");
  const auto login = args.optional<bool>("startAtLoginEnabled");
  const auto host = args.optional<std::string>("manualEndpointHost");
  const auto kind = args.optional<OrinLinkConnectionKind>("manualEndpointKind");
  const auto seenGuide = args.optional<bool>("hasSeenGuide");
  const auto showInDock = args.optional<bool>("showInDock");
  const auto sound = args.optional<bool>("pairingSoundEnabled");
  const auto openPanel = args.optional<bool>("openPanelAtLaunch");
  const auto notifications = args.optional<bool>("connectNotificationsEnabled");

  if (seenGuide) app.setHasSeenGuide(*seenGuide);
  if (showInDock) app.setShowInDock(*showInDock);
  if (openPanel) app.setOpenPanelAtLaunch(*openPanel);
  if (sound) app.setPairingSoundEnabled(*sound);
  if (notifications) app.setConnectNotificationsEnabled(*notifications);
  const bool onlyImmediate = seenGuide || showInDock || sound || notifications || openPanel;
  if (onlyImmediate && !port && !model && !url && !reliability && !login && !host && !kind) return;

  auto& p = app.editableProperties();
  if (port) p.serverPort = *port;
  if (model) p.activeModel = *model;
  if (url) p.baseURLText = *url;
  if (reliability) p.reliabilityModeEnabled = *reliability;
  if (login) p.startAtLoginEnabled = *login;
  if (host) p.manualEndpointHost = *host;
  if (kind) p.manualEndpointKind = *kind;
  app.saveSettings();
}

void applyStreamSettings(screen::ScreenStreamService& stream, const json::ObjectReader& args) {
  screen::StreamSettings next = stream.settings();
  if (auto id = args.optional<std::uint32_t>("selectedDisplayID")) next.selectedDisplayID = *id;
  if (auto height = args.optional<std::int64_t>("resolutionHeight")) {
    next.resolutionPreset = screen::resolutionPresetForHeight(*height);
  }
  if (auto preset = args.optional<std::int64_t>("virtualDisplayPreset")) {
    next.virtualDisplayPreset = screen::virtualPresetForSettingsValue(*preset);
  }
  if (auto replaces = args.optional<bool>("virtualDisplayReplacesDesktop")) {
    next.virtualDisplayReplacesDesktop = *replaces;
  }
  if (auto fps = args.optional<int>("framesPerSecond")) next.framesPerSecond = *fps;
  if (auto port = args.optional<std::uint16_t>("streamPort")) next.streamPort = *port;
  stream.applySettings(next);
}

HTTPResponse conflict(std::string message) {
  HTTPResponse response = HTTPResponse::error(409, "conflict", std::move(message));
  response.reason = "Conflict";
  return response;
}

}  // namespace

// The panel names the step its button showed, so a click that arrives after the state moved on
// does not fix something the user never saw.
HTTPResponse ControlAPI::performSetupAction(AppState& app, const json::ObjectReader& args) {
  const auto named = args.optional<std::string>("kind");
  std::optional<SetupIssue::Kind> expected;
  if (named) {
    expected = enumFromRawValue<SetupIssue::Kind>(*named);
    if (!expected) {
      return HTTPResponse::error(HTTPStatus::badRequest, "bad_request",
                                 "There is no setup step called \"" + *named + "\".");
    }
  }
  const auto issue = app.setupIssue();
  if (!issue) return conflict("Nothing needs setting up.");
  if (expected && *expected != issue->kind) {
    return conflict("That setup step is no longer the current one.");
  }
  app.performSetupAction();
  return jsonReply(HTTPStatus::ok, snapshot(app));
}

namespace {

HTTPResponse noStream() {
  return HTTPResponse::error(HTTPStatus::notFound, "not_found",
                             "Screen streaming is not available in this run.");
}

}  // namespace

// An operation that leaves `reply` empty is answered with the state after the change.
struct ControlAPI::Call {
  ControlAPI& api;
  AppState& app;
  const json::ObjectReader& args;
  std::optional<HTTPResponse> reply;
  screen::ScreenStreamService* stream() {
    if (!app.screenStream()) reply = noStream();
    return app.screenStream().get();
  }
};

HTTPResponse ControlAPI::performOperation(const std::string& path, const HTTPRequest& request) {
  using Operation = void (*)(Call&);
  static const RouteTable<Operation> operations{
      {{"POST", "/api/pairing/new-code"}, [](Call& c) { c.app.newPairingCode(); }},
      {{"POST", "/api/devices/remove"},
       [](Call& c) {
         if (!c.app.removeDevice(c.args.required<Uuid>("id"))) {
           c.reply = HTTPResponse::error(HTTPStatus::notFound, "not_found",
                                         "No paired device has that id.");
         }
       }},
      {{"POST", "/api/server/start"}, [](Call& c) { c.app.startServer(); }},
      {{"POST", "/api/server/stop"}, [](Call& c) { c.app.stopServer(); }},
      {{"POST", "/api/settings"}, [](Call& c) { applySettings(c.app, c.args); }},
      {{"POST", "/api/setup/action"}, [](Call& c) { c.reply = performSetupAction(c.app, c.args); }},
      {{"POST", "/api/guide"},
       [](Call& c) { c.app.setGuidePresented(c.args.required<bool>("presented")); }},
      {{"POST", "/api/panel/open"},
       [](Call& c) {
         if (c.api.openPanel_) {
           c.api.openPanel_();
         } else {
           c.reply = HTTPResponse::error(HTTPStatus::notFound, "not_found",
                                         "Nothing is at /api/panel/open.");
         }
       }},
      {{"POST", "/api/conversations"},
       [](Call& c) { c.app.setShowConversations(c.args.required<bool>("show")); }},
      {{"POST", "/api/runtime/refresh"},
       [](Call& c) {
         asio::co_spawn(
             c.api.mainExecutor_,
             [app = c.app.shared_from_this()]() -> asio::awaitable<void> {
               co_await app->runtimeSupervisor().refresh();
             },
             asio::detached);
       }},
      {{"POST", "/api/runtime/start-ollama"},
       [](Call& c) { c.app.runtimeSupervisor().startOllama(); }},
      {{"POST", "/api/runtime/download-ollama"},
       [](Call& c) { c.app.runtimeSupervisor().openDownloadPage(); }},
      {{"POST", "/api/runtime/pull"},
       [](Call& c) {
         c.app.runtimeSupervisor().pull(
             c.args.optional<std::string>("model").value_or(c.app.properties().activeModel));
       }},
      {{"POST", "/api/runtime/pause"}, [](Call& c) { c.app.runtimeSupervisor().cancelPull(); }},
      {{"POST", "/api/runtime/warm"}, [](Call& c) { c.app.runtimeSupervisor().warm(true); }},
      {{"POST", "/api/screen-stream/enable"},
       [](Call& c) {
         if (auto* stream = c.stream()) stream->setEnabled(c.args.required<bool>("on"));
       }},
      {{"POST", "/api/screen-stream/refresh-displays"},
       [](Call& c) {
         if (auto* stream = c.stream()) stream->refreshDisplays();
       }},
      {{"POST", "/api/screen-stream/settings"},
       [](Call& c) {
         if (auto* stream = c.stream()) applyStreamSettings(*stream, c.args);
       }},
  };
  auto app = app_.lock();
  const json::Value body = request.body.empty() ? json::Value::object() : json::parse(request.body);
  const json::ObjectReader args(body, json::CodingPath{});
  const Operation* operation = operations.find(request.method, path);
  if (!operation) {
    if (path.starts_with("/api/screen-stream/") && !app->screenStream()) return noStream();
    return HTTPResponse::error(HTTPStatus::notFound, "not_found", "Nothing is at " + path + ".");
  }
  Call call{*this, *app, args, std::nullopt};
  (*operation)(call);
  if (call.reply) return std::move(*call.reply);
  return jsonReply(HTTPStatus::ok, snapshot(*app));
}

// One event per turn of the main loop, naming every property that changed in it.
TextChunkStream ControlAPI::changeStream() {
  auto app = app_.lock();
  auto made = TextChunkStream::make();
  TextChunkStream stream = std::move(made.first);
  const TextChunkStream::Continuation continuation = made.second;
  struct Pending {
    std::set<std::string> names;
    bool flushScheduled = false;
  };
  auto pending = std::make_shared<Pending>();
  const auto subscription =
      app->observe([pending, continuation, main = mainExecutor_](std::string_view property) {
        pending->names.emplace(property);
        if (pending->flushScheduled) return;
        pending->flushScheduled = true;
        asio::post(main, [pending, continuation] {
          pending->flushScheduled = false;
          Ordered event = {{"changed", pending->names}};
          pending->names.clear();
          continuation.yield(event.dump());
        });
      });
  continuation.onTermination([weak = app_, subscription, main = mainExecutor_](auto) {
    asio::post(main, [weak, subscription] {
      if (auto owner = weak.lock()) owner->unobserve(subscription);
    });
  });
  continuation.yield(Ordered({{"changed", Ordered::array()}}).dump());
  return stream;
}

namespace {

Ordered screenStreamSnapshot(const screen::ScreenStreamService* service) {
  if (service == nullptr) return nullptr;
  const auto& s = service->properties();
  Ordered displays = Ordered::array();
  for (const auto& display : s.availableDisplays) {
    displays.push_back({{"id", display.id},
                        {"name", display.name},
                        {"pointWidth", display.pointWidth},
                        {"pointHeight", display.pointHeight}});
  }
  return {{"enabled", s.isEnabled},
          {"capturing", s.isCapturing},
          {"status", s.statusText},
          {"summary", service->streamSummary()},
          {"port", service->activePort() ? Ordered(*service->activePort()) : Ordered(nullptr)},
          {"clients", s.connectedClients},
          {"portalEnabled", s.isPortalEnabled},
          {"lastRejection", optionalText(s.lastRejection)},
          {"error", optionalText(s.streamError)},
          {"capture", s.captureBinding},
          {"supportsVirtualDisplays", s.supportsVirtualDisplays},
          {"virtualDisplayProblem", optionalText(s.virtualDisplayProblem)},
          {"displays", displays},
          {"settings",
           {{"selectedDisplayID", s.selectedDisplayID},
            {"resolutionHeight", screen::presetHeight(s.resolutionPreset)},
            {"virtualDisplayPreset", screen::settingsValue(s.virtualDisplayPreset)},
            {"virtualDisplayReplacesDesktop", s.virtualDisplayReplacesDesktop},
            {"framesPerSecond", s.framesPerSecond},
            {"streamPort", s.streamPort}}}};
}

Ordered setupIssueJSON(const std::optional<SetupIssue>& issue) {
  if (!issue) return nullptr;
  return {{"kind", rawValue(issue->kind)},
          {"title", issue->title},
          {"message", issue->message},
          {"actionTitle", issue->actionTitle},
          {"copyCommand", optionalText(issue->copyCommand)}};
}

}  // namespace

Ordered ControlAPI::snapshot(const AppState& app) {
  const auto& p = app.properties();
  const auto& registry = app.registry();
  const StateSnapshot state = app.stateSnapshot();

  Ordered devices = Ordered::array();
  for (const auto& device : registry.devices()) {
    devices.push_back({{"id", device.id.string()},
                       {"deviceId", device.deviceId},
                       {"displayName", device.displayName},
                       {"pairedAt", device.pairedAt.iso8601()},
                       {"lastSeenAt", optionalDate(device.lastSeenAt)}});
  }
  Ordered endpoints = Ordered::array();
  for (const auto& endpoint : p.endpointCandidates)
    endpoints.push_back(endpoint.encode());
  Ordered models = Ordered::array();
  for (const auto& model : p.models)
    models.push_back(model.name);
  Ordered pull = nullptr;
  if (p.pullProgress) {
    pull = {{"status", p.pullProgress->status},
            {"fraction",
             p.pullProgress->fraction ? Ordered(*p.pullProgress->fraction) : Ordered(nullptr)},
            {"completedBytes", p.pullProgress->completedBytes},
            {"totalBytes", p.pullProgress->totalBytes}};
  }
  Ordered log = Ordered::array();
  for (const auto& entry : p.conversationLog) {
    log.push_back({{"id", entry.id.string()},
                   {"date", entry.date.iso8601()},
                   {"deviceName", entry.deviceName},
                   {"prompt", entry.prompt},
                   {"response", entry.response},
                   {"isComplete", entry.isComplete}});
  }

  return {
      {"pairing",
       {{"code", registry.pairingCode()},
        {"remainingSeconds", registry.pairingCodeRemainingSeconds()},
        {"expiresAt",
         registry.pairingCodeCreatedAt().adding(DeviceRegistry::pairingCodeLifetime).iso8601()},
        {"payload", app.pairingPayload()}}},
      {"devices", devices},
      {"endpoints", endpoints},
      {"server",
       {{"running", p.isServerRunning},
        {"port", p.serverPort},
        {"error", optionalText(p.serverError)}}},
      {"runtime",
       {{"available", p.isOllamaAvailable},
        {"error", optionalText(p.ollamaError)},
        {"installState", installStateName(app.runtimeSupervisor().installState())},
        {"models", models},
        {"activeModel", p.activeModel},
        {"activeModelInstalled", app.isActiveModelInstalled()},
        {"recommendedModel", app.recommendedModel()},
        {"baseURL", p.baseURLText},
        {"modelResidentSince", optionalDate(p.modelResidentSince)},
        {"pull", pull},
        {"pullError", optionalText(p.pullError)}}},
      {"statistics",
       {{"activeGenerations", p.activeGenerations},
        {"busyDeviceName", optionalText(p.busyDeviceName)},
        {"tokensPerSecond", p.tokensPerSecond ? Ordered(*p.tokensPerSecond) : Ordered(nullptr)},
        {"repliesToday", p.repliesToday}}},
      {"conversations", {{"show", p.showConversations}, {"log", log}}},
      {"settings",
       {{"serverPort", p.serverPort},
        {"activeModel", p.activeModel},
        {"ollamaBaseURL", p.baseURLText},
        {"reliabilityModeEnabled", p.reliabilityModeEnabled},
        {"startAtLoginEnabled", p.startAtLoginEnabled},
        {"manualEndpointHost", p.manualEndpointHost},
        {"manualEndpointKind", std::string(rawValue(p.manualEndpointKind))}}},
      {"lastPairedDeviceName", optionalText(p.lastPairedDeviceName)},
      {"lastPairedAt", optionalDate(p.lastPairedAt)},
      {"availabilityError", optionalText(p.availabilityError)},
      {"screenStream", screenStreamSnapshot(app.screenStream().get())},
      {"lastEvent", p.lastEvent},
      {"setupIssue", setupIssueJSON(setupIssue(state))},
      {"presenceSentence", presenceSentence(state)},
      {"orbMood", rawValue(orbMood(state))},
      {"statsLine", optionalText(statsLine(state))},
      {"streamStatusValue", streamStatusValue(state)},
      {"diagnosticSummary", diagnosticSummary(state)},
      {"hasSeenGuide", p.hasSeenGuide},
      {"isGuidePresented", p.isGuidePresented},
      {"showInDock", p.showInDock},
      {"pairingSoundEnabled", p.pairingSoundEnabled},
      {"openPanelAtLaunch", p.openPanelAtLaunch},
      {"connectNotificationsEnabled", p.connectNotificationsEnabled},
      {"badge", optionalText(p.badge)},
  };
}

}  // namespace orin
