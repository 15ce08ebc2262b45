#include "OrinLink/screenstream/DisplayCaptureError.h"

namespace orin::screen {

DisplayCaptureError DisplayCaptureError::permissionDenied(std::string_view detail) {
  return {Kind::permissionDenied,
          "Screen Recording permission is required. Allow Orin Link in System Settings > Privacy "
          "& Security > Screen Recording, then quit and reopen the app. (" +
              std::string(detail) + ")"};
}

DisplayCaptureError DisplayCaptureError::displayNotFound() {
  return {Kind::displayNotFound, "The selected display is no longer connected."};
}

DisplayCaptureError DisplayCaptureError::noDisplayAvailable() {
  return {Kind::noDisplayAvailable, "No display available to capture."};
}

DisplayCaptureError DisplayCaptureError::displayServerUnreachable(std::string_view displayName) {
  if (displayName.empty()) {
    return {Kind::displayServerUnreachable,
            "No X display to capture: DISPLAY is not set. Start Orin Link inside your desktop "
            "session."};
  }
  return {Kind::displayServerUnreachable,
          "Could not connect to the X display \"" + std::string(displayName) +
              "\". Start Orin Link inside your desktop session, or set DISPLAY to its display."};
}

DisplayCaptureError DisplayCaptureError::connectionLost() {
  return {Kind::connectionLost, "The connection to the X display was lost."};
}

DisplayCaptureError DisplayCaptureError::unsupportedFormat(int depth) {
  return {Kind::unsupportedFormat,
          "The display's pixel format (depth " + std::to_string(depth) + ") cannot be captured."};
}

DisplayCaptureError DisplayCaptureError::captureFailed(std::string_view origin,
                                                       std::int32_t status) {
  return {Kind::captureFailed, "Could not capture the display (" + std::string(origin) + " error " +
                                   std::to_string(status) + ")."};
}

DisplayCaptureError DisplayCaptureError::sharingDeclined() {
  return {
      Kind::sharingDeclined,
      "Screen sharing was declined. Allow Orin Link to share the screen when your desktop asks, "
      "then switch streaming off and on again."};
}

DisplayCaptureError DisplayCaptureError::pipeWireUnavailable() {
  return {Kind::pipeWireUnavailable,
          "Could not reach PipeWire, which this desktop shares the screen through. Install "
          "PipeWire (the pipewire and wireplumber packages), then log out and in again."};
}

DisplayCaptureError DisplayCaptureError::screenCastUnavailable() {
  return {Kind::screenCastUnavailable,
          "This desktop offers no way to share the screen: neither GNOME's screen-cast service "
          "nor a desktop portal answers. Install your desktop's portal (xdg-desktop-portal-gnome, "
          "-kde or -wlr), then log out and in again."};
}

DisplayCaptureError DisplayCaptureError::sharingEnded() {
  return {Kind::sharingEnded, "The desktop stopped sharing the screen."};
}

DisplayCaptureError DisplayCaptureError::sharingSilent() {
  return {Kind::sharingSilent,
          "The desktop began sharing the screen but sent no picture. Switch streaming off and on "
          "again; if it keeps happening, log out and in again."};
}

}  // namespace orin::screen
