#include <algorithm>
#include <chrono>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/core/tcp_stream.hpp>
#include <boost/beast/http.hpp>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "tests/support/StandInProcess.h"

namespace {

namespace asio = boost::asio;
namespace http = boost::beast::http;
using asio::ip::tcp;
using Json = nlohmann::ordered_json;

// Generous: only a broken stand-in ever gets near it.
constexpr auto kBound = std::chrono::seconds(20);

const char* const kConfig = R"({
  "models": [
    {"name": "plain:latest", "reply": "Hello there, friend!"},
    {"name": "thinker:8b", "thinking": "supported", "thinking_reply": "Let me see.", "reply": "Sure."},
    {"name": "refuser:1b", "thinking": "refuses-key", "reply": "Fine."},
    {"name": "slow:1b", "token_rate": 20, "reply": {"piece": " tok", "count": 10000}},
    {"name": "broken:1b", "fault": {"status": 503, "error": "overloaded"}},
    {"name": "fresh:1b", "installed": false, "size": 1010, "pull": {"step": 250, "layers": [
      {"digest": "sha256:aaaaaaaaaaaa0000000000000000000000000000000000000000000000000000", "total": 1000},
      {"digest": "sha256:bbbbbbbbbbbb0000000000000000000000000000000000000000000000000000", "total": 10}]}},
    {"name": "paused:1b", "installed": false, "pull": {"step": 50, "step_delay_ms": 20, "layers": [
      {"digest": "sha256:cccccccccccc0000000000000000000000000000000000000000000000000000", "total": 1000}]}},
    {"name": "flaky:1b", "installed": false, "pull": {"step": 100, "fail_after_steps": 2,
      "error": "connection reset", "layers": [
      {"digest": "sha256:dddddddddddd0000000000000000000000000000000000000000000000000000", "total": 1000}]}}
  ]
})";

// An answer whose body holds one JSON value, or one a line.
struct Reply : http::response<http::string_body> {
  Json object() const { return Json::parse(body()); }

  std::vector<Json> lines() const {
    std::vector<Json> result;
    for (std::size_t start = 0, end; (end = body().find('\n', start)) != std::string::npos;
         start = end + 1) {
      if (end > start) result.push_back(Json::parse(body().substr(start, end - start)));
    }
    return result;
  }
};

// One keep-alive connection; every read is bounded so a faulty server fails, not hangs.
class Connection {
 public:
  explicit Connection(std::uint16_t port) : port_(port), stream_(io_) {
    stream_.connect(tcp::endpoint{asio::ip::address_v4::loopback(), port});
  }

  void send(http::verb verb, const std::string& target, const Json& body = nullptr) {
    http::request<http::string_body> request{verb, target, 11};
    request.set(http::field::host, "127.0.0.1:" + std::to_string(port_));
    request.set(http::field::content_type, "application/json");
    if (!body.is_null()) request.body() = body.dump();
    request.prepare_payload();
    parser_.emplace();
    parser_->body_limit(boost::none);
    http::write(stream_, request);
  }

  // Reads the answer until `wanted` lines have arrived, or to its end when 0.
  Reply read(std::size_t wanted = 0) {
    const auto enough = [&] {
      return wanted > 0 &&
             std::ranges::count(parser_->get().body(), '\n') >= static_cast<std::ptrdiff_t>(wanted);
    };
    boost::system::error_code ec;
    const auto done = [&ec](boost::system::error_code e, std::size_t) { ec = e; };
    while (!ec && !parser_->is_done() && !enough()) {
      stream_.expires_after(kBound);
      http::async_read_some(stream_, buffer_, *parser_, done);
      io_.restart();
      io_.run();
    }
    if (ec == boost::beast::error::timeout) ADD_FAILURE() << "no answer within the bound";
    EXPECT_TRUE(parser_->is_header_done()) << "no answer";
    return {parser_->get()};
  }

  Reply exchange(http::verb verb, const std::string& target, const Json& body = nullptr) {
    send(verb, target, body);
    return read();
  }

  void close() { stream_.close(); }

 private:
  std::uint16_t port_;
  asio::io_context io_;
  boost::beast::tcp_stream stream_;
  boost::beast::flat_buffer buffer_;
  std::optional<http::response_parser<http::string_body>> parser_;
};

Json generateBody(const std::string& model, bool stream, std::optional<bool> think = false) {
  Json body{{"model", model}, {"prompt", "Say hello"}, {"stream", stream}};
  body["options"] = {{"temperature", 0.7}};
  if (think) body["think"] = *think;
  body["keep_alive"] = "2h";
  return body;
}

// A pull line in short: "status completed/total" or "error: text".
std::string describe(const Json& line) {
  if (line.contains("error")) return "error: " + line["error"].get<std::string>();
  std::string text = line["status"].get<std::string>();
  if (line.contains("total")) {
    text += " " + std::to_string(line.value("completed", 0)) + "/" +
            std::to_string(line["total"].get<int>());
  }
  return text;
}

class StandInTest : public testing::Test {
 protected:
  Reply call(http::verb verb, const std::string& target, const Json& body = nullptr) {
    return Connection(standIn_.port()).exchange(verb, target, body);
  }

  orin::testing_support::StandInProcess standIn_ =
      orin::testing_support::StandInProcess::withConfig(nlohmann::json::parse(kConfig));
};

TEST_F(StandInTest, TagsListInstalledModelsWithTheDaemonsKeys) {
  Reply reply = call(http::verb::get, "/api/tags");
  ASSERT_EQ(reply.result_int(), 200u);
  EXPECT_EQ(reply[http::field::content_type], "application/json; charset=utf-8");
  std::vector<std::string> names;
  const Json tags = reply.object();
  for (const Json& model : tags.at("models")) {
    names.push_back(model["name"]);
    for (const char* key : {"name", "model", "modified_at", "size", "digest", "details"}) {
      EXPECT_TRUE(model.contains(key)) << key;
    }
    EXPECT_EQ(model["model"], model["name"]);
    EXPECT_EQ(model["digest"].get<std::string>().size(), 64u);
    for (const char* key :
         {"parent_model", "format", "family", "families", "parameter_size", "quantization_level"}) {
      EXPECT_TRUE(model["details"].contains(key)) << key;
    }
  }
  EXPECT_EQ(names, (std::vector<std::string>{"plain:latest", "thinker:8b", "refuser:1b", "slow:1b",
                                             "broken:1b"}));
}

TEST_F(StandInTest, GenerateRefusesLikeTheDaemon) {
  struct Case {
    const char* what;
    Json body;
    unsigned status;
    std::string error;
  };
  const Case cases[] = {
      {"unknown model", generateBody("nope", false), 404,
       "model \"nope\" not found, try pulling it first"},
      {"model not pulled yet", generateBody("fresh:1b", true), 404,
       "model \"fresh:1b\" not found, try pulling it first"},
      {"thinking asked of a model without it", generateBody("plain", false, true), 400,
       "\"plain\" does not support thinking"},
      {"think false to a model refusing the key", generateBody("refuser:1b", true, false), 400,
       "\"refuser:1b\" does not support thinking"},
      {"think true to a model refusing the key", generateBody("refuser:1b", false, true), 400,
       "\"refuser:1b\" does not support thinking"},
      {"status fault", generateBody("broken:1b", true), 503, "overloaded"},
      {"no model", {{"prompt", "hi"}}, 400, "model is required"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    Reply reply = call(http::verb::post, "/api/generate", c.body);
    EXPECT_EQ(reply.result_int(), c.status);
    EXPECT_EQ(reply.object(), Json({{"error", c.error}}));
  }
  EXPECT_EQ(standIn_.stats()["generations_started"], 0);
}

TEST_F(StandInTest, GenerateAnswersWholeOrStreamedOnOneConnection) {
  struct Case {
    const char* what;
    Json body;
    std::string response;
    std::string thinking;
    std::string doneReason;
  };
  Json load = generateBody("plain:latest", false, std::nullopt);
  load["prompt"] = "";
  const Case cases[] = {
      {"whole", generateBody("plain", false), "Hello there, friend!", "", "stop"},
      {"streamed", generateBody("plain", true), "Hello there, friend!", "", "stop"},
      {"no think key to a model refusing it", generateBody("refuser:1b", true, std::nullopt),
       "Fine.", "", "stop"},
      {"thinking streamed", generateBody("thinker:8b", true, true), "Sure.", "Let me see.", "stop"},
      {"thinking whole", generateBody("thinker:8b", false, true), "Sure.", "Let me see.", "stop"},
      {"load request", load, "", "", "load"},
  };
  Connection connection(standIn_.port());
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    Reply reply = connection.exchange(http::verb::post, "/api/generate", c.body);
    ASSERT_EQ(reply.result_int(), 200u) << reply.body();
    const bool streamed = c.body["stream"] && c.doneReason != "load";
    EXPECT_EQ(reply.chunked(), streamed);
    EXPECT_EQ(reply[http::field::content_type],
              streamed ? "application/x-ndjson" : "application/json; charset=utf-8");
    std::vector<Json> lines = streamed ? reply.lines() : std::vector<Json>{reply.object()};
    ASSERT_FALSE(lines.empty());
    std::string response;
    std::string thinking;
    for (const Json& line : lines) {
      EXPECT_EQ(line["model"], c.body["model"]);
      EXPECT_TRUE(line["created_at"].is_string());
      EXPECT_EQ(line["done"], &line == &lines.back());
      response += line["response"].get<std::string>();
      thinking += line.value("thinking", "");
    }
    EXPECT_EQ(response, c.response);
    EXPECT_EQ(thinking, c.thinking);
    const Json& last = lines.back();
    EXPECT_EQ(last["done_reason"], c.doneReason);
    if (streamed) {
      EXPECT_EQ(last["response"], "");
    }
    if (c.doneReason == "stop") {
      for (const char* key : {"context", "total_duration", "load_duration", "prompt_eval_count",
                              "prompt_eval_duration", "eval_count", "eval_duration"}) {
        EXPECT_TRUE(last.contains(key)) << key;
      }
      EXPECT_TRUE(last["context"].is_array());
    }
  }
  ASSERT_TRUE(standIn_.waitFor({{"generations_completed", 5}}));
  EXPECT_EQ(standIn_.stats()["generations_started"], 5);
}

TEST_F(StandInTest, ClientDisconnectStopsTheGeneration) {
  // 10,000 tokens at 20 per second: only the disconnect can end these in time.
  int cancelled = 0;
  for (const bool stream : {true, false}) {
    SCOPED_TRACE(stream ? "streamed" : "whole");
    Connection connection(standIn_.port());
    connection.send(http::verb::post, "/api/generate", generateBody("slow:1b", stream));
    ASSERT_TRUE(standIn_.waitFor({{"active_generations", 1}}));
    if (stream) {
      EXPECT_GE(connection.read(2).lines().size(), 2u);
    }
    connection.close();
    ASSERT_TRUE(
        standIn_.waitFor({{"generations_cancelled", ++cancelled}, {"active_generations", 0}}));
    EXPECT_EQ(standIn_.stats()["generations_completed"], 0);
  }
}

TEST_F(StandInTest, PullStreamsProgressLikeTheDaemon) {
  struct Case {
    const char* what;
    Json body;
    unsigned status;
    std::vector<std::string> lines;
  };
  const Case cases[] = {
      {"unknown model",
       {{"model", "nope"}},
       200,
       {"pulling manifest", "error: pull model manifest: file does not exist"}},
      {"unknown model, whole",
       {{"model", "nope"}, {"stream", false}},
       500,
       {"error: pull model manifest: file does not exist"}},
      {"failing download",
       {{"model", "flaky:1b"}, {"stream", true}},
       200,
       {"pulling manifest", "pulling dddddddddddd 0/1000", "pulling dddddddddddd 100/1000",
        "pulling dddddddddddd 200/1000", "error: connection reset"}},
      {"download",
       {{"model", "fresh:1b"}, {"stream", true}},
       200,
       {"pulling manifest", "pulling aaaaaaaaaaaa 0/1000", "pulling aaaaaaaaaaaa 250/1000",
        "pulling aaaaaaaaaaaa 500/1000", "pulling aaaaaaaaaaaa 750/1000",
        "pulling aaaaaaaaaaaa 1000/1000", "pulling bbbbbbbbbbbb 0/10", "pulling bbbbbbbbbbbb 10/10",
        "verifying sha256 digest", "writing manifest", "success"}},
      {"installed model, whole, by the old key",
       {{"name", "fresh:1b"}, {"stream", false}},
       200,
       {"success"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    Reply reply = call(http::verb::post, "/api/pull", c.body);
    EXPECT_EQ(reply.result_int(), c.status);
    const bool streamed = c.body.value("stream", true);
    std::vector<std::string> lines;
    for (const Json& line : streamed ? reply.lines() : std::vector<Json>{reply.object()}) {
      lines.push_back(describe(line));
    }
    EXPECT_EQ(lines, c.lines);
  }
  EXPECT_EQ(call(http::verb::get, "/api/tags").object()["models"].back()["name"], "fresh:1b");
  EXPECT_EQ(call(http::verb::post, "/api/generate", generateBody("fresh:1b", false)).result_int(),
            200u);
  EXPECT_EQ(standIn_.stats()["pull_requests"], 5);
}

TEST_F(StandInTest, InterruptedPullResumesWhereTheLayerGotTo) {
  const Json body{{"model", "paused:1b"}, {"stream", true}};
  Connection first(standIn_.port());
  first.send(http::verb::post, "/api/pull", body);
  const std::vector<Json> before = first.read(4).lines();
  ASSERT_GE(before.size(), 4u);
  const int reached = before[3]["completed"];
  EXPECT_GT(reached, 0);
  first.close();
  ASSERT_TRUE(standIn_.waitFor({{"active_pulls", 0}, {"pull_requests", 1}}));

  Reply again = call(http::verb::post, "/api/pull", body);
  const std::vector<Json> after = again.lines();
  ASSERT_GE(after.size(), 2u);
  EXPECT_GE(after[1].value("completed", 0), reached);
  EXPECT_LT(after[1].value("completed", 0), 1000);
  int previous = 0;
  for (std::size_t i = 1; i + 3 < after.size(); ++i) {
    EXPECT_GT(after[i]["completed"].get<int>(), previous);
    previous = after[i]["completed"];
  }
  EXPECT_EQ(previous, 1000);
  EXPECT_EQ(after.back()["status"], "success");
}

TEST(StandInStart, RefusesANonLoopbackHost) {
  EXPECT_THROW(orin::testing_support::StandInProcess({"--host", "0.0.0.0"}), std::runtime_error);
}

}  // namespace
