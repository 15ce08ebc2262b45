#include <array>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <optional>
#include <poll.h>
#include <string>
#include <unistd.h>

#include <gtest/gtest.h>

#include "OrinLink/screenstream/DisplayCaptureError.h"
#include "OrinLink/screenstream/PortalScreenCast.h"

#include "tests/screenstream/PortalStandIn.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/Eventually.h"

namespace orin::screen {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using Behaviour = test::PortalStandIn::Behaviour;
using Kind = DisplayCaptureError::Kind;
using testing_support::eventually;

// A folder and a session bus of the test's own, which this process uses while it lives.
class Desktop {
 public:
  const fs::path& folder() const { return folder_.path(); }
  const std::string& address() const { return bus_.address(); }

 private:
  test::TemporaryDirectory folder_;
  test::PrivateBus bus_;
  test::BusEnvironment environment_{bus_.address()};
};

struct Outcome {
  std::optional<PortalStream> stream;
  std::optional<DisplayCaptureError> error;
};

Outcome attempt(PortalScreenCast& cast, std::uint32_t sourceType) {
  try {
    return {cast.start(sourceType), std::nullopt};
  } catch (const DisplayCaptureError& error) {
    return {std::nullopt, error};
  }
}

// What arrives on the descriptor within a few seconds.
std::string readAll(int fd) {
  std::string text;
  std::array<char, 64> buffer{};
  pollfd entry{fd, POLLIN, 0};
  while (::poll(&entry, 1, 5000) > 0) {
    const ssize_t n = ::read(fd, buffer.data(), buffer.size());
    if (n <= 0) break;
    text.append(buffer.data(), static_cast<std::size_t>(n));
  }
  return text;
}

TEST(PortalScreenCast, EachAnswerEndsInAStreamOrItsError) {
  struct Case {
    const char* name;
    std::optional<Behaviour> portal{};
    std::uint32_t sourceType = portalSourceMonitor;
    std::chrono::milliseconds answerTimeout = 20s;
    std::optional<Kind> error{};
    const char* text = "";
    // What the portal was sent, when it got that far.
    std::optional<std::uint32_t> cursorMode{};
    std::optional<std::uint32_t> persistMode{};
    int sessionsClosed = 1;
  };
  const Case cases[] = {
      {.name = "shared", .portal = Behaviour{}, .cursorMode = 2, .persistMode = 2},
      {.name = "virtual monitor, older portal",
       .portal = Behaviour{.version = 3,
                           .cursorModes = 1,
                           .stream = test::PortalStandIn::Stream{7, std::nullopt}},
       .sourceType = portalSourceVirtual,
       .cursorMode = 1},
      {.name = "declined at the dialog",
       .portal = Behaviour{.startResponse = 1},
       .error = Kind::sharingDeclined},
      {.name = "declined while choosing",
       .portal = Behaviour{.selectResponse = 1},
       .error = Kind::sharingDeclined},
      {.name = "refused by the portal",
       .portal = Behaviour{.startResponse = 2},
       .error = Kind::captureFailed,
       .text = "portal error 2"},
      {.name = "no session",
       .portal = Behaviour{.createResponse = 2},
       .error = Kind::captureFailed,
       .text = "portal error 2"},
      {.name = "no stream",
       .portal = Behaviour{.stream = std::nullopt},
       .error = Kind::captureFailed,
       .text = "portal error -61"},
      {.name = "unanswered dialog",
       .portal = Behaviour{.start = Behaviour::Start::ignore},
       .answerTimeout = 300ms,
       .error = Kind::captureFailed,
       .text = "portal error -110"},
      {.name = "portal gone while asking",
       .portal = Behaviour{.start = Behaviour::Start::vanish},
       .error = Kind::captureFailed,
       .text = "portal error -104",
       .sessionsClosed = 0},
      {.name = "no virtual monitors",
       .portal = Behaviour{.sourceTypes = portalSourceMonitor},
       .sourceType = portalSourceVirtual,
       .error = Kind::screenCastUnavailable,
       .sessionsClosed = 0},
      {.name = "no ScreenCast interface",
       .portal = Behaviour{.screenCast = false},
       .error = Kind::screenCastUnavailable,
       .sessionsClosed = 0},
      {.name = "no portal", .error = Kind::screenCastUnavailable, .sessionsClosed = 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const Desktop desktop;
    std::optional<test::PortalStandIn> portal;
    if (c.portal) portal.emplace(desktop.address(), *c.portal);
    PortalScreenCast cast(
        {.restoreTokenFile = desktop.folder() / "token", .answerTimeout = c.answerTimeout});
    EXPECT_EQ(cast.availableSourceTypes(),
              c.portal && c.portal->screenCast ? c.portal->sourceTypes : 0U);

    const auto began = std::chrono::steady_clock::now();
    Outcome outcome = attempt(cast, c.sourceType);
    EXPECT_LT(std::chrono::steady_clock::now() - began, 5s);
    if (c.error) {
      ASSERT_TRUE(outcome.error);
      EXPECT_EQ(outcome.error->kind(), *c.error);
      EXPECT_NE(std::string(outcome.error->what()).find(c.text), std::string::npos)
          << outcome.error->what();
    } else {
      ASSERT_TRUE(outcome.stream) << outcome.error->what();
      const PortalStream& stream = *outcome.stream;
      const auto& given = *c.portal->stream;
      EXPECT_EQ(stream.nodeId, given.nodeId);
      using Side = std::optional<std::uint32_t>;
      EXPECT_EQ(stream.width, given.size ? Side(given.size->first) : std::nullopt);
      EXPECT_EQ(stream.height, given.size ? Side(given.size->second) : std::nullopt);
      EXPECT_EQ(readAll(stream.remoteFd), "pipewire");
      const auto seen = portal->seen();
      EXPECT_EQ(seen.types, c.sourceType);
      EXPECT_EQ(seen.multiple, false);
      EXPECT_EQ(seen.cursorMode, c.cursorMode);
      EXPECT_EQ(seen.persistMode, c.persistMode);
    }
    outcome.stream.reset();
    if (portal) {
      EXPECT_TRUE(eventually([&] { return portal->seen().sessionsClosed == c.sessionsClosed; }))
          << portal->seen().sessionsClosed;
    }
    // The dialog nobody answered is taken down.
    if (c.answerTimeout < 1s) {
      EXPECT_TRUE(eventually([&] { return portal->seen().requestsClosed == 1; }));
    }
  }
}

TEST(PortalScreenCast, TheRestoreTokenIsKeptPrivateAndBroughtBack) {
  const Desktop desktop;
  const fs::path folder = desktop.folder() / "config" / "OrinLink";
  const fs::path file = folder / "screencast-restore-token";
  PortalScreenCast cast({.restoreTokenFile = file});
  {
    test::PortalStandIn portal(desktop.address(), Behaviour{.requireLastToken = true});
    ASSERT_TRUE(attempt(cast, portalSourceMonitor).stream);
    EXPECT_EQ(portal.seen().restoreToken, std::nullopt);
    EXPECT_EQ(test::readText(file), "token-1");
    EXPECT_EQ(test::permissions(file), 0600);
    EXPECT_EQ(test::permissions(folder), 0700);

    // The stand-in refuses a selection without the token it handed out.
    ASSERT_TRUE(attempt(cast, portalSourceMonitor).stream);
    EXPECT_EQ(portal.seen().restoreToken, "token-1");
    EXPECT_EQ(test::readText(file), "token-2");
  }
  // A spent token is dropped when no new one comes.
  const Desktop other;
  test::PortalStandIn portal(other.address(), Behaviour{.handOutTokens = false});
  ASSERT_TRUE(attempt(cast, portalSourceMonitor).stream);
  EXPECT_EQ(portal.seen().restoreToken, "token-2");
  EXPECT_FALSE(fs::exists(file));
}

}  // namespace
}  // namespace orin::screen
