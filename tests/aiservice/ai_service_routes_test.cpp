#include <boost/asio/co_spawn.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/use_future.hpp>

#include "OrinLink/aiservice/AIService.h"

#include "tests/aiservice/AIServiceFixture.h"
#include "tests/support/FakeAIServiceHost.h"

namespace orin::test {
namespace {

// The service on this thread's loop over a fake application, the stand-in as its daemon.
class AIServiceRoutesTest : public testing::Test {
 protected:
  static void SetUpTestSuite() { standIn_.emplace(StandInProcess::withConfig(standInConfig())); }
  static void TearDownTestSuite() { standIn_.reset(); }

  // A streamed reply comes back as its chunks, each followed by "|", then "error: " and the
  // description at a failed end. `atOnce` asks the server loop's handler instead of the routes.
  testing_support::HTTPReply route(const std::string& method, const std::string& target,
                                   bool paired, const std::string& body = {}, bool atOnce = false) {
    HTTPRequest request{method, target, {}, body};
    if (paired) request.headers["authorization"] = "Bearer paired";
    std::optional<HTTPImmediateAnswer> answer;
    if (atOnce) {
      service_->republish();
      answer = service_->immediateHandler()(request);
      if (!answer) return {0, "not at once"};
    }
    auto reply = asio::co_spawn(
        io_,
        [this, request, &answer]() mutable -> asio::awaitable<testing_support::HTTPReply> {
          HTTPHandlerResult result{HTTPResponse{}};
          if (answer) {
            result = HTTPHandlerResult::eventStream(std::get<TextChunkStream>(std::move(*answer)));
          } else {
            auto routing = service_->route(std::move(request));
            result = co_await std::move(routing);
          }
          if (auto* response = std::get_if<HTTPResponse>(&result.value)) {
            co_return testing_support::HTTPReply{response->statusCode, response->body};
          }
          testing_support::HTTPReply streamed{200, ""};
          auto& chunks = std::get<TextChunkStream>(result.value);
          try {
            while (auto chunk = co_await chunks.next(asio::use_awaitable))
              streamed.body += *chunk + "|";
          } catch (const std::exception& error) {
            streamed.body += std::string("error: ") + error.what();
          }
          co_return streamed;
        },
        asio::use_future);
    io_.restart();
    io_.run();
    return reply.get();
  }

  static inline std::optional<StandInProcess> standIn_;
  asio::io_context io_;
  FakeAIServiceHost host_;
  std::shared_ptr<AIService> service_ =
      AIService::make(host_, io_.get_executor(), io_.get_executor());
};

TEST_F(AIServiceRoutesTest, EveryRouteAnswersInItsOwnForm) {
  host_.daemonURL = standIn_->baseURL();
  const std::string unauthorized =
      R"({"error":{"code":"unauthorized","message":"Pair this device with Orin Link before calling this endpoint."}})";
  struct Case {
    std::string method;
    std::string target;
    bool paired;
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
      {"get", "/health", true, "", 404, "", R"(No Orin Link endpoint exists at \/health.)"},
      {"GET", "/nowhere?x=1", true, "", 404,
       R"({"error":{"code":"not_found","message":"No Orin Link endpoint exists at \/nowhere?x=1."}})",
       ""},
      {"GET", "/v1/generate", true, "", 404, "", "No Orin Link endpoint exists at"},
      {"GET", "/status?refresh=1", true, "", 200,
       R"({"running":true,"pairedDevices":1,"runtimeAvailable":true,"activeModel":"plain:1b","serverPort":38141,"localNetworkEnabled":true,"reliabilityModeEnabled":false,"edition":"website","capabilities":["textAI","displayMirroring","portal","virtualUltrawide"]})",
       ""},
      {"GET", "/models", true, "", 200, "", R"({"models":["plain:1b","lines:1b","tool:1b")"},
      {"POST", "/v1/pair", false, R"({"pairingCode":"000 000","deviceId":"d","displayName":"x"})",
       500, "", R"("error":{"code":"request_failed","message":"The pairing code did not match."})"},
      {"POST", "/v1/pair", false, R"({"pairingCode":"123 456","deviceId":"d","displayName":"x"})",
       200, R"({"deviceId":"d","token":"new-token"})", ""},
      {"POST", "/v1/generate", true,
       R"({"id":"6F9619FF-8B86-D011-B42D-00C04FC964FF","prompt":"hi","requestedAt":"2026-01-01T00:00:00Z"})",
       500, "",
       R"("status":"failed","lane":"chat","assistantMessage":"","error":{"code":"request_failed")"},
      {"POST", "/v1/generate", true, generateBody("tool:1b"), 200, "",
       R"("status":"success","lane":"toolProposal","assistantMessage":"Sure.","proposedToolCall":)"},
      {"POST", "/v1/generate/stream", true, "{}", 500, "", R"("code":"request_failed")"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.method + " " + c.target);
    const auto reply = route(c.method, c.target, c.paired, c.body);
    EXPECT_EQ(reply.status, c.status);
    if (!c.expectedBody.empty()) {
      EXPECT_EQ(reply.body, c.expectedBody);
    }
    if (!c.expectedText.empty()) {
      EXPECT_NE(reply.body.find(c.expectedText), std::string::npos) << reply.body;
    }
  }
  EXPECT_EQ(host_.warmUps, 1);
}

// The statistics and the log hear of a generation in this order, whole or streamed, routed or
// started on the server's loop, and also when no daemon answers (no model named).
TEST_F(AIServiceRoutesTest, EveryGenerationIsCountedInAndOut) {
  struct Case {
    std::string target, model, reply, journal, conversation;
    bool atOnce = false;
  };
  const Case cases[] = {
      {"/v1/generate", "plain:1b", R"("assistantMessage":"Hello there, friend.")",
       "requested plain:1b; started Phone; ended 5; entry Phone: hi; complete",
       "Hello there, friend."},
      {"/v1/generate", "", R"("code":"request_failed")", "requested -; started Phone; ended 0", ""},
      {"/v1/generate/stream", "lines:1b", "one\ntwo| three\r\n|",
       "requested lines:1b; started Phone; entry Phone: hi; complete; ended 2",
       "one\ntwo three\r\n"},
      {"/v1/generate/stream", "",
       "error: ", "requested -; started Phone; entry Phone: hi; complete; ended 0", ""},
      {"/v1/generate/stream", "lines:1b", "one\ntwo| three\r\n|",
       "requested lines:1b; started Phone; entry Phone: hi; complete; ended 2",
       "one\ntwo three\r\n", true},
      {"/v1/generate/stream", "",
       "error: ", "requested -; started Phone; entry Phone: hi; complete; ended 0", "", true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.target + " " + c.model);
    host_.journal.clear();
    host_.conversation.clear();
    host_.daemonURL = c.model.empty() ? "http://127.0.0.1:9" : standIn_->baseURL();
    const auto reply = route("POST", c.target, true, generateBody(c.model), c.atOnce);
    EXPECT_NE(reply.body.find(c.reply), std::string::npos) << reply.body;
    EXPECT_EQ(host_.journal, c.journal);
    EXPECT_EQ(host_.conversation, c.conversation);
  }
}

// The device asked nothing about thinking, so the first attempt says "think": false; the model
// refuses any "think" key, and exactly one retry goes out without it.
TEST_F(AIServiceRoutesTest, AModelThatRefusesThinkingIsAskedOnceMoreWithoutIt) {
  host_.daemonURL = standIn_->baseURL();
  const std::string body = generateBody("refuser:1b");
  for (const std::string target : {"/v1/generate", "/v1/generate/stream"}) {
    SCOPED_TRACE(target);
    testing_support::httpExchange(standIn_->port(), "POST", "/standin/reset");
    EXPECT_NE(route("POST", target, true, body).body.find("thoughts."), std::string::npos);
    const Json requests = standIn_->stats()["requests"];
    ASSERT_EQ(requests.size(), 2u);
    EXPECT_EQ(requests[0]["think"], false);
    EXPECT_FALSE(requests[1].contains("think"));
  }
}

// /health is answered on the server's thread; a warm-up is asked of the main loop only while
// the last refusal's spacing has run out.
TEST_F(AIServiceRoutesTest, HealthOffTheMainLoopAsksForWarmUpsOnlyWhenTheyWouldBeHeard) {
  const auto health = service_->immediateHandler();
  EXPECT_FALSE(health(HTTPRequest{"GET", "/status", {}, ""}).has_value());
  // An event stream starts there only for a paired device whose request decodes.
  EXPECT_EQ(route("POST", "/v1/generate/stream", false, generateBody(""), true).body,
            "not at once");
  EXPECT_EQ(route("POST", "/v1/generate/stream", true, "{}", true).body, "not at once");
  host_.warmRefusal = std::chrono::hours(1);
  const auto healthReply = [&] {
    const auto reply = health(HTTPRequest{"GET", "/health?x", {}, ""});
    return reply ? std::get<std::string>(*reply) : "none";
  };
  for (int i = 0; i < 3; ++i) {
    EXPECT_NE(healthReply().find(R"("activeModel":"plain:1b")"), std::string::npos);
    io_.restart();
    io_.run();
  }
  EXPECT_EQ(host_.warmUps, 1);
  host_.activeModel = "other:1b";
  service_->republish();
  EXPECT_NE(healthReply().find("other:1b"), std::string::npos);
}

}  // namespace
}  // namespace orin::test
