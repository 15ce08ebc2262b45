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
    sharingDeclined,
    pipeWireUnavailable,
    screenCastUnavailable,
    sharingEnded,
    sharingSilent,
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

  // Wayland: the user said no to the desktop's screen-sharing dialog.
  static DisplayCaptureError sharingDeclined();
  // Wayland: no PipeWire daemon to read screen casts from.
  static DisplayCaptureError pipeWireUnavailable();
  // Wayland: neither GNOME's screen-cast service nor the desktop portal answers.
  static DisplayCaptureError screenCastUnavailable();
  // Wayland: the compositor ended the stream, or the user stopped sharing.
  static DisplayCaptureError sharingEnded();
  // Wayland: the stream was set up but no picture came in time.
  static DisplayCaptureError sharingSilent();

  Kind kind() const { return kind_; }

 private:
  DisplayCaptureError(Kind kind, const std::string& text) : Error(text), kind_(kind) {}
  Kind kind_;
};

}  // namespace orin::screen
