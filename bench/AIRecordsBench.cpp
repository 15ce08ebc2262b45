// JSON coding of the two records on every generation round trip, and the identifier each reply
// gets.
#include <cstdint>
#include <string>
#include <string_view>

#include <benchmark/benchmark.h>

#include "OrinLinkShared/AIRecords.h"

#include "AllocationCounter.h"

namespace {

using orin::JSONValue;
using orin::OrinLinkGenerateRequest;
using orin::OrinLinkResponse;

orin::Uuid uuid(std::string_view text) {
  return orin::Uuid::parse(text).value();
}

template <class T>
T sample();

template <>
OrinLinkGenerateRequest sample() {
  return {uuid("E621E1F8-C36C-495A-93FC-0C247A3E6E5F"),
          "9B2D4C61-0F3A-4E8B-A7D5-3C1E6F0A9B84",
          "Remind me to call the plumber tomorrow at nine, and summarise what I said about "
          "the kitchen sink in two sentences.",
          "assistant-3b",
          0.7,
          false,
          orin::Date{798'000'000.25}};
}

template <>
OrinLinkResponse sample() {
  orin::OrinToolCall call{uuid("5D8A3F20-7B1C-4E69-9A0D-2F4B6C8E1A37"),
                          "create_reminder",
                          {{"title", JSONValue("Call the plumber")},
                           {"due", JSONValue("2026-05-01T09:00:00Z")},
                           {"priority", JSONValue(2.0)},
                           {"tags", JSONValue(JSONValue::Array{"home", "kitchen"})},
                           {"notify", JSONValue(true)}},
                          "Create a reminder \"Call the plumber\" for tomorrow at 9:00.",
                          0.92};
  OrinLinkResponse response;
  response.id = uuid("0C6E2B7A-94D1-4F38-B5A2-7E1D3C9F6A40");
  response.requestId = uuid("E621E1F8-C36C-495A-93FC-0C247A3E6E5F");
  response.lane = orin::OrinLane::toolProposal;
  response.assistantMessage =
      "I can set that reminder for you. The sink drips when the hot tap "
      "is open; you suspected the washer.";
  response.proposedToolCall = std::move(call);
  return response;
}

template <class T>
void BM_EncodeJSON(benchmark::State& state) {
  const T value = sample<T>();
  const auto before = orin::bench::allocations();
  std::size_t textBytes = 0;
  for (auto _ : state) {
    const std::string text = orin::encodeJSON(value);
    textBytes = text.size();
    benchmark::DoNotOptimize(text.data());
  }
  orin::bench::reportAllocations(state, before);
  state.SetItemsProcessed(state.iterations());
  state.counters["json_bytes"] = static_cast<double>(textBytes);
}

template <class T>
void BM_DecodeJSON(benchmark::State& state) {
  const T expected = sample<T>();
  const std::string text = orin::encodeJSON(expected);
  if (orin::decodeJSON<T>(text) != expected) {
    state.SkipWithError("decoding did not give back the encoded value");
    return;
  }
  const auto before = orin::bench::allocations();
  for (auto _ : state) {
    T value = orin::decodeJSON<T>(text);
    benchmark::DoNotOptimize(value);
  }
  orin::bench::reportAllocations(state, before);
  state.SetItemsProcessed(state.iterations());
  state.counters["json_bytes"] = static_cast<double>(text.size());
}

// Every reply carries a fresh identifier, so its cost is part of each round trip.
void BM_UuidRandom(benchmark::State& state) {
  for (auto _ : state) {
    orin::Uuid id = orin::Uuid::random();
    benchmark::DoNotOptimize(id);
  }
  state.SetItemsProcessed(state.iterations());
}

BENCHMARK(BM_UuidRandom);
BENCHMARK_TEMPLATE(BM_EncodeJSON, OrinLinkGenerateRequest);
BENCHMARK_TEMPLATE(BM_DecodeJSON, OrinLinkGenerateRequest);
BENCHMARK_TEMPLATE(BM_EncodeJSON, OrinLinkResponse);
BENCHMARK_TEMPLATE(BM_DecodeJSON, OrinLinkResponse);

}  // namespace
