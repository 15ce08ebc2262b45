#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "OrinLinkShared/Error.h"

namespace orin::screen {

// Why a virtual display could not be made or changed; what() is the text shown to the user.
class VirtualDisplayError : public Error {
 public:
  enum class Kind {
    unsupported,
    invalidSize,
    tooLarge,
    displayServerUnreachable,
    connectionLost,
    requestFailed,
  };

  static VirtualDisplayError unsupported();
  static VirtualDisplayError invalidSize(std::uint32_t width, std::uint32_t height);
  static VirtualDisplayError tooLarge(std::uint32_t width, std::uint32_t height,
                                      std::uint32_t maxWidth, std::uint32_t maxHeight);
  // `displayName` as given to the connection (empty when DISPLAY is not set).
  static VirtualDisplayError displayServerUnreachable(std::string_view displayName);
  static VirtualDisplayError connectionLost();
  // `origin` names where the status comes from ("X11" for protocol errors, "RandR" for the
  // status of a refused configuration).
  static VirtualDisplayError requestFailed(std::string_view origin, std::int32_t status);

  Kind kind() const { return kind_; }

 private:
  VirtualDisplayError(Kind kind, const std::string& text) : Error(text), kind_(kind) {}
  Kind kind_;
};

}  // namespace orin::screen
