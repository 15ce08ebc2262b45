#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>

#include "OrinLink/system/SdBus.h"

namespace orin::screen {

// Source types of org.freedesktop.portal.ScreenCast, as its AvailableSourceTypes bits.
inline constexpr std::uint32_t portalSourceMonitor = 1;
inline constexpr std::uint32_t portalSourceWindow = 2;
inline constexpr std::uint32_t portalSourceVirtual = 4;

// One started screen-cast session of the desktop portal: the stream to read and the PipeWire
// connection to read it through. The session ends when this goes (Close, then the bus closes).
struct PortalStream {
  PortalStream() = default;
  PortalStream(PortalStream&& other) noexcept;
  PortalStream& operator=(PortalStream&&) = delete;
  ~PortalStream();

  sdbus::Bus bus;
  std::string sessionHandle;
  // Owned by the stream until handed to PipeWireCapture; -1 once taken.
  int remoteFd = -1;
  std::uint32_t nodeId = 0;
  // The size the compositor gave the stream, when it said.
  std::optional<std::uint32_t> width;
  std::optional<std::uint32_t> height;
};

// The ScreenCast portal on the session bus, for desktops other than GNOME. The user is asked to
// choose once; the restore token then brings the same choice back without asking.
class PortalScreenCast {
 public:
  struct Options {
    // Where the restore token is kept (0600), e.g. ~/.config/OrinLink/screencast-restore-token.
    std::filesystem::path restoreTokenFile;
    // How long the user may take to answer the portal's dialog.
    std::chrono::milliseconds answerTimeout = std::chrono::seconds(120);
  };

  explicit PortalScreenCast(Options options);

  // The AvailableSourceTypes bits, 0 when there is no portal (or no ScreenCast interface).
  std::uint32_t availableSourceTypes();
  // CreateSession, SelectSources (MONITOR or VIRTUAL, cursor embedded, persist mode 2, the kept
  // restore token), Start, OpenPipeWireRemote. Keeps the new restore token. Blocks, at most
  // answerTimeout for the dialog and a few seconds for each other step. Throws
  // DisplayCaptureError: sharingDeclined when the user said no, screenCastUnavailable when there
  // is no portal or it cannot share `sourceType`, captureFailed otherwise.
  PortalStream start(std::uint32_t sourceType);

 private:
  Options options_;
};

}  // namespace orin::screen
