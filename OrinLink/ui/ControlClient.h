#pragma once

#include <cstdint>
#include <string>

#include <nlohmann/json.hpp>

#include "OrinLinkShared/Error.h"

namespace orin {

// The command line's way into a running Orin Link: the control API on loopback, with the
// per-user secret.
class ControlClient {
 public:
  ControlClient(std::uint16_t port, std::string secret);

  // Throw Error with a text for the user: not running, refused, or the API's own message.
  nlohmann::json get(const std::string& path) const;
  nlohmann::json post(const std::string& path, const nlohmann::json& body = {}) const;

 private:
  nlohmann::json exchange(const std::string& method, const std::string& path,
                          const std::string& body) const;

  std::uint16_t port_;
  std::string secret_;
};

}  // namespace orin
