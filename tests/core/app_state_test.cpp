#include <ctime>
#include <fstream>
#include <functional>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <gtest/gtest.h>

#include "OrinLink/core/AppState.h"
#include "OrinLink/ui/ControlAPI.h"

#include "tests/aiservice/FakeSystemActions.h"
#include "tests/core/TemporaryDirectory.h"
#include "tests/support/FakeDesktopIntegration.h"

namespace orin::test {
namespace {

using Json = nlohmann::json;

// A local wall-clock time, as the daily counter sees it.
Date localTime(int year, int month, int day, int hour, int minute, int second) {
  std::tm parts{};
  parts.tm_year = year - 1900;
  parts.tm_mon = month - 1;
  parts.tm_mday = day;
  parts.tm_hour = hour;
  parts.tm_min = minute;
  parts.tm_sec = second;
  parts.tm_isdst = -1;
  return Date::fromUnixSeconds(static_cast<double>(std::mktime(&parts)));
}

// The application state alone: nothing is launched and the loop never runs, so every call is
// made and checked on the test's thread, and settings are read back from memory.
class AppStateTest : public testing::Test {
 protected:
  // Without a desktop, every facility is missing.
  AppState& start(const Json& settings = Json::object(), bool withDesktop = true) {
    app_.reset();
    std::filesystem::create_directories(directory_.path() / "config");
    std::ofstream(directory_.path() / "config/settings.json") << settings.dump();
    AppState::Environment environment;
    environment.mainExecutor = io_.get_executor();
    environment.httpExecutor = io_.get_executor();
    environment.backgroundExecutor = io_.get_executor();
    environment.settingsFile = directory_.path() / "config/settings.json";
    environment.registryFile = directory_.path() / "data/paired-devices.json";
    environment.system = &system_;
    environment.clock = [this] { return now_; };
    environment.bindAddress = boost::asio::ip::address_v4::loopback();
    if (withDesktop) environment.desktop = makeFakeDesktop(desktop_);
    app_ = AppState::make(std::move(environment));
    return *app_;
  }

  const AppState::Properties& p() const { return app_->properties(); }
  std::optional<Json> stored(std::string_view key) { return app_->settings().object(key); }

  TemporaryDirectory directory_;
  boost::asio::io_context io_;
  FakeSystemActions system_;
  std::shared_ptr<DesktopRecord> desktop_ = std::make_shared<DesktopRecord>();
  Date now_ = localTime(2026, 3, 14, 12, 0, 0);
  std::shared_ptr<AppState> app_;
};

TEST_F(AppStateTest, SettingsAreReadWithTheirRules) {
  const Json fresh = Json::object();
  struct Case {
    std::string name;
    Json settings;
    std::string pointer;  // into the control API's snapshot
    Json expected;
    std::uint64_t memoryGiB = 16;
  };
  const Case cases[] = {
      {"fresh port", fresh, "/settings/serverPort", 38141},
      {"fresh base URL", fresh, "/settings/ollamaBaseURL", "http://localhost:11434"},
      {"fresh guide", fresh, "/isGuidePresented", true},
      {"fresh guide seen", fresh, "/hasSeenGuide", false},
      {"fresh sound", fresh, "/pairingSoundEnabled", true},
      {"fresh notifications", fresh, "/connectNotificationsEnabled", false},
      {"fresh conversations", fresh, "/conversations/show", false},
      {"fresh presence", fresh, "/showInDock", false},
      {"fresh kind", fresh, "/settings/manualEndpointKind", "manual"},
      {"fresh host", fresh, "/settings/manualEndpointHost", ""},
      {"fresh reliability", fresh, "/settings/reliabilityModeEnabled", false},
      {"port 0", {{"serverPort", 0}}, "/settings/serverPort", 38141},
      {"port as text", {{"serverPort", "9000"}}, "/settings/serverPort", 9000},
      {"port 65535", {{"serverPort", 65535}}, "/settings/serverPort", 65535},
      {"guide seen", {{"hasSeenGuide", true}}, "/isGuidePresented", false},
      {"sound off", {{"pairingSoundEnabled", false}}, "/pairingSoundEnabled", false},
      {"sound as number", {{"pairingSoundEnabled", 0}}, "/pairingSoundEnabled", true},
      {"sound as text", {{"pairingSoundEnabled", "no"}}, "/pairingSoundEnabled", true},
      {"sound null", {{"pairingSoundEnabled", nullptr}}, "/pairingSoundEnabled", true},
      {"fresh panel at start", fresh, "/openPanelAtLaunch", true},
      {"panel kept closed", {{"openPanelAtLaunch", false}}, "/openPanelAtLaunch", false},
      {"presence as text", {{"showInDock", "yes"}}, "/showInDock", true},
      {"notifications", {{"connectNotificationsEnabled", 1}}, "/connectNotificationsEnabled", true},
      {"conversations", {{"showConversationsOnMac", true}}, "/conversations/show", true},
      {"known kind",
       {{"manualEndpointKind", "tailscale"}},
       "/settings/manualEndpointKind",
       "tailscale"},
      {"kind in wrong case",
       {{"manualEndpointKind", "Tailscale"}},
       "/settings/manualEndpointKind",
       "manual"},
      {"32 GB", fresh, "/runtime/activeModel", "gemma4:26b", 32},
      {"31 GB", fresh, "/runtime/activeModel", "gemma4:12b", 31},
      {"18 GB", fresh, "/runtime/activeModel", "gemma4:12b", 18},
      {"17 GB", fresh, "/runtime/activeModel", "gemma4:e4b", 17},
      {"chosen model", {{"activeModel", "plain:1b"}}, "/runtime/activeModel", "plain:1b", 32},
      {"replies today",
       {{"repliesTodayDate", "2026-03-14"}, {"repliesTodayCount", 4}},
       "/statistics/repliesToday",
       4},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    system_.setMemoryGiB(c.memoryGiB);
    const auto snapshot = ControlAPI::snapshot(start(c.settings));
    EXPECT_EQ(Json(snapshot.at(nlohmann::ordered_json::json_pointer(c.pointer))), c.expected);
  }
}

TEST_F(AppStateTest, AStoredPortOutOfRangeStopsTheStartNamingTheKeyAndFile) {
  for (const std::int64_t port : {70000, -1}) {
    try {
      start({{"serverPort", port}});
      ADD_FAILURE() << "started with port " << port;
    } catch (const StartupError& error) {
      const std::string text = error.what();
      EXPECT_NE(text.find("\"serverPort\""), std::string::npos) << text;
      EXPECT_NE(text.find((directory_.path() / "config/settings.json").string()), std::string::npos)
          << text;
    }
  }
}

TEST_F(AppStateTest, TheDailyCounterStartsAgainAfterMidnight) {
  now_ = localTime(2026, 3, 14, 23, 59, 50);
  start({{"repliesTodayDate", "2026-03-14"}, {"repliesTodayCount", 5}});
  app_->recordReply();
  EXPECT_EQ(p().repliesToday, 6);

  now_ = localTime(2026, 3, 15, 0, 0, 10);
  EXPECT_EQ(p().repliesToday, 6) << "only the next reply starts the new day";
  app_->recordReply();
  EXPECT_EQ(p().repliesToday, 1);
  EXPECT_EQ(stored("repliesTodayDate"), Json("2026-03-15"));
  EXPECT_EQ(stored("repliesTodayCount"), Json(1));

  // A count from an earlier day reads as nothing, and stays stored until the next reply.
  now_ = localTime(2026, 3, 16, 9, 0, 0);
  start({{"repliesTodayDate", "2026-03-15"}, {"repliesTodayCount", 3}});
  EXPECT_EQ(p().repliesToday, 0);
  EXPECT_EQ(stored("repliesTodayCount"), Json(3));
  app_->recordReply();
  EXPECT_EQ(stored("repliesTodayDate"), Json("2026-03-16"));
  EXPECT_EQ(stored("repliesTodayCount"), Json(1));
}

TEST_F(AppStateTest, TheConversationLogKeepsTheLastTwentyWhileShown) {
  start();
  EXPECT_FALSE(app_->beginConversationEntry("hi", "Phone").has_value());
  app_->setShowConversations(true);
  EXPECT_EQ(stored("showConversationsOnMac"), Json(true));
  std::vector<Uuid> ids;
  for (int i = 1; i <= 21; ++i)
    ids.push_back(*app_->beginConversationEntry("prompt " + std::to_string(i), "Phone"));
  ASSERT_EQ(p().conversationLog.size(), 20u);
  EXPECT_EQ(p().conversationLog.front().prompt, "prompt 2");
  EXPECT_EQ(p().conversationLog.back().prompt, "prompt 21");

  app_->appendConversationToken("lost", ids[0]);
  app_->appendConversationToken("Hel", ids[20]);
  app_->appendConversationToken("lo", ids[20]);
  app_->completeConversationEntry(ids[20]);
  const auto& last = p().conversationLog.back();
  EXPECT_EQ(last.response, "Hello");
  EXPECT_TRUE(last.isComplete);
  for (const auto& entry : p().conversationLog)
    EXPECT_EQ(entry.response.find("lost"), std::string::npos);

  app_->setShowConversations(false);
  EXPECT_TRUE(p().conversationLog.empty());
  EXPECT_EQ(stored("showConversationsOnMac"), Json(false));
  app_->appendConversationToken("late", ids[20]);
  EXPECT_TRUE(p().conversationLog.empty());
}

// Two generations overlap; the steps run in order against one state.
TEST_F(AppStateTest, GenerationsEndWithTheirRules) {
  start();
  struct Step {
    std::string name;
    std::optional<std::string> startFor;  // otherwise an end with tokens and elapsed seconds
    std::int64_t tokens = 0;
    double seconds = 0;
    std::int64_t active;
    std::optional<std::string> busy;
    std::optional<double> rate;
    std::int64_t replies;
    std::optional<std::string> badge;
  };
  const Step steps[] = {
      {"first starts", "Phone", 0, 0, 1, "Phone", std::nullopt, 0, "1"},
      {"second starts", "Tablet", 0, 0, 2, "Tablet", std::nullopt, 0, "2"},
      {"one ends with tokens", std::nullopt, 10, 2, 1, "Tablet", 5.0, 1, "1"},
      {"the other ends without", std::nullopt, 0, 1, 0, std::nullopt, 5.0, 1, std::nullopt},
      {"an extra end", std::nullopt, 3, 1, 0, std::nullopt, 3.0, 2, std::nullopt},
      {"a start", "Phone", 0, 0, 1, "Phone", 3.0, 2, "1"},
      {"an instant reply", std::nullopt, 1, 0, 0, std::nullopt, 20.0, 3, std::nullopt},
  };
  for (const auto& step : steps) {
    SCOPED_TRACE(step.name);
    if (step.startFor) {
      app_->noteGenerationStarted(*step.startFor);
    } else {
      app_->endGeneration(step.tokens, now_.adding(-step.seconds));
    }
    EXPECT_EQ(p().activeGenerations, step.active);
    EXPECT_EQ(p().busyDeviceName, step.busy);
    EXPECT_EQ(p().tokensPerSecond, step.rate);
    EXPECT_EQ(p().repliesToday, step.replies);
    EXPECT_EQ(p().badge, step.badge);
    ASSERT_FALSE(desktop_->badges.empty());
    EXPECT_EQ(desktop_->badges.back(), step.badge);
  }
  EXPECT_EQ(p().modelResidentSince, std::optional<Date>(now_));
}

TEST_F(AppStateTest, PairingIsCelebratedAsTheUserChose) {
  struct Case {
    bool sound;
    bool notify;
    bool notificationsAvailable;
    int soundsPlayed;
    std::size_t notifications;
  };
  const Case cases[] = {
      {true, false, true, 1, 0},
      {false, true, true, 0, 1},
      {true, true, false, 1, 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << c.sound << c.notify << c.notificationsAvailable);
    *desktop_ = DesktopRecord{};
    desktop_->notificationsAvailable = c.notificationsAvailable;
    start({{"pairingSoundEnabled", c.sound}, {"connectNotificationsEnabled", c.notify}});
    app_->registry().pair("device-1", "Vantaro", app_->registry().pairingCode());
    EXPECT_EQ(p().lastPairedDeviceName, std::optional<std::string>("Vantaro"));
    EXPECT_EQ(p().lastPairedAt, std::optional<Date>(now_));
    EXPECT_EQ(p().lastEvent, "Paired Vantaro.");
    EXPECT_EQ(desktop_->soundsPlayed, c.soundsPlayed);
    const std::pair<std::string, std::string> joined{"Vantaro joined",
                                                     "Paired with Orin Link on this Mac."};
    EXPECT_EQ(desktop_->notifications, decltype(desktop_->notifications)(c.notifications, joined));
  }
}

// Arrivals are announced, departures are not, and a client that comes back is announced again.
TEST_F(AppStateTest, StreamClientsAreAnnouncedWhenTheyArrive) {
  using Names = std::vector<std::string>;
  struct Step {
    Names clients;
    Names announced;
  };
  const Step steps[] = {
      {{"Vantaro"}, {"Vantaro connected"}},
      {{"Vantaro", "Desk", "Desk"}, {"Desk connected"}},
      {{"Desk"}, {}},
      {{"Desk", "Vantaro"}, {"Vantaro connected"}},
      {{}, {}},
  };
  for (const bool notify : {true, false}) {
    SCOPED_TRACE(notify);
    *desktop_ = DesktopRecord{};
    start({{"connectNotificationsEnabled", notify}});
    for (const auto& step : steps) {
      desktop_->notifications.clear();
      app_->handleStreamClientsChanged(step.clients);
      Names titles;
      for (const auto& [title, body] : desktop_->notifications) {
        EXPECT_EQ(body, "Streaming your desktop into Vantaro.");
        titles.push_back(title);
      }
      EXPECT_EQ(titles, notify ? step.announced : Names{});
    }
  }
}

TEST_F(AppStateTest, ImmediateSettingsAreStoredAndApplied) {
  struct Case {
    std::string key;
    std::function<void(AppState&)> change;
    bool storedValue;
    std::function<bool(const DesktopRecord&, const AppState::Properties&)> effect;
  };
  const Case cases[] = {
      {"showInDock", [](AppState& a) { a.setShowInDock(true); }, true,
       [](const DesktopRecord& d, const auto&) { return d.windowedPresence == true; }},
      {"pairingSoundEnabled", [](AppState& a) { a.setPairingSoundEnabled(false); }, false,
       [](const DesktopRecord&, const auto& p) { return !p.pairingSoundEnabled; }},
      {"connectNotificationsEnabled", [](AppState& a) { a.setConnectNotificationsEnabled(true); },
       true, [](const DesktopRecord& d, const auto&) { return d.authorizationRequests == 1; }},
      // Switching notifications off asks nothing of the user.
      {"connectNotificationsEnabled", [](AppState& a) { a.setConnectNotificationsEnabled(false); },
       false, [](const DesktopRecord& d, const auto&) { return d.authorizationRequests == 0; }},
      {"openPanelAtLaunch", [](AppState& a) { a.setOpenPanelAtLaunch(false); }, false,
       [](const DesktopRecord&, const auto& p) { return !p.openPanelAtLaunch; }},
      {"hasSeenGuide", [](AppState& a) { a.setGuidePresented(false); }, true,
       [](const DesktopRecord&, const auto& p) { return p.hasSeenGuide && !p.isGuidePresented; }},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.key);
    *desktop_ = DesktopRecord{};
    start();
    c.change(*app_);
    EXPECT_EQ(stored(c.key), Json(c.storedValue));
    EXPECT_TRUE(c.effect(*desktop_, p()));
  }
}

TEST_F(AppStateTest, RefusedAvailabilityOptionsAreSwitchedOffAndExplained) {
  struct Case {
    std::optional<std::int32_t> refuseSleep;
    std::optional<std::string> refuseLogin;
    std::optional<std::string> error;
  };
  const Case cases[] = {
      {std::nullopt, std::nullopt, std::nullopt},
      {5, std::nullopt, "Linux refused the sleep prevention request (5)."},
      {std::nullopt, "Permission denied", "Start at Login: Permission denied"},
      {5, "Permission denied",
       "Linux refused the sleep prevention request (5).\nStart at Login: Permission denied"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.error.value_or("none"));
    *desktop_ = DesktopRecord{};
    desktop_->refuseSleepWith = c.refuseSleep;
    desktop_->refuseLoginItemWith = c.refuseLogin;
    start({{"reliabilityModeEnabled", true}, {"startAtLoginEnabled", true}});
    app_->applyAvailabilitySettings();
    EXPECT_EQ(p().availabilityError, c.error);
    EXPECT_EQ(p().reliabilityModeEnabled, !c.refuseSleep);
    EXPECT_EQ(p().startAtLoginEnabled, !c.refuseLogin);
    EXPECT_EQ(desktop_->sleepHeld, !c.refuseSleep);
    EXPECT_EQ(desktop_->loginItemCalls, std::vector<bool>{true});
    // Written back only by the next save.
    EXPECT_EQ(stored("reliabilityModeEnabled"), Json(true));
  }
}

TEST_F(AppStateTest, APortInUseFailsTheServerStart) {
  boost::asio::ip::tcp::acceptor holder(io_, {boost::asio::ip::address_v4::loopback(), 0});
  const std::uint16_t taken = holder.local_endpoint().port();
  start({{"serverPort", taken}});
  app_->startServer();
  while (!p().serverError && io_.run_one_for(std::chrono::seconds(10)) > 0) {
  }
  EXPECT_FALSE(p().isServerRunning);
  EXPECT_EQ(p().serverPort, taken);
  EXPECT_EQ(p().serverError, "Address already in use");
  EXPECT_EQ(p().lastEvent, "Server failed to start: Address already in use");
}

TEST_F(AppStateTest, MissingFacilitiesAreQuietAndNamed) {
  start(Json::object(), false);
  app_->editableProperties().reliabilityModeEnabled = true;
  app_->applyAvailabilitySettings();
  app_->setConnectNotificationsEnabled(true);
  app_->celebratePairing("Vantaro");
  app_->setShowInDock(true);
  app_->openSettingsWindow();
  EXPECT_FALSE(p().availabilityError.has_value());
  EXPECT_TRUE(p().reliabilityModeEnabled);
  app_->setDiscoveryAvailable(false);
  EXPECT_EQ(app_->stateSnapshot().missingFacilities,
            (std::vector<MissingFacility>{
                MissingFacility::sleepPrevention, MissingFacility::loginItem,
                MissingFacility::notifications, MissingFacility::sound, MissingFacility::presence,
                MissingFacility::graphicalSession, MissingFacility::discovery}));
}

}  // namespace
}  // namespace orin::test
