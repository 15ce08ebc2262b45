#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

#include "OrinLinkShared/Error.h"

namespace orin {

// Why the running Orin Link could not be asked; what() is the sentence the user sees.
class ControlClientError : public Error {
 public:
  enum class Kind {
    notRunning,  // nothing listens on the port
    timedOut,    // it took the connection but did not answer within the deadline
    failed,      // the connection broke before a reply
    refused,     // the API answered with an error; its message is the text
    unreadable,  // a reply that is not the API's JSON
  };

  ControlClientError(Kind kind, const std::string& text) : Error(text), kind_(kind) {}
  Kind kind() const { return kind_; }

 private:
  Kind kind_;
};

// The command line's way into a running Orin Link: the control API on loopback, with the
// per-user secret.
class ControlClient {
 public:
  // Long enough for a busy main loop, short enough that a hung copy does not hang the command.
  static constexpr std::chrono::milliseconds defaultDeadline{5000};
  static constexpr std::string_view timedOutText =
      "Orin Link did not answer in time. It may be stuck: quit it and start it again.";

  // `deadline` bounds each whole exchange: connecting, sending and reading the reply.
  ControlClient(std::uint16_t port, std::string secret,
                std::chrono::milliseconds deadline = defaultDeadline);

  // Throw ControlClientError.
  nlohmann::json get(const std::string& path) const;
  nlohmann::json post(const std::string& path, const nlohmann::json& body = {}) const;

 private:
  nlohmann::json exchange(const std::string& method, const std::string& path,
                          const std::string& body) const;

  std::uint16_t port_;
  std::string secret_;
  std::chrono::milliseconds deadline_;
};

// The secret as its file holds it, without the line end; nothing when the file cannot be read.
std::optional<std::string> readControlSecret(const std::filesystem::path& file);

}  // namespace orin
