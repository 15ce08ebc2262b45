#pragma once

#include <string>
#include <vector>

#include "OrinLink/aiservice/AIServiceHost.h"
#include "OrinLink/pairing/DeviceRegistry.h"

namespace orin::test {

// The application as the AI service sees it, with one paired device ("Phone", token "paired")
// and the code "123 456"; every piece of bookkeeping is written down, in order, in `journal`.
struct FakeAIServiceHost : AIServiceHost {
  std::string daemonURL = "http://127.0.0.1:9";
  StatusFacts facts{true, 1, true, "plain:1b", 38141, false};
  bool logConversations = true;
  Date clock = Date::now();
  std::chrono::steady_clock::duration warmRefusal{};
  int warmUps = 0;
  std::vector<std::string> journal;
  std::string conversation;

  std::optional<std::string> authenticate(const std::optional<std::string>& token) override {
    if (token != "paired") return std::nullopt;
    return "Phone";
  }
  std::string pair(const PairRequest& request) override {
    if (request.pairingCode != "123 456") throw PairingError(PairingError::Kind::invalidCode);
    return "new-token";
  }
  StatusFacts statusFacts() const override { return facts; }
  OllamaRuntime runtimeOn(const boost::asio::any_io_executor& executor) const override {
    return OllamaRuntime(*OllamaEndpoint::parse(daemonURL), executor);
  }
  std::chrono::steady_clock::duration requestWarmUp() override {
    ++warmUps;
    return warmRefusal;
  }
  Date now() const override { return clock; }
  void noteRequestedModel(const std::optional<std::string>& model) override {
    journal.push_back("requested " + model.value_or("-"));
  }
  void noteGenerationStarted(const std::string& deviceName) override {
    journal.push_back("started " + deviceName);
  }
  void noteTokenRate(double tokensPerSecond) override {
    journal.push_back("rate " + std::to_string(static_cast<int>(tokensPerSecond)));
  }
  void endGeneration(std::int64_t tokens, Date) override {
    journal.push_back("ended " + std::to_string(tokens));
  }
  std::optional<Uuid> beginConversationEntry(const std::string& prompt,
                                             const std::string& deviceName) override {
    if (!logConversations) return std::nullopt;
    journal.push_back("entry " + deviceName + ": " + prompt);
    return Uuid::random();
  }
  void appendConversationToken(const std::string& text, const Uuid&) override {
    conversation += text;
  }
  void completeConversationEntry(const Uuid&) override { journal.push_back("complete"); }
};

}  // namespace orin::test
