#include <map>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "OrinLinkShared/AIRecords.h"
#include "OrinLinkShared/Pairing.h"

#include "DeviceClient.h"
#include "tests/shared/EverySplit.h"
#include "tests/support/ScriptedHTTPServer.h"

namespace orin::device {
namespace {

using Kind = DeviceError::Kind;

using Host = testing_support::ScriptedHTTPServer;

// The pieces are the bytes on the wire, one write each.
Host::Reply wire(std::vector<std::string> pieces, bool gated = false) {
  return {200, std::move(pieces), gated, true};
}

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
  std::string replyBody;
};

template <class Call>
std::optional<Failure> failureOf(Call call) {
  try {
    call();
  } catch (const DeviceError& error) {
    return Failure{error.kind(), error.what(), error.exitCode(), error.replyBody()};
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
  };
  // The command line's exit status for each kind.
  const std::map<Kind, int> exitCodes{{Kind::unauthorized, 3},  {Kind::notFound, 4},
                                      {Kind::requestFailed, 5}, {Kind::badRequest, 6},
                                      {Kind::unreachable, 7},   {Kind::badReply, 8}};
  const std::vector<Case> cases{
      {"unauthorized",
       {jsonReply(401, errorBody("unauthorized", "Pair first."))},
       Kind::unauthorized,
       "This device is not paired with Orin Link (or its pairing was replaced). Pair again with "
       "the code shown on the host."},
      {"not found",
       {jsonReply(404, errorBody("not_found", "No Orin Link endpoint exists at /status."))},
       Kind::notFound,
       "No Orin Link endpoint exists at /status."},
      {"handler failed",
       {jsonReply(500, encodeJSON(failed))},
       Kind::requestFailed,
       "Orin Link could not complete the request: The pairing code did not match."},
      {"transport failed",
       {httpReply(500, "text/plain; charset=utf-8", "Broken pipe\n")},
       Kind::requestFailed,
       "Orin Link could not complete the request: Broken pipe"},
      {"bad request",
       {jsonReply(400, errorBody("bad_request", "Orin Link could not parse the request."))},
       Kind::badRequest,
       "Orin Link could not parse the request."},
      {"too large",
       {jsonReply(413, errorBody("request_too_large", "Request body is too large."))},
       Kind::badRequest,
       "Request body is too large."},
      {"not JSON", {jsonReply(200, "<html></html>")}, Kind::badReply, notUnderstood},
      {"404 without an error body",
       {httpReply(404, "text/html", "<h1>nope</h1>")},
       Kind::badReply,
       notUnderstood},
      {"500 without an error",
       {jsonReply(500, encodeJSON(failedWithoutError))},
       Kind::badReply,
       notUnderstood},
      {"unexpected status", {jsonReply(302, "{}")}, Kind::badReply, notUnderstood},
      {"not HTTP", {"SSH-2.0-OpenSSH_9.2\r\n\r\n"}, Kind::badReply, notUnderstood},
      {"closed without a reply", {}, Kind::unreachable, "<port>" + closedEarly},
      {"body cut short",
       {"HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\n{\"running\":"},
       Kind::unreachable,
       "<port>" + closedEarly},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Host host({wire(c.pieces)});
    const auto failure = failureOf([&] { clientFor(host.port()).status(); });
    ASSERT_TRUE(failure.has_value());
    std::string expected = c.message;
    if (expected.starts_with("<port>")) expected = prefixFor(host.port()) + expected.substr(6);
    EXPECT_EQ(failure->kind, c.kind);
    EXPECT_EQ(failure->message, expected);
    EXPECT_EQ(failure->exitCode, exitCodes.at(c.kind));
  }
}

TEST(DeviceClient, ErrorRepliesKeepTheirBodyForScripts) {
  const std::string body = errorBody("not_found", "No Orin Link endpoint exists at /models.");
  Host host({wire({jsonReply(404, body)})});
  EXPECT_EQ(failureOf([&] { clientFor(host.port()).models(); }).value().replyBody, body);
}

TEST(DeviceClient, RefusedAndSilentHostsAreUnreachable) {
  const std::uint16_t closedPort = Host().port();
  const auto refused = failureOf([&] { clientFor(closedPort).health(); });
  ASSERT_TRUE(refused.has_value());
  EXPECT_EQ(refused->kind, Kind::unreachable);
  EXPECT_EQ(refused->message, prefixFor(closedPort) + "Connection refused");
  EXPECT_EQ(refused->exitCode, 7);

  Host silent({Host::Reply{0, {}}});
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
  Host host({wire({jsonReply(200, encodeJSON(response))})});

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
  Host host({wire({jsonReply(200, encodeJSON(PairResponse{request.deviceId, "secret"}))})});
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
    Host host({wire(c.pieces)});
    std::vector<std::string> tokens;
    const auto failure = failureOf([&] {
      clientFor(host.port())
          .generateStream(makeGenerateRequest("hi", std::nullopt, std::nullopt, std::nullopt),
                          [&](std::string_view token) { tokens.emplace_back(token); });
    });
    EXPECT_EQ(tokens, c.tokens);
    EXPECT_EQ(failure ? std::optional(failure->kind) : std::nullopt, c.kind);
    if (failure && !c.message.empty()) {
      EXPECT_TRUE(failure->message.ends_with(c.message)) << failure->message;
    }
    EXPECT_EQ(host.requests().at(0).target, "/v1/generate/stream");
  }
}

TEST(DeviceClient, StreamDeliversEachTokenBeforeTheRestArrives) {
  // The host holds everything after the first token until the client has shown that token; a
  // client that waited for the whole body would time out instead.
  Host host(
      {wire({eventStreamHead + "data: first\n\n", "data: second\n\n", "event: done\ndata: {}\n\n"},
            true)});
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
    for (const auto& pieces : test::everySplit(std::string_view(c.bytes))) {
      SCOPED_TRACE(testing::Message()
                   << c.name << ", " << pieces[0].size() << " of " << pieces.size());
      GenerationStreamDecoder decoder;
      std::vector<Event> events;
      for (const std::string_view piece : pieces) {
        for (Event& e : decoder.feed(piece))
          events.push_back(std::move(e));
      }
      EXPECT_EQ(events, c.events);
    }
  }
}

}  // namespace
}  // namespace orin::device
