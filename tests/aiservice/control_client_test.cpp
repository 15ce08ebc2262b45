#include <chrono>
#include <fstream>
#include <optional>
#include <thread>

#include <gtest/gtest.h>

#include "OrinLink/controlclient/ControlClient.h"

#include "tests/core/TemporaryDirectory.h"
#include "tests/support/ScriptedHTTPServer.h"

namespace orin::test {
namespace {

using namespace std::chrono_literals;
using Kind = ControlClientError::Kind;

using Host = testing_support::ScriptedHTTPServer;

constexpr auto deadline = 150ms;

TEST(ControlClientTest, EveryExchangeEndsWithinItsDeadline) {
  // Starts a reply and sends a header line every few milliseconds for far longer than the
  // deadline, so only a deadline on the whole exchange ends it.
  Host::Reply trickle{200, {"HTTP/1.1 200 OK\r\n"}, true, true};
  trickle.pieces.resize(1000, "X-Still-Busy: yes\r\n");
  const std::pair<std::optional<Host::Reply>, Kind> cases[] = {
      {std::nullopt, Kind::notRunning},
      {Host::Reply{0, {}}, Kind::timedOut},
      {Host::Reply{200, {}, false, true}, Kind::failed},
      {trickle, Kind::timedOut},
  };
  for (const auto& [reply, kind] : cases) {
    const bool trickles = reply && reply->gated;
    SCOPED_TRACE(std::to_string(static_cast<int>(kind)) + (trickles ? ", trickling" : ""));
    std::optional<Host> host;
    const std::uint16_t port = reply ? host.emplace(std::vector{*reply}).port() : Host().port();
    const std::jthread pacer([trickles, &host](const std::stop_token& stop) {
      while (trickles && !stop.stop_requested()) {
        std::this_thread::sleep_for(10ms);
        host->release();
      }
    });
    const ControlClient client(port, "secret", deadline);
    const auto started = std::chrono::steady_clock::now();
    try {
      client.post("/api/panel/open");
      ADD_FAILURE() << "an answer came";
    } catch (const ControlClientError& error) {
      EXPECT_EQ(error.kind(), kind) << error.what();
      if (kind == Kind::timedOut) {
        EXPECT_EQ(error.what(), ControlClient::timedOutText);
      }
    }
    const auto took = std::chrono::steady_clock::now() - started;
    if (kind == Kind::timedOut) {
      EXPECT_GE(took, deadline);
    }
    EXPECT_LT(took, deadline + 2s);
  }
}

TEST(ControlClientTest, TheSecretLosesItsLineEnd) {
  const TemporaryDirectory directory;
  const auto file = directory.path() / "control-secret";
  const std::pair<std::string, std::string> cases[] = {
      {"abc\n", "abc"}, {"abc\r\n", "abc"}, {"abc", "abc"}, {"a b\n\n", "a b"}};
  for (const auto& [stored, secret] : cases) {
    std::ofstream(file, std::ios::trunc) << stored;
    EXPECT_EQ(readControlSecret(file), secret);
  }
  std::filesystem::remove(file);
  EXPECT_EQ(readControlSecret(file), std::nullopt);
}

}  // namespace
}  // namespace orin::test
