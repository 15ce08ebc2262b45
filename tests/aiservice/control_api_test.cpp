#include <sstream>

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/read_until.hpp>
#include <boost/asio/write.hpp>

#include "OrinLink/system/EditionGuard.h"

#include "tests/aiservice/AIServiceFixture.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/ScriptedHTTPServer.h"

namespace orin::test {
namespace {

using ControlAPITest = ControlAPIServiceTest;

struct CommandResult {
  int status = -1;
  std::string output;  // standard output and error together
};

// With the lock records of `runtimeFolder`, never those of the user running the tests.
CommandResult runOrinLink(const std::string& arguments,
                          const std::filesystem::path& runtimeFolder) {
  std::vector<std::string> argv{ORINLINK_PATH};
  std::istringstream words(arguments);
  for (std::string word; words >> word;)
    argv.push_back(word);
  ChildProcess orinlink(std::move(argv), {{"XDG_RUNTIME_DIR", runtimeFolder.string()}});
  const auto status = orinlink.waitForExit();
  return {status.value_or(-1), orinlink.output()};
}

TEST_F(ControlAPITest, TheSnapshotShowsDevicesWithoutTokensAndRemovingOneStopsItsToken) {
  const std::string token = pair("phone-1", "<img src=x onerror=alert(1)>");
  const auto reply = api("GET", "/api/state");
  ASSERT_EQ(reply.status, 200);
  const Json state = Json::parse(reply.body);
  ASSERT_EQ(state["devices"].size(), 1u);
  EXPECT_EQ(state["devices"][0]["displayName"], "<img src=x onerror=alert(1)>");
  EXPECT_EQ(reply.body.find(token), std::string::npos);
  EXPECT_EQ(reply.body.find("tokenHash"), std::string::npos);
  EXPECT_EQ(state["pairing"]["code"].get<std::string>().size(), 7u);
  EXPECT_TRUE(state["server"]["running"].get<bool>());

  EXPECT_EQ(call("GET", "/status", token).status, 200);
  const Json body = {{"id", state["devices"][0]["id"]}};
  EXPECT_EQ(api("POST", "/api/devices/remove", body).status, 200);
  EXPECT_EQ(call("GET", "/status", token).status, 0);
  EXPECT_EQ(api("POST", "/api/devices/remove", body).status, 404);
}

TEST_F(ControlAPITest, TheChangeStreamNamesWhatChanged) {
  asio::io_context io;
  asio::ip::tcp::socket socket(io);
  socket.connect({asio::ip::address_v4::loopback(), controlPort_});
  const std::string request = "GET /api/events HTTP/1.1\r\nHost: " + host() +
                              "\r\nAuthorization: Bearer " + secret + "\r\n\r\n";
  asio::write(socket, asio::buffer(request));
  std::string received;
  asio::read_until(socket, asio::dynamic_buffer(received), "data: {\"changed\":[]}\n\n");
  onMain([&] { app_->newPairingCode(); });
  asio::read_until(socket, asio::dynamic_buffer(received), "registry");
  EXPECT_NE(received.find("text/event-stream"), std::string::npos);
}

TEST_F(ControlAPITest, ImmediateSettingsDoNotSaveTheWindow) {
  ASSERT_EQ(
      api("POST", "/api/settings", {{"showInDock", true}, {"pairingSoundEnabled", false}}).status,
      200);
  ASSERT_EQ(api("POST", "/api/guide", {{"presented", false}}).status, 200);
  const Json s = state();
  EXPECT_EQ(s["showInDock"], true);
  EXPECT_EQ(s["pairingSoundEnabled"], false);
  EXPECT_EQ(s["hasSeenGuide"], true);
  EXPECT_EQ(s["isGuidePresented"], false);
  EXPECT_NE(s["lastEvent"], "Settings saved.");
  EXPECT_EQ(onMain([&] { return desktop_->windowedPresence; }), std::optional<bool>(true));
  // A bad field changes nothing.
  EXPECT_EQ(api("POST", "/api/settings", {{"showInDock", false}, {"serverPort", "x"}}).status, 400);
  EXPECT_EQ(state()["showInDock"], true);
}

// /health is answered off the main loop from a copy that a saved model must replace.
TEST_F(ControlAPITest, HealthFollowsTheSavedModel) {
  ASSERT_EQ(api("POST", "/api/settings", {{"activeModel", "lines:1b"}}).status, 200);
  EXPECT_EQ(Json::parse(call("GET", "/health").body)["activeModel"], "lines:1b");
}

// Each setup issue's button does what it says, and only while that issue is the current one.
TEST_F(ControlAPITest, TheSetupActionFixesTheCurrentIssue) {
  using Launch = std::vector<std::string>;
  struct Case {
    std::string kind;
    Json settings;
    std::vector<std::filesystem::path> files;
    std::string readyEvent;
    std::function<bool(const AppState&)> fixed;
    std::optional<Launch> launched;
  };
  const auto modelArrived = [](const AppState& app) { return app.isActiveModelInstalled(); };
  const auto serving = [](const AppState& app) { return app.properties().isServerRunning; };
  const Json unreachable = {
      {"ollamaBaseURL",
       "http://127.0.0.1:" + std::to_string(testing_support::ScriptedHTTPServer().port())}};
  const Case cases[] = {
      {"ollamaNotInstalled",
       unreachable,
       {},
       "Ollama is not reachable.",
       nullptr,
       Launch{"open", "https://ollama.com/download"}},
      {"ollamaNotRunning",
       unreachable,
       {"/usr/local/bin/ollama"},
       "Ollama is not reachable.",
       nullptr,
       Launch{"/usr/local/bin/ollama", "serve"}},
      {"modelMissing",
       {{"activeModel", "big:1b"}},
       {},
       "Ollama is reachable, but big:1b was not found.",
       modelArrived,
       std::nullopt},
      {"serverStopped",
       Json::object(),
       {},
       "Ollama is ready with plain:1b.",
       serving,
       std::nullopt},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.kind);
    system_.reset();
    for (const auto& file : c.files)
      system_.addFile(file);
    onMain([&] { control_.reset(); });
    restart(c.settings);
    startControl();
    ASSERT_TRUE(waitForEvent(c.readyEvent));
    if (c.kind == "serverStopped") {
      ASSERT_EQ(api("POST", "/api/server/stop").status, 200);
    }
    EXPECT_EQ(state()["setupIssue"]["kind"], c.kind);
    const auto found = onMain([&] { return app_->properties(); });
    const bool reachable = !c.settings.contains("ollamaBaseURL");
    EXPECT_EQ(found.isOllamaAvailable, reachable);
    EXPECT_EQ(found.ollamaError.has_value(), !reachable);
    EXPECT_EQ(found.models.empty(), !reachable);
    EXPECT_EQ(api("POST", "/api/setup/action", {{"kind", "noDevicePaired"}}).status, 409);
    EXPECT_EQ(api("POST", "/api/setup/action", {{"kind", c.kind}}).status, 200);
    if (c.fixed) {
      EXPECT_TRUE(waitUntil(c.fixed));
    }
    if (c.launched) {
      const auto launched = system_.launched();
      EXPECT_NE(std::find(launched.begin(), launched.end(), *c.launched), launched.end());
    }
  }
}

TEST_F(ControlAPITest, TheSetupActionRefusesStepsThatAreNotThere) {
  ASSERT_TRUE(waitForEvent("Ollama is ready with plain:1b."));
  const std::string code = onMain([&] { return app_->registry().pairingCode(); });
  EXPECT_EQ(api("POST", "/api/setup/action", {{"kind", "nonsense"}}).status, 400);
  const auto fixed = api("POST", "/api/setup/action", Json::object());
  EXPECT_EQ(fixed.status, 200);
  EXPECT_NE(Json::parse(fixed.body)["pairing"]["code"], code);
  pair("refusal-device");
  const auto nothing = api("POST", "/api/setup/action", Json::object());
  EXPECT_EQ(nothing.status, 409);
  EXPECT_NE(nothing.body.find("Nothing needs setting up."), std::string::npos);
}

// The commands reach the running copy at the control port its lock record names, whatever port
// this user's configuration names; without a record, at the configured one.
TEST_F(ControlAPITest, TheCommandsReachTheRunningCopy) {
  ASSERT_TRUE(waitForEvent("Ollama is ready with plain:1b."));
  const std::uint16_t idle = testing_support::ScriptedHTTPServer().port();
  const auto config = directory_.path() / "cli";
  std::filesystem::create_directories(config);
  writeFileAtomically(config / "settings.json", Json{{"controlPort", idle}}.dump(), 0600);
  writeFileAtomically(config / "control-secret", secret + "\n", 0600);
  const auto recorded = directory_.path() / "run-recorded";
  const auto empty = directory_.path() / "run-empty";
  std::filesystem::create_directories(recorded);
  std::filesystem::create_directories(empty);
  EditionGuard running(recorded);
  running.recordControlAPI(controlPort_, config / "control-secret");
  const std::string code = onMain([&] { return app_->registry().pairingCode(); });
  const std::string summary = state()["diagnosticSummary"].get<std::string>() + "\n";
  const std::string notRunning =
      "orinlink: Orin Link is not running (nothing answers on 127.0.0.1:";
  struct Case {
    std::string arguments;
    std::filesystem::path runtime;
    int status;
    std::string outputStart;
  };
  const Case cases[] = {
      {"diagnostics", recorded, 0, summary},
      {"pair --code-only", recorded, 0, code + "\n"},
      {"status", recorded, 0, "AI service   listening on port " + std::to_string(port_) + "\n"},
      {"diagnostics", empty, 1, notRunning + std::to_string(idle) + "). Start it with: orinlink\n"},
      {"--control-port " + std::to_string(controlPort_) + " diagnostics", empty, 0, summary},
      {"--control-port " + std::to_string(idle) + " diagnostics", recorded, 1,
       notRunning + std::to_string(idle) + "). Start it with: orinlink\n"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.arguments + " with " + c.runtime.filename().string());
    const auto result =
        runOrinLink("--config-dir " + config.string() + " " + c.arguments, c.runtime);
    EXPECT_EQ(result.status, c.status);
    EXPECT_TRUE(result.output.starts_with(c.outputStart)) << result.output;
  }
  EXPECT_EQ(
      runOrinLink("--config-dir " + (directory_.path() / "elsewhere").string() + " diagnostics",
                  empty)
          .output,
      "orinlink: Orin Link has not run for this user yet. Start it with: orinlink\n");
}

}  // namespace
}  // namespace orin::test
