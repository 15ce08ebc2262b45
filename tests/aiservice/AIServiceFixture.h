#pragma once

#include <algorithm>
#include <atomic>
#include <fstream>
#include <future>
#include <mutex>

#include <boost/asio/post.hpp>
#include <gtest/gtest.h>

#include "OrinLink/concurrency/SerialExecutor.h"
#include "OrinLink/core/AppState.h"
#include "OrinLink/ui/ControlAPI.h"

#include "tests/aiservice/FakeSystemActions.h"
#include "tests/core/TemporaryDirectory.h"
#include "tests/support/FakeDesktopIntegration.h"
#include "tests/support/StandInProcess.h"
#include "tools/orinlink-device/DeviceClient.h"

namespace orin::test {

namespace asio = boost::asio;
using Json = nlohmann::json;
using device::DeviceClient;
using testing_support::httpExchange;
using testing_support::StandInProcess;

inline constexpr auto bound = std::chrono::seconds(20);

inline Json standInConfig() {
  return Json::parse(R"({
    "models": [
      {"name": "plain:1b", "reply": "Hello there, friend."},
      {"name": "lines:1b", "reply": ["one\ntwo", " three\r\n"]},
      {"name": "tool:1b", "reply": "Sure. <orin_tool_call>{\"tool\": \"timer\", \"arguments\": {\"minutes\": 5}}</orin_tool_call>"},
      {"name": "refuser:1b", "thinking": "refuses-key", "reply": "No thoughts."},
      {"name": "slow:1b", "token_rate": 20, "reply": {"piece": " word", "count": 10000}},
      {"name": "big:1b", "installed": false, "pull": {"step": 50, "step_delay_ms": 20, "layers": [
        {"digest": "sha256:aaaaaaaaaaaa0000000000000000000000000000000000000000000000000000", "total": 1000}]}},
      {"name": "flaky:1b", "installed": false, "pull": {"step": 100, "fail_after_steps": 2,
        "error": "connection reset"}}
    ]
  })");
}

// A device's request; one that names no model when `model` is empty.
inline std::string generateBody(const std::string& model) {
  return encodeJSON(device::makeGenerateRequest(
      "hi", model.empty() ? std::nullopt : std::optional(model), std::nullopt, std::nullopt));
}

// A whole AI service on loopback: the application state on its own main loop, the server on its
// executor, the stand-in as Ollama, and devices that talk real HTTP to it.
class AIServiceTest : public testing::Test {
 protected:
  template <class F>
  auto onMain(F function) {
    std::packaged_task<decltype(function())()> task(std::move(function));
    auto result = task.get_future();
    asio::post(mainLoop_.executor(), [&task] { task(); });
    return result.get();
  }

  void SetUp() override { start(); }

  // Starts the application with these settings added to the stand-in's address.
  void start(const Json& extraSettings = Json::object()) {
    if (!standIn_) standIn_.emplace(StandInProcess::withConfig(standInConfig()));
    std::filesystem::create_directories(directory_.path() / "config");
    Json settings = {{"ollamaBaseURL", standIn_->baseURL()}, {"activeModel", "plain:1b"}};
    settings.update(extraSettings);
    std::ofstream(directory_.path() / "config/settings.json") << settings.dump();

    AppState::Environment environment;
    environment.mainExecutor = mainLoop_.executor();
    environment.httpExecutor = httpLoop_.executor();
    environment.backgroundExecutor = backgroundLoop_.executor();
    environment.settingsFile = directory_.path() / "config/settings.json";
    environment.registryFile = directory_.path() / "data/paired-devices.json";
    environment.system = &system_;
    environment.clock = [this] { return Date{now_.load()}; };
    environment.bindAddress = asio::ip::address_v4::loopback();
    environment.serverPortOverride = 0;
    environment.desktop = makeFakeDesktop(desktop_);
    onMain([&] {
      app_ = AppState::make(std::move(environment));
      // An app that is being replaced may still finish work and notify: read the one that
      // notifies, and record only the current one's events.
      app_->observe([this, observed = app_.get()](std::string_view property) {
        if (property != "lastEvent" || observed != app_.get()) return;
        std::lock_guard lock(eventsMutex_);
        events_.push_back(observed->properties().lastEvent);
      });
      app_->launch();
    });
    ASSERT_TRUE(waitUntil([](const AppState& app) { return app.properties().isServerRunning; }));
    port_ = onMain([&] { return app_->properties().serverPort; });
  }

  void TearDown() override { stop(); }

  void stop() {
    onMain([&] {
      if (app_) app_->shutdown();
      app_.reset();
    });
    // The files it was still writing land before the next start writes its own settings.
    std::promise<void> written;
    asio::post(backgroundLoop_.executor(), [&written] { written.set_value(); });
    written.get_future().wait();
    std::lock_guard lock(eventsMutex_);
    events_.clear();
  }

  void restart(const Json& extraSettings = Json::object()) {
    stop();
    start(extraSettings);
  }

  // Waits, without polling, until the application's state satisfies the predicate.
  bool waitUntil(std::function<bool(const AppState&)> predicate) {
    auto reached = std::make_shared<std::promise<void>>();
    auto done = std::make_shared<bool>(false);
    const auto check = [observed = app_, predicate, reached, done](std::string_view) {
      if (!*done && predicate(*observed)) {
        *done = true;
        reached->set_value();
      }
    };
    const auto subscription = onMain([&] {
      check("");
      return app_->observe(check);
    });
    const bool ok = reached->get_future().wait_for(bound) == std::future_status::ready;
    onMain([&] { app_->unobserve(subscription); });
    return ok;
  }

  // Every lastEvent text shown since the application started, in order.
  bool sawEvent(const std::string& text) {
    std::lock_guard lock(eventsMutex_);
    return std::find(events_.begin(), events_.end(), text) != events_.end();
  }
  bool waitForEvent(const std::string& text) {
    return waitUntil([this, text](const AppState&) { return sawEvent(text); });
  }

  std::string pair(const std::string& deviceId, const std::string& name = "Phone") {
    const std::string code = onMain([&] { return app_->registry().pairingCode(); });
    return DeviceClient({"127.0.0.1", port_, std::nullopt, bound})
        .pair({code, deviceId, name})
        .value.token;
  }

  testing_support::HTTPReply call(const std::string& method, const std::string& target,
                                  const std::optional<std::string>& token = std::nullopt,
                                  const std::string& body = {}) const {
    std::vector<std::pair<std::string, std::string>> headers;
    if (token) headers.emplace_back("Authorization", "Bearer " + *token);
    return httpExchange(port_, method, target, body, headers);
  }

  ~AIServiceTest() override { shutDownLoops({}, {&mainLoop_, &httpLoop_, &backgroundLoop_}); }

  TemporaryDirectory directory_;
  FakeSystemActions system_;
  // Read and written on the main loop only.
  std::shared_ptr<DesktopRecord> desktop_ = std::make_shared<DesktopRecord>();
  std::atomic<double> now_{Date::now().secondsSinceReferenceDate};
  std::optional<StandInProcess> standIn_;
  SerialExecutor mainLoop_{"test.main"};
  SerialExecutor httpLoop_{"test.http"};
  SerialExecutor backgroundLoop_{"test.background"};
  std::shared_ptr<AppState> app_;
  std::mutex eventsMutex_;
  std::vector<std::string> events_;
  std::uint16_t port_ = 0;
};

// The same, with the control API over the application.
class ControlAPIServiceTest : public AIServiceTest {
 protected:
  void SetUp() override {
    AIServiceTest::SetUp();
    startControl();
  }
  void TearDown() override {
    onMain([&] { control_.reset(); });
    AIServiceTest::TearDown();
  }

  void startControl() {
    auto ready = std::make_shared<std::promise<std::uint16_t>>();
    onMain([&] {
      control_ =
          std::make_unique<ControlAPI>(app_, secret, 0, httpLoop_.executor(), mainLoop_.executor());
      control_->setStateChanged([ready, told = false](bool, std::uint16_t port, auto) mutable {
        if (!std::exchange(told, true)) ready->set_value(port);
      });
      control_->start();
    });
    controlPort_ = ready->get_future().get();
  }

  std::string host() const { return "127.0.0.1:" + std::to_string(controlPort_); }

  // An authorised request from the command line's side.
  testing_support::HTTPReply api(const std::string& method, const std::string& target,
                                 const Json& body = nullptr) const {
    return httpExchange(controlPort_, method, target, body.is_null() ? "" : body.dump(),
                        {{"Host", host()}, {"Authorization", "Bearer " + secret}});
  }
  Json state() const { return Json::parse(api("GET", "/api/state").body); }

  const std::string secret = std::string(64, 'c');
  std::unique_ptr<ControlAPI> control_;
  std::uint16_t controlPort_ = 0;
};

}  // namespace orin::test
