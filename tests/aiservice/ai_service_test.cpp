#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/read.hpp>
#include <boost/asio/write.hpp>

#include "tests/aiservice/AIServiceFixture.h"

namespace orin::test {
namespace {

TEST_F(AIServiceTest, EveryRouteAnswersInItsOwnForm) {
  const std::string token = pair("route-device");
  const std::string unauthorized =
      R"({"error":{"code":"unauthorized","message":"Pair this device with Orin Link before calling this endpoint."}})";
  struct Case {
    std::string method;
    std::string target;
    bool withToken;
    std::string body;
    int status;
    std::string expectedBody;  // exact when set
    std::string expectedText;  // contained otherwise
  };
  const Case cases[] = {
      {"GET", "/health", false, "", 200,
       R"({"status":"ok","app":"Orin Link","version":"0.1.0","runtime":"ollama","activeModel":"plain:1b"})",
       ""},
      {"GET", "/status", false, "", 401, unauthorized, ""},
      {"GET", "/nowhere", false, "", 401, unauthorized, ""},
      {"GET", "/nowhere?x=1", true, "", 404,
       R"({"error":{"code":"not_found","message":"No Orin Link endpoint exists at \/nowhere?x=1."}})",
       ""},
      {"GET", "/v1/generate", true, "", 404, "", "No Orin Link endpoint exists at"},
      {"GET", "/status?refresh=1", true, "", 200, "",
       R"("localNetworkEnabled":true,"reliabilityModeEnabled":false,"edition":"website","capabilities":["textAI","displayMirroring","portal","virtualUltrawide"]})"},
      {"GET", "/models", true, "", 200, "", R"("plain:1b","lines:1b","tool:1b")"},
      {"POST", "/v1/pair", false, R"({"pairingCode":"000 000","deviceId":"d","displayName":"x"})",
       500, "", R"("error":{"code":"request_failed","message":"The pairing code did not match."})"},
      {"POST", "/v1/generate", true,
       R"({"id":"6F9619FF-8B86-D011-B42D-00C04FC964FF","prompt":"hi","requestedAt":"2026-01-01T00:00:00Z"})",
       500, "",
       R"("status":"failed","lane":"chat","assistantMessage":"","error":{"code":"request_failed")"},
      {"POST", "/v1/generate", true, generateBody("tool:1b"), 200, "",
       R"("status":"success","lane":"toolProposal","assistantMessage":"Sure.","proposedToolCall":)"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.method + " " + c.target);
    const auto reply =
        call(c.method, c.target, c.withToken ? std::optional(token) : std::nullopt, c.body);
    EXPECT_EQ(reply.status, c.status);
    if (!c.expectedBody.empty()) {
      EXPECT_EQ(reply.body, c.expectedBody);
    }
    if (!c.expectedText.empty()) {
      EXPECT_NE(reply.body.find(c.expectedText), std::string::npos) << reply.body;
    }
  }
}

TEST_F(AIServiceTest, WrongCodesLockPairingUntilTheClockMovesOn) {
  const std::string code = onMain([&] { return app_->registry().pairingCode(); });
  const std::string wrong = code == "111 111" ? "222 222" : "111 111";
  std::vector<std::string> messages;
  for (int attempt = 0; attempt < 5; ++attempt) {
    try {
      device().pair({wrong, "d", "Phone"});
    } catch (const DeviceError& error) {
      messages.push_back(error.what());
    }
  }
  ASSERT_EQ(messages.size(), 5u);
  EXPECT_NE(messages[3].find("The pairing code did not match."), std::string::npos);
  EXPECT_NE(messages[4].find("Too many incorrect codes."), std::string::npos);
  EXPECT_THROW(device().pair({code, "d", "Phone"}), DeviceError);
  now_ = now_ + 61;
  EXPECT_EQ(device().pair({code, "d", "Phone"}).value.deviceId, "d");

  const std::string next = onMain([&] { return app_->registry().pairingCode(); });
  now_ = now_ + 600;
  try {
    device().pair({next, "e", "Tablet"});
    ADD_FAILURE() << "an expired code paired";
  } catch (const DeviceError& error) {
    EXPECT_NE(std::string(error.what()).find("The pairing code expired."), std::string::npos);
  }
  EXPECT_NE(onMain([&] { return app_->registry().pairingCode(); }), next);
}

// The device asked nothing about thinking, so the first attempt says "think": false; the model
// refuses any "think" key, and exactly one retry goes out without it.
TEST_F(AIServiceTest, AModelThatRefusesThinkingIsAskedOnceMoreWithoutIt) {
  const std::string token = pair("think-device");
  for (const bool streamed : {false, true}) {
    SCOPED_TRACE(streamed ? "streamed" : "whole");
    testing_support::httpExchange(standIn_->port(), "POST", "/standin/reset");
    std::string text;
    if (streamed) {
      device(token).generateStream(
          device::makeGenerateRequest("hi", "refuser:1b", std::nullopt, std::nullopt),
          [&](std::string_view piece) { text += piece; });
    } else {
      text =
          device(token)
              .generate(device::makeGenerateRequest("hi", "refuser:1b", std::nullopt, std::nullopt))
              .value.assistantMessage;
    }
    EXPECT_EQ(text, "No thoughts.");
    // Generations of this model only: a warm-up (empty prompt) may arrive at any moment.
    Json requests = Json::array();
    const Json stats = standIn_->stats();
    for (const Json& request : stats["requests"]) {
      if (request.value("model", "") == "refuser:1b" && request.value("prompt", "") != "") {
        requests.push_back(request);
      }
    }
    ASSERT_EQ(requests.size(), 2u);
    EXPECT_EQ(requests[0]["think"], false);
    EXPECT_FALSE(requests[1].contains("think"));
  }
}

TEST_F(AIServiceTest, StreamedTokensKeepTheirLineBreaksAsEscapes) {
  const std::string token = pair("lines-device");
  const auto raw = call("POST", "/v1/generate/stream", token, generateBody("lines:1b"));
  EXPECT_NE(raw.body.find("data: one\\ntwo\n\ndata:  three\\n\n\nevent: done\ndata: {}\n\n"),
            std::string::npos)
      << raw.body;
  std::string text;
  device(token).generateStream(
      device::makeGenerateRequest("hi", "lines:1b", std::nullopt, std::nullopt),
      [&](std::string_view piece) { text += piece; });
  EXPECT_EQ(text, "one\ntwo three\n");
}

// Half-closing after the request, as `nc -N` does, is not leaving: every route still answers.
TEST_F(AIServiceTest, HalfClosedClientsStillGetTheirReplies) {
  const std::string token = pair("half-close-device");
  struct Case {
    std::string method;
    std::string target;
    std::string body;
    std::string expectedText;
  };
  const Case cases[] = {
      {"GET", "/status", "", R"("edition":"website")"},
      {"POST", "/v1/generate", generateBody("plain:1b"),
       R"("assistantMessage":"Hello there, friend.")"},
      {"POST", "/v1/generate/stream", generateBody("plain:1b"), "event: done\ndata: {}\n\n"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.target);
    asio::io_context io;
    asio::ip::tcp::socket socket(io);
    socket.connect({asio::ip::address_v4::loopback(), port_});
    const std::string request = c.method + " " + c.target + " HTTP/1.1\r\nAuthorization: Bearer " +
                                token + "\r\nContent-Length: " + std::to_string(c.body.size()) +
                                "\r\n\r\n" + c.body;
    asio::write(socket, asio::buffer(request));
    socket.shutdown(asio::ip::tcp::socket::shutdown_send);
    std::string reply;
    boost::system::error_code ec;
    asio::read(socket, asio::dynamic_buffer(reply), ec);
    EXPECT_TRUE(reply.starts_with("HTTP/1.1 200 OK\r\n")) << reply;
    EXPECT_NE(reply.find(c.expectedText), std::string::npos) << reply;
  }
}

// How a stream in flight ends when something other than the model ends it.
TEST_F(AIServiceTest, StreamsEndCleanlyWhenTheirConnectionOrDaemonGoes) {
  enum class Ending { devicePairedAgain, daemonDied, clientLeft };
  for (const Ending ending : {Ending::devicePairedAgain, Ending::daemonDied, Ending::clientLeft}) {
    SCOPED_TRACE(static_cast<int>(ending));
    if (ending != Ending::devicePairedAgain) {
      standIn_.reset();
      restart();
    }
    const std::string token = pair("stream-device");
    asio::io_context io;
    asio::ip::tcp::socket socket(io);
    socket.connect({asio::ip::address_v4::loopback(), port_});
    const std::string body = generateBody("slow:1b");
    const std::string request = "POST /v1/generate/stream HTTP/1.1\r\nAuthorization: Bearer " +
                                token + "\r\nContent-Length: " + std::to_string(body.size()) +
                                "\r\n\r\n" + body;
    asio::write(socket, asio::buffer(request));
    std::string received;
    boost::system::error_code ec;
    while (received.find("data: ") == std::string::npos && !ec) {
      char chunk[512];
      received.append(chunk, socket.read_some(asio::buffer(chunk), ec));
    }
    ASSERT_TRUE(waitUntil([](const AppState& app) {
      return app.properties().activeGenerations == 1;
    })) << received;

    switch (ending) {
      case Ending::devicePairedAgain:
        pair("stream-device");
        break;
      case Ending::daemonDied:
        standIn_->kill();
        break;
      case Ending::clientLeft:
        socket.close();
        EXPECT_TRUE(standIn_->waitFor({{"generations_cancelled", 1}}));
        break;
    }
    if (ending != Ending::clientLeft) {
      asio::read(socket, asio::dynamic_buffer(received), ec);
      const bool errorEvent = received.find("event: error\ndata: ") != std::string::npos;
      EXPECT_EQ(errorEvent, ending == Ending::daemonDied) << received;
      EXPECT_EQ(received.find("event: done"), std::string::npos);
    }
    EXPECT_TRUE(
        waitUntil([](const AppState& app) { return app.properties().activeGenerations == 0; }));
    if (ending == Ending::devicePairedAgain) {
      // Revoked in this server's life: cut off without any reply.
      EXPECT_EQ(call("GET", "/status", token).status, 0);
    }
  }
}

TEST_F(AIServiceTest, ConversationsAreLoggedOnlyWhileShown) {
  const std::string token = pair("log-device", "Vantaro");
  onMain([&] { app_->setShowConversations(true); });
  device(token).generate(
      device::makeGenerateRequest("<start_of_turn>user\nWhat time is it?<end_of_turn>", "plain:1b",
                                  std::nullopt, std::nullopt));
  const auto log = onMain([&] { return app_->properties().conversationLog; });
  ASSERT_EQ(log.size(), 1u);
  EXPECT_EQ(log[0].deviceName, "Vantaro");
  EXPECT_EQ(log[0].prompt, "What time is it?");
  EXPECT_EQ(log[0].response, "Hello there, friend.");
  EXPECT_TRUE(log[0].isComplete);
  onMain([&] { app_->setShowConversations(false); });
  EXPECT_TRUE(onMain([&] { return app_->properties().conversationLog.empty(); }));
  EXPECT_EQ(onMain([&] { return app_->properties().repliesToday; }), 1);

  // The pairing chimed, and the generation showed on the badge while it ran.
  const auto desktop = onMain([&] { return *desktop_; });
  EXPECT_EQ(desktop.soundsPlayed, 1);
  ASSERT_GE(desktop.badges.size(), 2u);
  EXPECT_EQ(desktop.badges[desktop.badges.size() - 2], std::optional<std::string>("1"));
  EXPECT_EQ(desktop.badges.back(), std::nullopt);
}

TEST_F(AIServiceTest, LaunchAppliesTheAvailabilityOptionsAndOpensThePanel) {
  const auto desktop = onMain([&] { return *desktop_; });
  EXPECT_EQ(desktop.panelOpens, 1);
  EXPECT_EQ(desktop.loginItemCalls, std::vector<bool>{false});
  EXPECT_FALSE(desktop.sleepHeld);
}

}  // namespace
}  // namespace orin::test
