#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

#include "OrinLinkShared/AIRecords.h"

namespace orin {
namespace {

using Kind = DecodingError::Kind;

const Uuid kId = *Uuid::parse("e621e1f8-c36c-495a-93fc-0c247a3e6e5f");
const Uuid kOtherId = *Uuid::parse("00000000-0000-4000-8000-0000000000ab");

// Goldens name the two identifiers $id and $other so the expected bytes stay readable.
std::string withIds(std::string_view golden) {
  std::string text(golden);
  const auto replaceAll = [&text](std::string_view from, const std::string& to) {
    for (auto at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size())) {
      text.replace(at, from.size(), to);
    }
  };
  replaceAll("$other", kOtherId.string());
  replaceAll("$id", kId.string());
  return text;
}

template <class T>
void expectGolden(const char* name, const T& value, std::string_view golden) {
  SCOPED_TRACE(name);
  const std::string expected = withIds(golden);
  EXPECT_EQ(encodeJSON(value), expected);
  EXPECT_EQ(decodeJSON<T>(expected), value);
}

const OrinToolCall kCall{kId,
                         "timer",
                         {{"minutes", 5.0}, {"label", "tea"}, {"at", JSONValue::Null{}}},
                         "Set a 5-minute timer.",
                         0.85};
constexpr std::string_view kCallGolden =
    R"({"id":"$id","name":"timer","arguments":{"at":null,"label":"tea","minutes":5},)"
    R"("userFacingSummary":"Set a 5-minute timer.","confidence":0.85})";

const OrinToolResult kResult{kOtherId, "timer", OrinToolResultStatus::needsConfirmation,
                             "Timer set for 5 minutes.", "timer_id=42"};
constexpr std::string_view kResultGolden =
    R"({"callID":"$other","name":"timer","status":"needsConfirmation",)"
    R"("userVisibleSummary":"Timer set for 5 minutes.","modelContext":"timer_id=42"})";

const OrinLinkResponse kMinimalResponse{kId, std::nullopt, OrinLinkStatus::failed, OrinLane::chat,
                                        "",  std::nullopt, std::nullopt,           std::nullopt};
const OrinLinkGenerateRequest kMinimalRequest{kId, std::nullopt, "",     std::nullopt,
                                              1.0, std::nullopt, Date{0}};
const OrinLinkStatusPayload kMinimalStatus{true, 2,     false,        "",          38141,
                                           true, false, std::nullopt, std::nullopt};

TEST(RecordEncoding, GoldenBytesAndRoundTrip) {
  expectGolden("endpoint",
               OrinLinkEndpoint{kId, "Studio/Mac", "100.64.0.7", 9000,
                                OrinLinkConnectionKind::tailscale, true},
               R"({"id":"$id","displayName":"Studio\/Mac","host":"100.64.0.7","port":9000,)"
               R"("connectionKind":"tailscale","usesTLS":true})");
  expectGolden(
      "full request",
      OrinLinkGenerateRequest{kId, "c/1", "Hi", "llama3.2:3b", 0.7, false, Date{-790000000.25}},
      R"({"id":"$id","conversationId":"c\/1","prompt":"Hi","model":"llama3.2:3b",)"
      R"("temperature":0.7,"think":false,"requestedAt":-790000000.25})");
  expectGolden("minimal request", kMinimalRequest,
               R"({"id":"$id","prompt":"","temperature":1,"requestedAt":0})");
  expectGolden("error", OrinLinkError{"bad_request", "Expected a JSON body."},
               R"({"code":"bad_request","message":"Expected a JSON body."})");
  expectGolden("error response", OrinLinkErrorResponse::make("not_found", "No route for /v2"),
               R"({"error":{"code":"not_found","message":"No route for \/v2"}})");
  expectGolden("tool call", kCall, kCallGolden);
  expectGolden("tool result", kResult, kResultGolden);
  expectGolden("minimal response", kMinimalResponse,
               R"({"id":"$id","status":"failed","lane":"chat","assistantMessage":""})");
  expectGolden(
      "full response",
      OrinLinkResponse{kId, kOtherId, OrinLinkStatus::approvalRequired, OrinLane::toolProposal,
                       "I can do that.", kCall, kResult, OrinLinkError{"denied", "No."}},
      std::string(R"({"id":"$id","requestId":"$other","status":"approvalRequired",)"
                  R"("lane":"toolProposal","assistantMessage":"I can do that.",)"
                  R"("proposedToolCall":)") +
          std::string(kCallGolden) + R"(,"toolResult":)" + std::string(kResultGolden) +
          R"(,"error":{"code":"denied","message":"No."}})");
  expectGolden("health", OrinLinkHealth{"ok", "Orin Link", "0.1.0", "ollama 0.5.7", "llama3.2:3b"},
               R"({"status":"ok","app":"Orin Link","version":"0.1.0","runtime":"ollama 0.5.7",)"
               R"("activeModel":"llama3.2:3b"})");
  constexpr std::string_view statusGolden =
      R"({"running":true,"pairedDevices":2,"runtimeAvailable":false,"activeModel":"",)"
      R"("serverPort":38141,"localNetworkEnabled":true,"reliabilityModeEnabled":false)";
  expectGolden("minimal status", kMinimalStatus, std::string(statusGolden) + "}");
  OrinLinkStatusPayload fullStatus = kMinimalStatus;
  fullStatus.edition = "website";
  fullStatus.capabilities = std::vector<std::string>{"generate", "stream"};
  expectGolden(
      "full status", fullStatus,
      std::string(statusGolden) + R"(,"edition":"website","capabilities":["generate","stream"]})");
}

TEST(RecordDecoding, NullReadsAsAbsentAndUnknownKeysAreIgnored) {
  EXPECT_EQ(
      decodeJSON<OrinLinkResponse>(withIds(
          R"({"id":"$id","requestId":null,"status":"failed","lane":"chat",)"
          R"("assistantMessage":"","proposedToolCall":null,"toolResult":null,"error":null})")),
      kMinimalResponse);
  EXPECT_EQ(decodeJSON<OrinLinkGenerateRequest>(withIds(
                R"({"id":"$id","conversationId":null,"prompt":"","model":null,"temperature":1.0,)"
                R"("think":null,"requestedAt":0,"stream":true})")),
            kMinimalRequest);
  EXPECT_EQ(decodeJSON<OrinLinkStatusPayload>(
                R"({"running":true,"pairedDevices":2,"runtimeAvailable":false,"activeModel":"",)"
                R"("serverPort":38141,"localNetworkEnabled":true,"reliabilityModeEnabled":false,)"
                R"("edition":null,"capabilities":null})"),
            kMinimalStatus);
}

template <class T>
void decodeOnly(std::string_view text) {
  (void)decodeJSON<T>(text);
}

TEST(RecordDecoding, FailuresNameTheirKindAndPath) {
  struct Case {
    const char* name;
    void (*decode)(std::string_view);
    std::string_view text;
    Kind kind;
    std::string_view path;
  };
  const Case cases[] = {
      {"endpoint without usesTLS", decodeOnly<OrinLinkEndpoint>,
       R"({"id":"$id","displayName":"M","host":"h","port":1,"connectionKind":"manual"})",
       Kind::keyNotFound, "usesTLS"},
      {"port beyond 16 bits", decodeOnly<OrinLinkEndpoint>,
       R"({"id":"$id","displayName":"M","host":"h","port":65536,"connectionKind":"manual",)"
       R"("usesTLS":false})",
       Kind::dataCorrupted, "port"},
      {"id without hyphens", decodeOnly<OrinLinkGenerateRequest>,
       R"({"id":"E621E1F8C36C495A93FC0C247A3E6E5F","prompt":"","requestedAt":0})",
       Kind::dataCorrupted, "id"},
      {"requestedAt as ISO text", decodeOnly<OrinLinkGenerateRequest>,
       R"({"id":"$id","prompt":"","requestedAt":"2001-01-01T00:00:00Z"})", Kind::typeMismatch,
       "requestedAt"},
      {"requestedAt missing", decodeOnly<OrinLinkGenerateRequest>, R"({"id":"$id","prompt":""})",
       Kind::keyNotFound, "requestedAt"},
      {"think as a number", decodeOnly<OrinLinkGenerateRequest>,
       R"({"id":"$id","prompt":"","think":1,"requestedAt":0})", Kind::typeMismatch, "think"},
      {"status in the wrong case", decodeOnly<OrinLinkResponse>,
       R"({"id":"$id","status":"ApprovalRequired","lane":"chat","assistantMessage":""})",
       Kind::dataCorrupted, "status"},
      {"nested tool result status", decodeOnly<OrinLinkResponse>,
       R"({"id":"$id","status":"success","lane":"chat","assistantMessage":"","toolResult":)"
       R"({"callID":"$other","name":"t","status":"Denied","userVisibleSummary":"",)"
       R"("modelContext":""}})",
       Kind::dataCorrupted, "toolResult.status"},
      {"callID spelled callId", decodeOnly<OrinToolResult>,
       R"({"callId":"$other","name":"t","status":"denied","userVisibleSummary":"",)"
       R"("modelContext":""})",
       Kind::keyNotFound, "callID"},
      {"error body without message", decodeOnly<OrinLinkErrorResponse>, R"({"error":{"code":"x"}})",
       Kind::keyNotFound, "error.message"},
      {"capability that is not text", decodeOnly<OrinLinkStatusPayload>,
       R"({"running":true,"pairedDevices":0,"runtimeAvailable":true,"activeModel":"m",)"
       R"("serverPort":1,"localNetworkEnabled":true,"reliabilityModeEnabled":true,)"
       R"("capabilities":["a",1]})",
       Kind::typeMismatch, "capabilities[1]"},
      {"tool call name that is not text", decodeOnly<OrinToolCall>, R"({"name":42,"tool":"t"})",
       Kind::typeMismatch, "name"},
      {"tool call without name or tool", decodeOnly<OrinToolCall>, R"({"arguments":{}})",
       Kind::keyNotFound, "tool"},
      {"tool call with null name and tool", decodeOnly<OrinToolCall>,
       R"({"name":null,"tool":null})", Kind::valueNotFound, "tool"},
      {"not an object", decodeOnly<OrinLinkHealth>, "[]", Kind::typeMismatch, ""},
      {"not JSON", decodeOnly<OrinLinkHealth>, R"({"status":)", Kind::dataCorrupted, ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    try {
      c.decode(withIds(c.text));
      ADD_FAILURE() << "decoded";
    } catch (const DecodingError& error) {
      EXPECT_EQ(error.kind(), c.kind) << error.debugDescription();
      EXPECT_EQ(error.codingPath(), c.path);
    }
  }
}

TEST(ToolCallDecoding, IsForgivingAboutEverythingButTheName) {
  struct Case {
    std::string_view text;
    bool keepsId;
    std::string_view name;
    std::size_t argumentCount;
    std::string_view summary;
    double confidence;
  };
  const Case cases[] = {
      {R"({"tool":"timer","arguments":{"minutes":5}})", false, "timer", 1, "", 0},
      {R"({"name":"a","tool":"b"})", false, "a", 0, "", 0},
      {R"({"id":"not-a-uuid","name":"x"})", false, "x", 0, "", 0},
      {R"({"id":"e621e1f8-c36c-495a-93fc-0c247a3e6e5f","name":"x"})", true, "x", 0, "", 0},
      {R"({"id":42,"name":null,"tool":"t","arguments":[1],"userFacingSummary":false,)"
       R"("confidence":"high"})",
       false, "t", 0, "", 0},
      {R"({"id":"$id","name":"n","arguments":{"a":1,"b":[true]},"userFacingSummary":"S",)"
       R"("confidence":0.5})",
       true, "n", 2, "S", 0.5},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text);
    const std::string text = withIds(c.text);
    const auto call = decodeJSON<OrinToolCall>(text);
    if (c.keepsId) {
      EXPECT_EQ(call.id, kId);
    } else {
      EXPECT_NE(call.id, kId);
      EXPECT_NE(decodeJSON<OrinToolCall>(text).id, call.id) << "a fresh id each time";
    }
    EXPECT_EQ(call.name, c.name);
    EXPECT_EQ(call.arguments.size(), c.argumentCount);
    EXPECT_EQ(call.userFacingSummary, c.summary);
    EXPECT_EQ(call.confidence, c.confidence);
  }
}

TEST(Endpoint, BaseURL) {
  struct Case {
    std::string_view host;
    std::uint16_t port;
    bool usesTLS;
    std::optional<std::string> expected;
  };
  const Case cases[] = {
      {"100.64.0.7", 9000, true, "https://100.64.0.7:9000"},
      {"100.64.0.7", 9000, false, "http://100.64.0.7:9000"},
      {"studio.local", 38141, false, "http://studio.local:38141"},
      {"fd7a:115c:a1e0::1", 38141, false, "http://[fd7a:115c:a1e0::1]:38141"},
      {"two words", 80, false, std::nullopt},
      {"host/path", 80, false, std::nullopt},
      {"", 80, false, std::nullopt},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.host);
    const OrinLinkEndpoint endpoint{
        kId, "Mac", std::string(c.host), c.port, OrinLinkConnectionKind::manual, c.usesTLS};
    EXPECT_EQ(endpoint.baseURL(), c.expected);
  }
}

}  // namespace
}  // namespace orin
