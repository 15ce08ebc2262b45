#include "tests/aiservice/AIServiceFixture.h"
#include "tests/support/Eventually.h"

namespace orin::test {
namespace {

using RuntimeSupervisionTest = AIServiceTest;

const Json unreachable = {{"ollamaBaseURL", "http://127.0.0.1:9"}};

TEST_F(RuntimeSupervisionTest, StartingOllamaRunsWhatThisMachineHas) {
  const char* config = std::getenv("XDG_CONFIG_HOME");
  const char* home = std::getenv("HOME");
  const std::filesystem::path ownUnits =
      config != nullptr && *config != '\0'
          ? std::filesystem::path(config) / "systemd/user"
          : std::filesystem::path(home != nullptr ? home : "") / ".config/systemd/user";
  const std::vector<std::string> userStart{"systemctl", "--user", "start", "ollama.service"};
  const std::vector<std::string> systemStart{"systemctl", "start", "--no-ask-password",
                                             "ollama.service"};
  struct Case {
    std::string name;
    std::vector<std::filesystem::path> files;
    std::optional<std::filesystem::path> onPath;
    OllamaInstallState state;
    std::vector<std::vector<std::string>> launched;
    SystemActions::Outcome systemctl{0, ""};
    std::optional<std::string> error{};
  };
  const Case cases[] = {
      {"nothing", {}, std::nullopt, OllamaInstallState::notInstalled, {}},
      {"homebrew path",
       {"/opt/homebrew/bin/ollama"},
       std::nullopt,
       OllamaInstallState::installed,
       {{"/opt/homebrew/bin/ollama", "serve"}}},
      {"on PATH",
       {},
       "/home/u/bin/ollama",
       OllamaInstallState::installed,
       {{"/home/u/bin/ollama", "serve"}}},
      {"the user's own unit",
       {ownUnits / "ollama.service", "/usr/local/bin/ollama"},
       std::nullopt,
       OllamaInstallState::installed,
       {userStart}},
      {"a packaged user unit",
       {"/usr/lib/systemd/user/ollama.service", "/usr/bin/ollama"},
       std::nullopt,
       OllamaInstallState::installed,
       {userStart}},
      {"a system unit",
       {"/etc/systemd/system/ollama.service", "/usr/bin/ollama"},
       std::nullopt,
       OllamaInstallState::installed,
       {systemStart}},
      {"a system unit polkit refuses",
       {"/etc/systemd/system/ollama.service", "/usr/bin/ollama"},
       std::nullopt,
       OllamaInstallState::installed,
       {systemStart},
       {1, "Failed to start ollama.service: Interactive authentication required.\nSee logs"},
       "Could not start Ollama's service: Failed to start ollama.service: Interactive "
       "authentication required. Start it in a terminal with \"sudo systemctl start ollama\"."},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    system_.reset();
    system_.setOutcome(c.systemctl);
    for (const auto& file : c.files)
      system_.addFile(file);
    if (c.onPath) system_.addToPath("ollama", *c.onPath);
    restart(unreachable);
    ASSERT_TRUE(waitForEvent("Ollama is not reachable."));
    EXPECT_EQ(onMain([&] { return app_->runtimeSupervisor().installState(); }), c.state);
    onMain([&] { app_->runtimeSupervisor().startOllama(); });
    EXPECT_TRUE(testing_support::eventually([&] { return system_.launched() == c.launched; }));
    if (c.error) {
      EXPECT_TRUE(waitForEvent("Could not start Ollama."));
      EXPECT_EQ(onMain([&] { return app_->properties().ollamaError; }), c.error);
    } else {
      EXPECT_TRUE(sawEvent("Starting Ollama\u2026"));
    }
  }
}

TEST_F(RuntimeSupervisionTest, DownloadsShowProgressPauseResumeAndFail) {
  onMain([&] { app_->runtimeSupervisor().pull("big:1b"); });
  ASSERT_TRUE(waitUntil([](const AppState& app) {
    const auto& progress = app.properties().pullProgress;
    return progress && progress->fraction && *progress->fraction > 0;
  }));
  onMain([&] { app_->runtimeSupervisor().cancelPull(); });
  const auto paused = onMain([&] { return app_->properties(); });
  EXPECT_FALSE(paused.pullProgress.has_value());
  EXPECT_EQ(paused.lastEvent,
            "Download paused \u2014 Ollama keeps what it has, so it resumes where it left off.");
  EXPECT_TRUE(standIn_->waitFor({{"active_pulls", 0}}));

  onMain([&] { app_->runtimeSupervisor().pull("big:1b"); });
  ASSERT_TRUE(waitUntil([](const AppState& app) {
    const auto& models = app.properties().models;
    return std::any_of(models.begin(), models.end(),
                       [](const OllamaModel& m) { return m.name == "big:1b"; });
  }));
  EXPECT_FALSE(onMain([&] { return app_->properties().pullProgress.has_value(); }));

  onMain([&] { app_->runtimeSupervisor().pull("flaky:1b"); });
  ASSERT_TRUE(
      waitUntil([](const AppState& app) { return app.properties().pullError.has_value(); }));
  EXPECT_EQ(onMain([&] { return *app_->properties().pullError; }),
            "Download failed: connection reset");
}

}  // namespace
}  // namespace orin::test
