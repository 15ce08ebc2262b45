#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "OrinLinkShared/Error.h"

namespace orin::screen {

// Why a display cannot be listed or captured; what() is the text shown to the user.
class DisplayCaptureError : public Error {
 public:
  enum class Kind {
    permissionDenied,
    displayNotFound,
    noDisplayAvailable,
    displayServerUnreachable,
    connectionLost,
    unsupportedFormat,
    captureFailed,
  };

  // Kept for platforms that gate capture behind a permission; X11 has none.
  static DisplayCaptureError permissionDenied(std::string_view detail);
  static DisplayCaptureError displayNotFound();
  static DisplayCaptureError noDisplayAvailable();
  // `displayName` as given to the connection (empty when DISPLAY is not set).
  static DisplayCaptureError displayServerUnreachable(std::string_view displayName);
  static DisplayCaptureError connectionLost();
  static DisplayCaptureError unsupportedFormat(int depth);
  // `origin` names where the status comes from ("X11", "system").
  static DisplayCaptureError captureFailed(std::string_view origin, std::int32_t status);

  Kind kind() const { return kind_; }

 private:
  DisplayCaptureError(Kind kind, const std::string& text) : Error(text), kind_(kind) {}
  Kind kind_;
};

}  // namespace orin::screen
