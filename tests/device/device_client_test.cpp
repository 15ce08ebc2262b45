#include <deque>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <boost/asio/as_tuple.hpp>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/detached.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <boost/asio/write.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http/read.hpp>
#include <boost/beast/http/string_body.hpp>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "OrinLinkShared/AIRecords.h"
#include "OrinLinkShared/Pairing.h"

#include "DeviceClient.h"

namespace orin::device {
namespace {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
using asio::ip::tcp;
using Kind = DeviceError::Kind;

// A host stand-in on 127.0.0.1, port 0. Each connection reads one request, records it, writes the
// next scripted reply piece by piece (one write each) and closes.
class CannedHost {
 public:
  struct Reply {
    std::vector<std::string> pieces;
    // Every piece after the first waits for a release().
    bool gated = false;
    // Holds the connection open without a byte until the host goes away.
    bool silent = false;
  };
  struct Request {
    std::string method;
    std::string target;
    std::string authorization;
    std::string contentType;
    std::string body;
  };

  explicit CannedHost(std::vector<Reply> replies)
      : replies_(replies.begin(), replies.end()),
        acceptor_(context_, {asio::ip::address_v4::loopback(), 0}),
        gate_(context_) {
    port_ = acceptor_.local_endpoint().port();
    asio::co_spawn(context_, acceptLoop(), asio::detached);
    thread_ = std::thread([this] { context_.run(); });
  }
  CannedHost(const CannedHost&) = delete;
  CannedHost& operator=(const CannedHost&) = delete;
  ~CannedHost() {
    context_.stop();
    thread_.join();
  }

  std::uint16_t port() const { return port_; }
  std::vector<Request> requests() const {
    std::lock_guard lock(mutex_);
    return requests_;
  }
  void release() {
    asio::post(context_, [this] {
      ++releases_;
      gate_.cancel();
    });
  }

 private:
  asio::awaitable<void> acceptLoop() {
    while (true) {
      auto accepted = co_await acceptor_.async_accept(asio::as_tuple(asio::use_awaitable));
      if (std::get<0>(accepted)) co_return;
      asio::co_spawn(context_, serve(std::move(std::get<1>(accepted))), asio::detached);
    }
  }

  asio::awaitable<void> serve(tcp::socket socket) {
    const auto tuple = asio::as_tuple(asio::use_awaitable);
    beast::flat_buffer buffer;
    http::request<http::string_body> request;
    const auto read = co_await http::async_read(socket, buffer, request, tuple);
    if (std::get<0>(read)) co_return;
    Reply reply;
    {
      std::lock_guard lock(mutex_);
      requests_.push_back({std::string(request.method_string()), std::string(request.target()),
                           std::string(request[http::field::authorization]),
                           std::string(request[http::field::content_type]), request.body()});
      if (!replies_.empty()) {
        reply = std::move(replies_.front());
        replies_.pop_front();
      }
    }
    if (reply.silent) {
      held_.push_back(std::move(socket));
      co_return;
    }
    for (std::size_t i = 0; i < reply.pieces.size(); ++i) {
      while (reply.gated && i > 0 && releases_ == 0) {
        gate_.expires_at(asio::steady_timer::time_point::max());
        const auto waited = co_await gate_.async_wait(tuple);
        (void)waited;
      }
      if (reply.gated && i > 0) --releases_;
      const auto written = co_await asio::async_write(socket, asio::buffer(reply.pieces[i]), tuple);
      if (std::get<0>(written)) co_return;
    }
    boost::system::error_code ignored;
    socket.shutdown(tcp::socket::shutdown_send, ignored);
  }

  mutable std::mutex mutex_;
  std::deque<Reply> replies_;
  std::vector<Request> requests_;

  asio::io_context context_;
  tcp::acceptor acceptor_;
  asio::steady_timer gate_;
  int releases_ = 0;
  std::vector<tcp::socket> held_;
  std::uint16_t port_ = 0;
  std::thread thread_;
};

std::string httpReply(unsigned status, std::string_view contentType, std::string_view body) {
  return "HTTP/1.1 " + std::to_string(status) +
         " Whatever\r\nContent-Type: " + std::string(contentType) +
         "\r\nContent-Length: " + std::to_string(body.size()) + "\r\nConnection: close\r\n\r\n" +
         std::string(body);
}

std::string jsonReply(unsigned status, std::string_view body) {
  return httpReply(status, "application/json", body);
}

std::string errorBody(std::string code, std::string message) {
  return encodeJSON(OrinLinkErrorResponse::make(std::move(code), std::move(message)));
}

const std::string eventStreamHead =
    "HTTP/1.1 200 OK\r\nContent-Type: text/event-stream; charset=utf-8\r\n"
    "Cache-Control: no-cache\r\nConnection: close\r\n\r\n";

DeviceClient clientFor(std::uint16_t port,
                       std::chrono::milliseconds idleTimeout = std::chrono::seconds(10)) {
  return DeviceClient({"127.0.0.1", port, "token-1", idleTimeout});
}

std::string prefixFor(std::uint16_t port) {
  return "Cannot reach Orin Link at 127.0.0.1:" + std::to_string(port) + ": ";
}

struct Failure {
  Kind kind;
  std::string message;
  int exitCode;
};

template <class Call>
std::optional<Failure> failureOf(Call call) {
  try {
    call();
  } catch (const DeviceError& error) {
    return Failure{error.kind(), error.what(), error.exitCode()};
  }
  return std::nullopt;
}

const std::string notUnderstood = "Orin Link sent a reply this client does not understand.";
const std::string closedEarly = "The connection closed before the reply was complete";

TEST(DeviceClient, EachReplyFormBecomesItsTypedOutcome) {
  OrinLinkResponse failed;
  failed.status = OrinLinkStatus::failed;
  failed.error = OrinLinkError{"request_failed", "The pairing code did not match."};
  OrinLinkResponse failedWithoutError = failed;
  failedWithoutError.error.reset();

  struct Case {
    std::string name;
    std::vector<std::string> pieces;
    Kind kind;
    std::string message;  // "<port>" stands for the host's unreachable prefix
    int exitCode;
  };
  const std::vector<Case> cases{
      {"unauthorized",
       {jsonReply(401, errorBody("unauthorized", "Pair first."))},
       Kind::unauthorized,
       "This device is not paired with Orin Link (or its pairing was replaced). Pair again with "
       "the code shown on the host.",
       3},
      {"not found",
       {jsonReply(404, errorBody("not_found", "No Orin Link endpoint exists at /status."))},
       Kind::notFound,
       "No Orin Link endpoint exists at /status.",
       4},
      {"handler failed",
       {jsonReply(500, encodeJSON(failed))},
       Kind::requestFailed,
       "Orin Link could not complete the request: The pairing code did not match.",
       5},
      {"transport failed",
       {httpReply(500, "text/plain; charset=utf-8", "Broken pipe\n")},
       Kind::requestFailed,
       "Orin Link could not complete the request: Broken pipe",
       5},
      {"bad request",
       {jsonReply(400, errorBody("bad_request", "Orin Link could not parse the request."))},
       Kind::badRequest,
       "Orin Link could not parse the request.",
       6},
      {"too large",
       {jsonReply(413, errorBody("request_too_large", "Request body is too large."))},
       Kind::badRequest,
       "Request body is too large.",
       6},
      {"wrong record", {jsonReply(200, R"({"running":true})")}, Kind::badReply, notUnderstood, 8},
      {"not JSON", {jsonReply(200, "<html></html>")}, Kind::badReply, notUnderstood, 8},
      {"404 without an error body",
       {httpReply(404, "text/html", "<h1>nope</h1>")},
       Kind::badReply,
       notUnderstood,
       8},
      {"500 without an error",
       {jsonReply(500, encodeJSON(failedWithoutError))},
       Kind::badReply,
       notUnderstood,
       8},
      {"unexpected status", {jsonReply(302, "{}")}, Kind::badReply, notUnderstood, 8},
      {"not HTTP", {"SSH-2.0-OpenSSH_9.2\r\n\r\n"}, Kind::badReply, notUnderstood, 8},
      {"closed without a reply", {}, Kind::unreachable, "<port>" + closedEarly, 7},
      {"body cut short",
       {"HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\n{\"running\":"},
       Kind::unreachable,
       "<port>" + closedEarly,
       7},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    CannedHost host({{c.pieces}});
    const auto failure = failureOf([&] { clientFor(host.port()).status(); });
    ASSERT_TRUE(failure.has_value());
    std::string expected = c.message;
    if (expected.starts_with("<port>")) expected = prefixFor(host.port()) + expected.substr(6);
    EXPECT_EQ(failure->kind, c.kind);
    EXPECT_EQ(failure->message, expected);
    EXPECT_EQ(failure->exitCode, c.exitCode);
  }
}

TEST(DeviceClient, ErrorRepliesKeepTheirBodyForScripts) {
  const std::string body = errorBody("not_found", "No Orin Link endpoint exists at /models.");
  CannedHost host({{{jsonReply(404, body)}}});
  try {
    clientFor(host.port()).models();
    FAIL() << "a 404 must fail";
  } catch (const DeviceError& error) {
    EXPECT_EQ(error.replyBody(), body);
  }
}

TEST(DeviceClient, RefusedAndSilentHostsAreUnreachable) {
  std::uint16_t closedPort = 0;
  {
    asio::io_context context;
    tcp::acceptor acceptor(context, {asio::ip::address_v4::loopback(), 0});
    closedPort = acceptor.local_endpoint().port();
  }
  const auto refused = failureOf([&] { clientFor(closedPort).health(); });
  ASSERT_TRUE(refused.has_value());
  EXPECT_EQ(refused->kind, Kind::unreachable);
  EXPECT_EQ(refused->message, prefixFor(closedPort) + "Connection refused");
  EXPECT_EQ(refused->exitCode, 7);

  CannedHost silent({{{}, false, true}});
  const auto timedOut =
      failureOf([&] { clientFor(silent.port(), std::chrono::milliseconds(50)).health(); });
  ASSERT_TRUE(timedOut.has_value());
  EXPECT_EQ(timedOut->kind, Kind::unreachable);
  EXPECT_TRUE(timedOut->message.starts_with(prefixFor(silent.port()))) << timedOut->message;
  EXPECT_GT(timedOut->message.size(), prefixFor(silent.port()).size());
}

TEST(DeviceClient, GenerateSendsTheRequestWithAReferenceDateNumber) {
  OrinToolCall call;
  call.id = Uuid::random();
  call.name = "timer";
  call.arguments = {{"minutes", JSONValue(5.0)}};
  const OrinLinkGenerateRequest request =
      makeGenerateRequest("Set a timer", "llama3.2", 0.2, false);
  const OrinLinkResponse response{Uuid::random(),         request.id,  OrinLinkStatus::success,
                                  OrinLane::toolProposal, "Sure.",     call,
                                  std::nullopt,           std::nullopt};
  CannedHost host({{{jsonReply(200, encodeJSON(response))}}});

  const auto answer = clientFor(host.port()).generate(request);
  EXPECT_EQ(answer.value, response);

  const auto sent = host.requests();
  ASSERT_EQ(sent.size(), 1u);
  EXPECT_EQ(sent[0].method, "POST");
  EXPECT_EQ(sent[0].target, "/v1/generate");
  EXPECT_EQ(sent[0].authorization, "Bearer token-1");
  EXPECT_EQ(sent[0].contentType, "application/json");
  const auto body = nlohmann::json::parse(sent[0].body);
  ASSERT_TRUE(body.at("requestedAt").is_number()) << sent[0].body;
  EXPECT_NEAR(body.at("requestedAt").get<double>(), Date::now().secondsSinceReferenceDate, 60.0);
  EXPECT_EQ(decodeJSON<OrinLinkGenerateRequest>(sent[0].body), request);
}

TEST(DeviceClient, PairSendsThePairRequestWithoutAToken) {
  const PairRequest request{"123 456", "6F1D2C3B-0000-4000-8000-000000000001", "Bench"};
  CannedHost host({{{jsonReply(200, encodeJSON(PairResponse{request.deviceId, "secret"}))}}});
  DeviceClient client({"127.0.0.1", host.port(), std::nullopt, std::chrono::seconds(10)});

  EXPECT_EQ(client.pair(request).value.token, "secret");
  const auto sent = host.requests();
  ASSERT_EQ(sent.size(), 1u);
  EXPECT_EQ(sent[0].target, "/v1/pair");
  EXPECT_EQ(sent[0].authorization, "");
  EXPECT_EQ(decodeJSON<PairRequest>(sent[0].body), request);
}

TEST(DeviceClient, StreamsEndInDoneOrInTheirTypedFailure) {
  struct Case {
    std::string name;
    std::vector<std::string> pieces;
    std::vector<std::string> tokens;
    std::optional<Kind> kind;
    std::string message;
  };
  const std::vector<Case> cases{
      {"tokens then done",
       {eventStreamHead, "data: Hel", "lo\n\ndata: a\\nb\n", "\nevent: done\ndata: {}\n\n",
        "data: after the end\n\n"},
       {"Hello", "a\nb"},
       std::nullopt,
       ""},
      {"error event",
       {eventStreamHead, "data: x\n\n", "event: error\ndata: The model stopped.\n\n"},
       {"x"},
       Kind::streamFailed,
       "The model stopped."},
      {"no final event", {eventStreamHead, "data: x\n\n"}, {"x"}, Kind::unreachable, closedEarly},
      {"unauthorized",
       {jsonReply(401, errorBody("unauthorized", "Pair first."))},
       {},
       Kind::unauthorized,
       ""},
      {"JSON instead of events", {jsonReply(200, "{}")}, {}, Kind::badReply, notUnderstood},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    CannedHost host({{c.pieces}});
    std::vector<std::string> tokens;
    const auto failure = failureOf([&] {
      clientFor(host.port())
          .generateStream(makeGenerateRequest("hi", std::nullopt, std::nullopt, std::nullopt),
                          [&](std::string_view token) { tokens.emplace_back(token); });
    });
    EXPECT_EQ(tokens, c.tokens);
    EXPECT_EQ(failure.has_value(), c.kind.has_value());
    if (failure && c.kind) {
      EXPECT_EQ(failure->kind, *c.kind);
      if (!c.message.empty()) {
        EXPECT_TRUE(failure->message.ends_with(c.message)) << failure->message;
      }
    }
    EXPECT_EQ(host.requests().at(0).target, "/v1/generate/stream");
  }
}

TEST(DeviceClient, StreamDeliversEachTokenBeforeTheRestArrives) {
  // The host holds everything after the first token until the client has shown that token; a
  // client that waited for the whole body would time out instead.
  CannedHost host(
      {{{eventStreamHead + "data: first\n\n", "data: second\n\n", "event: done\ndata: {}\n\n"},
        true}});
  std::vector<std::string> tokens;
  clientFor(host.port())
      .generateStream(makeGenerateRequest("hi", std::nullopt, std::nullopt, std::nullopt),
                      [&](std::string_view token) {
                        tokens.emplace_back(token);
                        host.release();
                      });
  EXPECT_EQ(tokens, (std::vector<std::string>{"first", "second"}));
}

using Event = StreamEvent;
using EK = StreamEvent::Kind;

TEST(GenerationStreamDecoder, GivesTheSameEventsWhereverTheBytesAreSplit) {
  struct Case {
    std::string name;
    std::string bytes;
    std::vector<Event> events;
  };
  const std::vector<Case> cases{
      {"tokens and done",
       "data: Hello\n\ndata: wor\\nld\n\nevent: done\ndata: {}\n\n",
       {{EK::token, "Hello"}, {EK::token, "wor\nld"}, {EK::done, ""}}},
      {"error after a token, CR LF and a comment",
       "data: a\r\n\r\n: keep-alive\n\nevent: error\ndata: The model stopped.\n\n",
       {{EK::token, "a"}, {EK::error, "The model stopped."}}},
      {"only a line feed, an empty token, spacing",
       "data: \\n\n\ndata: \n\ndata:x\n\ndata:  two spaces\n\n",
       {{EK::token, "\n"}, {EK::token, ""}, {EK::token, "x"}, {EK::token, " two spaces"}}},
      {"joined data lines and an unknown event",
       "data: x\ndata: y\n\nevent: ping\ndata: z\n\nevent: error\ndata: bad\\nthing\n\n",
       {{EK::token, "x\ny"}, {EK::error, "bad\\nthing"}}},
      {"no blank line yet", "data: pending\n", {}},
  };
  for (const Case& c : cases) {
    for (std::size_t split = 0; split <= c.bytes.size(); ++split) {
      SCOPED_TRACE(c.name + ", split at " + std::to_string(split));
      GenerationStreamDecoder decoder;
      std::vector<Event> events = decoder.feed(std::string_view(c.bytes).substr(0, split));
      for (Event& e : decoder.feed(std::string_view(c.bytes).substr(split))) {
        events.push_back(std::move(e));
      }
      EXPECT_EQ(events, c.events);
    }
    SCOPED_TRACE(c.name + ", byte by byte");
    GenerationStreamDecoder decoder;
    std::vector<Event> events;
    for (char byte : c.bytes) {
      for (Event& e : decoder.feed(std::string_view(&byte, 1)))
        events.push_back(std::move(e));
    }
    EXPECT_EQ(events, c.events);
  }
}

}  // namespace
}  // namespace orin::device
