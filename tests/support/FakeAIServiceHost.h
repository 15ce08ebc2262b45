#pragma once

#include <string>

#include "OrinLink/aiservice/AIServiceHost.h"
#include "OrinLink/pairing/DeviceRegistry.h"
#include "OrinLink/pairing/TokenHash.h"

namespace orin::test {

// The application as the AI service sees it, with one paired device ("Phone", token "paired")
// and the code "123 456"; the bookkeeping is written down in order in `journal`.
struct FakeAIServiceHost : AIServiceHost {
  std::string daemonURL = "http://127.0.0.1:9";
  std::string activeModel = "plain:1b";
  std::chrono::steady_clock::duration warmRefusal{};
  int warmUps = 0;
  std::string journal;
  std::string conversation;

  std::optional<std::string> authenticate(const std::optional<std::string>& token) override {
    return token == "paired" ? std::optional<std::string>("Phone") : std::nullopt;
  }
  std::string pair(const PairRequest& request) override {
    if (request.pairingCode != "123 456") throw PairingError(PairingError::Kind::invalidCode);
    return "new-token";
  }
  StatusFacts statusFacts() const override { return {true, 1, true, activeModel, 38141, false}; }
  std::vector<Credential> pairedDevices() const override {
    return {{tokenHash("paired"), "Phone"}};
  }
  OllamaRuntime runtimeOn(const boost::asio::any_io_executor& executor) const override {
    return OllamaRuntime(*OllamaEndpoint::parse(daemonURL), executor);
  }
  std::chrono::steady_clock::duration requestWarmUp() override {
    ++warmUps;
    return warmRefusal;
  }
  Date now() const override { return Date{0}; }
  void noteRequestedModel(const std::optional<std::string>& model) override {
    note("requested " + model.value_or("-"));
  }
  void noteGenerationStarted(const std::string& device) override { note("started " + device); }
  void noteTokenRate(double rate) override { note("rate " + std::to_string(rate)); }
  void endGeneration(std::int64_t tokens, Date) override {
    note("ended " + std::to_string(tokens));
  }
  std::optional<Uuid> beginConversationEntry(const std::string& prompt,
                                             const std::string& device) override {
    note("entry " + device + ": " + prompt);
    return Uuid::random();
  }
  void appendConversationToken(const std::string& text, const Uuid&) override {
    conversation += text;
  }
  void completeConversationEntry(const Uuid&) override { note("complete"); }

  void note(const std::string& what) { journal += (journal.empty() ? "" : "; ") + what; }
};

}  // namespace orin::test
