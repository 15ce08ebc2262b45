#include <fstream>

#include <gtest/gtest.h>

#include "OrinLink/system/LinuxDesktopIntegration.h"

#include "tests/core/TemporaryDirectory.h"
#include "tests/system/SystemFixture.h"

namespace orin::test {
namespace {

const std::string inhibitLine =
    "inhibit what=sleep who=Orin Link why=Keep this computer available for Orin Link requests "
    "mode=block";

// Test names, and failure reports, name the cases by their own names.
template <class Case>
requires requires(const Case& c) {
  c.name;
}
void PrintTo(const Case& c, std::ostream* out) {
  *out << c.name;
}

struct CaseName {
  template <class P>
  std::string operator()(const ::testing::TestParamInfo<P>& param) const {
    return param.param.name;
  }
};

// A private bus with the stand-ins this test asks for; the code under test finds it through
// the bus address variables.
class BusTest : public ::testing::Test {
 protected:
  void startServices(const std::vector<std::string>& options) {
    services_.emplace(bus_.address(), options);
  }
  BusStandIn& services() { return *services_; }

  TemporaryDirectory folder_;
  PrivateBus bus_;
  BusEnvironment environment_{bus_.address()};
  std::optional<BusStandIn> services_;
};

struct SleepCase {
  std::string name;
  bool portal;
  std::vector<bool> calls;
  int inhibits;
  int releasedBeforeDestruction;
  bool held;
};

class SleepPreventionTest : public BusTest, public ::testing::WithParamInterface<SleepCase> {};

TEST_P(SleepPreventionTest, TakesOneLockAndLetsItGoOnce) {
  const SleepCase& c = GetParam();
  startServices(c.portal ? std::vector<std::string>{"--logind", "--portal"}
                         : std::vector<std::string>{"--logind"});
  {
    LogindSleepPrevention sleep;
    for (const bool on : c.calls)
      sleep.setEnabled(on);
    // Inhibit is answered only after the stand-in has reported it.
    EXPECT_EQ(services().count("inhibit what="), c.inhibits) << services().output();
    EXPECT_EQ(services().count(inhibitLine), c.inhibits);
    EXPECT_EQ(sleep.isHeld(), c.held);
    EXPECT_EQ(sleep.holdsSessionInhibitor(), c.held && c.portal);
    EXPECT_EQ(services().count("portal-inhibit flags=4 reason=Keep this computer available"),
              c.portal ? c.inhibits : 0);
    EXPECT_TRUE(eventually([&] {
      return services().count("released") == c.releasedBeforeDestruction;
    })) << services().output();
  }
  // Destruction lets go of a held lock; no lock is ever left behind.
  EXPECT_TRUE(eventually([&] { return services().count("released") == c.inhibits; }))
      << services().output();
  EXPECT_EQ(services().count("portal-close"), services().count("portal-inhibit"));
}

INSTANTIATE_TEST_SUITE_P(
    Sequences, SleepPreventionTest,
    ::testing::Values(SleepCase{"EnableTwice", true, {true, true}, 1, 0, true},
                      SleepCase{"DisableTwice", true, {true, false, false}, 1, 1, false},
                      SleepCase{"AgainAfterRelease", true, {true, false, true}, 2, 1, true},
                      SleepCase{"DisableWhileFree", true, {false}, 0, 0, false},
                      SleepCase{"WithoutPortal", false, {true, true, false}, 1, 1, false}),
    CaseName());

struct RefusalCase {
  std::string name;
  std::vector<std::string> services;
  bool busMissing;
  std::string text;
};

class SleepRefusalTest : public BusTest, public ::testing::WithParamInterface<RefusalCase> {};

TEST_P(SleepRefusalTest, ThrowsTheStatusAndHoldsNothing) {
  const RefusalCase& c = GetParam();
  startServices(c.services);
  std::optional<BusEnvironment> missing;
  if (c.busMissing) missing.emplace("unix:path=" + (folder_.path() / "no-bus").string());
  LogindSleepPrevention sleep;
  try {
    sleep.setEnabled(true);
    ADD_FAILURE() << "no refusal";
  } catch (const SleepPreventionError& error) {
    EXPECT_EQ(std::string(error.what()), c.text);
  }
  EXPECT_FALSE(sleep.isHeld());
  EXPECT_FALSE(sleep.holdsSessionInhibitor());
  EXPECT_EQ(services().count("portal-inhibit"), 0);
  sleep.setEnabled(false);
}

INSTANTIATE_TEST_SUITE_P(
    Refusals, SleepRefusalTest,
    ::testing::Values(
        RefusalCase{
            "AccessDenied",
            {"--logind", "--portal", "--refuse-inhibit", "org.freedesktop.DBus.Error.AccessDenied"},
            false,
            "Linux refused the sleep prevention request (-13)."},
        RefusalCase{"UnknownError",
                    {"--logind", "--portal", "--refuse-inhibit", "org.example.Error.Busy"},
                    false,
                    "Linux refused the sleep prevention request (-5)."},
        RefusalCase{
            "NoLogind", {"--portal"}, false, "Linux refused the sleep prevention request (-113)."},
        RefusalCase{
            "NoSystemBus", {"--portal"}, true, "Linux refused the sleep prevention request (-2)."}),
    CaseName());

class NotificationTest : public BusTest {};

TEST_F(NotificationTest, PostsEachNotificationUnderTheApplicationsName) {
  startServices({"--notifications"});
  DBusNotificationCenter notifications;
  ASSERT_TRUE(notifications.isAvailable());
  notifications.post("Device paired", "Ana's phone <b>can</b> use Orin Link now.");
  notifications.post("Second", "");
  EXPECT_TRUE(services().waitForLine(
      "notify app=app.orinlink.OrinLink icon=app.orinlink.OrinLink summary=Device paired "
      "body=Ana's phone <b>can</b> use Orin Link now."))
      << services().output();
  EXPECT_TRUE(services().waitForLine("summary=Second body="));
}

TEST_F(NotificationTest, UnavailableWithoutAServerOrABus) {
  startServices({"--logind"});
  EXPECT_FALSE(DBusNotificationCenter().isAvailable());
  const BusEnvironment missing("unix:path=" + (folder_.path() / "no-bus").string());
  DBusNotificationCenter notifications;
  EXPECT_FALSE(notifications.isAvailable());
  notifications.post("Nobody", "hears this");
}

TEST_F(NotificationTest, TheFactoryReportsWhatThisSessionOffers) {
  startServices({"--logind", "--notifications"});
  const DesktopIntegration desktop = makeLinuxDesktopIntegration({});
  EXPECT_TRUE(desktop.availability.sleepPrevention);
  EXPECT_TRUE(desktop.availability.notifications);
  EXPECT_TRUE(desktop.availability.loginItem);
  EXPECT_FALSE(desktop.availability.presence);
  EXPECT_EQ(desktop.availability.graphicalSession, hasGraphicalSession());
  ASSERT_TRUE(desktop.sleepPrevention && desktop.loginItem && desktop.notifications &&
              desktop.sound && desktop.presence && desktop.panelOpener);
  desktop.sound->playPairingSound();
}

// ---- the control panel ----

struct OpenerCase {
  std::string name;
  bool skipFirst;
  bool graphical;
  bool addressFirst;
  int requests;
  int opened;
};

class PanelOpenerTest : public ::testing::TestWithParam<OpenerCase> {};

TEST_P(PanelOpenerTest, OpensOnceTheAddressIsKnown) {
  const OpenerCase& c = GetParam();
  const ScopedEnvironment environment(
      {{"DISPLAY", std::nullopt},
       {"WAYLAND_DISPLAY", c.graphical ? std::optional<std::string>("wayland-0") : std::nullopt}});
  const std::string url = "http://127.0.0.1:4242/#secret";
  auto address = std::make_shared<ControlPanelAddress>();
  std::vector<std::string> opened;
  XdgControlPanelOpener opener(address, c.skipFirst,
                               [&](const std::string& page) { opened.push_back(page); });
  if (c.addressFirst) address->set(url);
  for (int i = 0; i < c.requests; ++i)
    opener.openControlPanel();
  if (!c.addressFirst) {
    EXPECT_TRUE(opened.empty());
    address->set(url);
  }
  EXPECT_EQ(opened, std::vector<std::string>(static_cast<std::size_t>(c.opened), url));
}

INSTANTIATE_TEST_SUITE_P(
    Requests, PanelOpenerTest,
    ::testing::Values(OpenerCase{"BeforeTheControlAPIListens", false, true, false, 1, 1},
                      OpenerCase{"SeveralBeforeItListens", false, true, false, 3, 1},
                      OpenerCase{"EachOnceItListens", false, true, true, 2, 2},
                      OpenerCase{"StartedAtLogin", true, true, true, 1, 0},
                      OpenerCase{"ReopenedAfterLogin", true, true, true, 2, 1},
                      OpenerCase{"NoDisplay", false, false, true, 2, 0}),
    CaseName());

// ---- start at login ----

// desktop-file-validate's verdict, or nothing when it is not installed.
std::optional<std::string> validationProblems(const std::filesystem::path& entry) {
  ChildProcess validate({"desktop-file-validate", entry.string()});
  if (validate.waitForExit() == 127) return std::nullopt;
  return validate.output();
}

std::filesystem::path selfExecutable() {
  return std::filesystem::read_symlink("/proc/self/exe");
}

TEST(AutostartTest, WritesAndRemovesTheEntryAtEveryCall) {
  TemporaryDirectory home;
  XdgAutostartLoginItem item(home.path() / "config" / "autostart");
  const auto entry = home.path() / "config" / "autostart" / "app.orinlink.OrinLink.desktop";
  EXPECT_EQ(item.entryPath(), entry);

  item.setEnabled(true);
  item.setEnabled(true);
  const std::string text = readText(entry);
  EXPECT_NE(text.find("\nExec=" + selfExecutable().string() + " --no-open\n"), std::string::npos)
      << text;
  EXPECT_EQ(permissions(entry), 0644);
  if (const auto problems = validationProblems(entry)) {
    EXPECT_EQ(*problems, "");
  }

  // Someone removed it behind our back: writing it again at the next call is the point.
  std::filesystem::remove(entry);
  item.setEnabled(true);
  EXPECT_TRUE(std::filesystem::exists(entry));

  item.setEnabled(false);
  EXPECT_FALSE(std::filesystem::exists(entry));
  item.setEnabled(false);
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(entry.parent_path()), {}), 0);
}

TEST(AutostartTest, ReportsTheSystemsReason) {
  TemporaryDirectory home;
  std::ofstream(home.path() / "config") << "a file where the folder should be";
  XdgAutostartLoginItem item(home.path() / "config" / "autostart");
  try {
    item.setEnabled(true);
    FAIL() << "no error";
  } catch (const Error& error) {
    EXPECT_EQ(std::string(error.what()), "Could not create " +
                                             (home.path() / "config" / "autostart").string() +
                                             ": Not a directory");
  }
  EXPECT_NO_THROW(item.setEnabled(false));
}

struct ExecCase {
  std::string name;
  std::string executable;
  std::string exec;
};

class AutostartExecTest : public ::testing::TestWithParam<ExecCase> {};

TEST_P(AutostartExecTest, QuotesThePathAsDesktopEntriesNeed) {
  const std::string entry = XdgAutostartLoginItem::entry(GetParam().executable);
  EXPECT_NE(entry.find("\nExec=" + GetParam().exec + "\n"), std::string::npos) << entry;
  TemporaryDirectory folder;
  std::ofstream(folder.path() / "entry.desktop") << entry;
  if (const auto problems = validationProblems(folder.path() / "entry.desktop")) {
    EXPECT_EQ(*problems, "");
  }
}

INSTANTIATE_TEST_SUITE_P(
    Paths, AutostartExecTest,
    ::testing::Values(
        ExecCase{"Plain", "/usr/bin/orinlink", "/usr/bin/orinlink --no-open"},
        ExecCase{"Space", "/opt/Orin Link/orinlink", "\"/opt/Orin Link/orinlink\" --no-open"},
        ExecCase{"Percent", "/opt/100%/orinlink", "/opt/100%%/orinlink --no-open"},
        ExecCase{"DollarAndBackslash", "/opt/a$b\\c/orinlink",
                 R"("/opt/a\\$b\\\\c/orinlink" --no-open)"},
        ExecCase{"Apostrophe", "/opt/it's/orinlink", "\"/opt/it's/orinlink\" --no-open"}),
    CaseName());

}  // namespace
}  // namespace orin::test
