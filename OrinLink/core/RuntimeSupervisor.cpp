#include "OrinLink/core/RuntimeSupervisor.h"

#include <algorithm>

#include <boost/asio/bind_cancellation_slot.hpp>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/detached.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/this_coro.hpp>
#include <boost/asio/use_awaitable.hpp>

#include "OrinLink/common/ErrorDescription.h"
#include "OrinLink/core/AppState.h"

namespace orin {

namespace asio = boost::asio;
using Properties = AppState::Properties;

namespace {

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

bool wasCancelled(asio::cancellation_state state) {
  return state.cancelled() != asio::cancellation_type::none;
}

}  // namespace

std::shared_ptr<RuntimeSupervisor> RuntimeSupervisor::make(AppState& app, Environment environment) {
  return std::shared_ptr<RuntimeSupervisor>(new RuntimeSupervisor(app, std::move(environment)));
}

RuntimeSupervisor::RuntimeSupervisor(AppState& app, Environment environment)
    : app_(app), env_(std::move(environment)) {}

void RuntimeSupervisor::shutdown() {
  if (pullCancel_) pullCancel_->emit(asio::cancellation_type::terminal);
  if (watchCancel_) watchCancel_->emit(asio::cancellation_type::terminal);
}

OllamaInstallState RuntimeSupervisor::installState() const {
  if (app_.properties().isOllamaAvailable) return OllamaInstallState::running;
  for (const auto& path : ollamaBinaryPaths()) {
    if (env_.system->fileExists(path)) return OllamaInstallState::installed;
  }
  if (env_.system->findOnPath("ollama")) return OllamaInstallState::installed;
  return OllamaInstallState::notInstalled;
}

asio::awaitable<void> RuntimeSupervisor::refresh() {
  const auto keepAlive = app_.shared_from_this();
  OllamaRuntime client = app_.runtime();
  std::vector<OllamaModel> models;
  std::exception_ptr failure;
  try {
    models = co_await client.listModels();
  } catch (...) {
    failure = std::current_exception();
  }
  if (failure) {
    app_.set(&Properties::isOllamaAvailable, false, "isOllamaAvailable");
    app_.set(&Properties::modelResidentSince, std::nullopt, "modelResidentSince");
    app_.set(&Properties::models, std::vector<OllamaModel>{}, "models");
    app_.set(&Properties::ollamaError, describe(failure), "ollamaError");
    app_.set(&Properties::lastEvent, std::string("Ollama is not reachable."), "lastEvent");
    co_return;
  }
  app_.set(&Properties::models, std::move(models), "models");
  if (!app_.properties().isOllamaAvailable) warm(false);
  app_.set(&Properties::isOllamaAvailable, true, "isOllamaAvailable");
  app_.set(&Properties::ollamaError, std::nullopt, "ollamaError");
  app_.set(&Properties::lastEvent,
           app_.isActiveModelInstalled()
               ? "Ollama is ready with " + app_.properties().activeModel + "."
               : "Ollama is reachable, but " + app_.properties().activeModel + " was not found.",
           "lastEvent");
}

void RuntimeSupervisor::watch() {
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
          co_await self->refresh();
          if (self->app_.properties().isOllamaAvailable) co_return;
        }
      },
      asio::bind_cancellation_slot(watchCancel_->slot(), asio::detached));
}

void RuntimeSupervisor::startOllama() {
  SystemActions& system = *env_.system;
  const auto folders = userUnitFolders();
  const bool userUnit = std::any_of(folders.begin(), folders.end(), [&system](const auto& folder) {
    return system.fileExists(folder / "ollama.service");
  });
  const bool systemUnit =
      std::any_of(ollamaSystemUnits().begin(), ollamaSystemUnits().end(),
                  [&system](const auto& path) { return system.fileExists(path); });
  app_.set(&Properties::lastEvent, std::string("Starting Ollama\u2026"), "lastEvent");
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
          self->watch();
          return;
        }
        self->app_.set(&Properties::ollamaError, serviceRefusal(outcome, retry), "ollamaError");
        self->app_.set(&Properties::lastEvent, std::string("Could not start Ollama."), "lastEvent");
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
  watch();
}

void RuntimeSupervisor::openDownloadPage() {
  env_.system->openURL(std::string(ollamaDownloadPage));
  app_.set(
      &Properties::lastEvent,
      std::string("Opened the Ollama download page. Orin Link will notice once it's installed and "
                  "running."),
      "lastEvent");
  watch();
}

void RuntimeSupervisor::pull(const std::string& name) {
  if (pullCancel_) pullCancel_->emit(asio::cancellation_type::terminal);
  app_.set(&Properties::pullError, std::nullopt, "pullError");
  app_.set(&Properties::pullPausedModel, std::nullopt, "pullPausedModel");
  app_.set(&Properties::pullProgress, PullProgress{"Starting download\u2026", std::nullopt, 0, 0},
           "pullProgress");
  pullCancel_ = std::make_shared<asio::cancellation_signal>();
  asio::co_spawn(
      env_.mainExecutor,
      [weak = weak_from_this(), name, client = app_.runtime(),
       signal = pullCancel_]() mutable -> asio::awaitable<void> {
        auto progress = client.pull(name);
        std::exception_ptr failure;
        try {
          while (auto report = co_await progress.next(asio::use_awaitable)) {
            if (wasCancelled(co_await asio::this_coro::cancellation_state)) co_return;
            auto self = weak.lock();
            if (!self) co_return;
            self->app_.set(&Properties::pullProgress,
                           std::optional<PullProgress>(std::move(*report)), "pullProgress");
          }
        } catch (...) {
          failure = std::current_exception();
        }
        if (wasCancelled(co_await asio::this_coro::cancellation_state)) co_return;
        auto self = weak.lock();
        if (!self) co_return;
        self->app_.set(&Properties::pullProgress, std::nullopt, "pullProgress");
        if (failure) {
          self->app_.set(&Properties::pullError, describe(failure), "pullError");
          co_return;
        }
        self->app_.set(&Properties::lastEvent, "Downloaded " + name + ".", "lastEvent");
        co_await self->refresh();
      },
      asio::bind_cancellation_slot(pullCancel_->slot(), asio::detached));
}

void RuntimeSupervisor::cancelPull() {
  if (pullCancel_) {
    pullCancel_->emit(asio::cancellation_type::terminal);
    pullCancel_.reset();
  }
  app_.set(&Properties::pullProgress, std::nullopt, "pullProgress");
  app_.set(
      &Properties::lastEvent,
      std::string("Download paused \u2014 Ollama keeps what it has, so it resumes where it left "
                  "off."),
      "lastEvent");
}

std::chrono::steady_clock::duration RuntimeSupervisor::warm(bool force) {
  const Date now = app_.now();
  const double sinceLast = lastWarmAt_ ? now.secondsSince(*lastWarmAt_) : 0;
  if (!force && lastWarmAt_ && sinceLast < warmUpSpacingSeconds) {
    return std::chrono::duration_cast<std::chrono::steady_clock::duration>(
        std::chrono::duration<double>(warmUpSpacingSeconds - sinceLast));
  }
  lastWarmAt_ = now;
  const std::string model =
      app_.properties().lastRequestedModel.value_or(app_.properties().activeModel);
  asio::co_spawn(
      env_.mainExecutor,
      [weak = weak_from_this(), client = app_.runtime(), model]() mutable -> asio::awaitable<void> {
        auto warming = client.warmModel(model);
        const bool warmed = co_await std::move(warming);
        auto self = weak.lock();
        if (warmed && self && !self->app_.properties().modelResidentSince) {
          self->app_.set(&Properties::modelResidentSince, std::optional<Date>(self->app_.now()),
                         "modelResidentSince");
        }
      },
      asio::detached);
  return {};
}

}  // namespace orin
