#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <boost/asio/any_io_executor.hpp>

#include "OrinLink/runtime/OllamaRuntime.h"
#include "OrinLinkShared/AIRecords.h"
#include "OrinLinkShared/Pairing.h"

namespace orin {

// What the AI service needs from the application that hosts it. Called on the main loop only.
class AIServiceHost {
 public:
  struct StatusFacts {
    bool isServerRunning = false;
    std::int64_t pairedDevices = 0;
    bool isOllamaAvailable = false;
    std::string activeModel;
    std::uint16_t serverPort = 0;
    bool reliabilityModeEnabled = false;
  };

  struct Credential {
    std::string tokenHash;
    std::string deviceName;
  };

  virtual ~AIServiceHost() = default;

  // The paired device's name for a bearer token, the device being recorded as seen; nothing
  // when there is no token or it is unknown.
  virtual std::optional<std::string> authenticate(const std::optional<std::string>& token) = 0;
  // Returns the new device's token; throws the pairing error the device is told.
  virtual std::string pair(const PairRequest& request) = 0;
  virtual StatusFacts statusFacts() const = 0;
  virtual std::vector<Credential> pairedDevices() const = 0;
  // The daemon the service relays to, its replies read on the given executor.
  virtual OllamaRuntime runtimeOn(const boost::asio::any_io_executor& executor) const = 0;
  // Asks for the active model to be loaded; returns how long until another request would be
  // heard, zero when this one was.
  virtual std::chrono::steady_clock::duration requestWarmUp() = 0;
  virtual Date now() const = 0;

  // Generation bookkeeping: the statistics and the conversation log.
  virtual void noteRequestedModel(const std::optional<std::string>& model) = 0;
  virtual void noteGenerationStarted(const std::string& deviceName) = 0;
  virtual void noteTokenRate(double tokensPerSecond) = 0;
  virtual void endGeneration(std::int64_t tokens, Date since) = 0;
  // Nothing while the log is off.
  virtual std::optional<Uuid> beginConversationEntry(const std::string& prompt,
                                                     const std::string& deviceName) = 0;
  virtual void appendConversationToken(const std::string& text, const Uuid& id) = 0;
  virtual void completeConversationEntry(const Uuid& id) = 0;
};

}  // namespace orin
