#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "OrinLink/http/HTTPMessage.h"

namespace orin {

// A file compiled into the binary (see cmake/EmbedAssets.cmake).
struct EmbeddedAsset {
  std::string_view path;
  std::string_view contentType;
  const unsigned char* data;
  std::size_t size;
};

namespace panel {
extern const EmbeddedAsset embeddedAssets[];
extern const std::size_t embeddedAssetCount;
}  // namespace panel

// The control panel's page ("/") and its files ("/assets/..."); null for any other path.
const EmbeddedAsset* findPanelAsset(std::string_view path);

// The file as a reply, with the headers that keep the page to itself: no inline script, no
// framing, no sniffing, nothing cached.
HTTPResponse panelAssetResponse(const EmbeddedAsset& asset);

// The text as a QR code in SVG, dark modules on white with the standard quiet zone; nothing when
// the text does not fit in a QR code.
std::optional<std::string> qrCodeSVG(std::string_view text);
HTTPResponse qrCodeResponse(std::string_view text);

// The address that opens the panel and starts its session. The secret rides in the fragment,
// which browsers never send, so it stays out of request lines, logs and Referer; the page hands
// it over once and drops it from the address bar.
std::string controlPanelURL(std::uint16_t port, std::string_view secret);

// The session cookie: the browser holds it where page scripts cannot read it, and sends it on
// nothing that another site starts.
std::string sessionCookieHeader(std::string_view name, std::string_view secret);

}  // namespace orin
