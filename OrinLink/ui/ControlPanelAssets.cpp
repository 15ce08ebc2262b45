#include "OrinLink/ui/ControlPanelAssets.h"

#include <algorithm>

#include "OrinLink/ui/QRCode.h"

namespace orin {

namespace {

constexpr std::string_view contentSecurityPolicy =
    "default-src 'none'; script-src 'self'; style-src 'self'; img-src 'self'; font-src 'self'; "
    "connect-src 'self'; base-uri 'none'; form-action 'none'; frame-ancestors 'none'";

HTTPResponse guardedResponse(std::string_view contentType, std::string body) {
  return HTTPResponse{HTTPStatus::ok,
                      std::string(reasonPhrase(HTTPStatus::ok)),
                      {{"Content-Type", std::string(contentType)},
                       {"Content-Security-Policy", std::string(contentSecurityPolicy)},
                       {"X-Content-Type-Options", "nosniff"},
                       {"X-Frame-Options", "DENY"},
                       {"Referrer-Policy", "no-referrer"},
                       {"Cross-Origin-Opener-Policy", "same-origin"},
                       {"Cross-Origin-Resource-Policy", "same-origin"},
                       {"Cache-Control", "no-store"}},
                      std::move(body)};
}

}  // namespace

const EmbeddedAsset* findPanelAsset(std::string_view path) {
  const EmbeddedAsset* end = panel::embeddedAssets + panel::embeddedAssetCount;
  const EmbeddedAsset* found =
      std::find_if(panel::embeddedAssets, end,
                   [path](const EmbeddedAsset& asset) { return asset.path == path; });
  return found == end ? nullptr : found;
}

HTTPResponse panelAssetResponse(const EmbeddedAsset& asset) {
  return guardedResponse(
      asset.contentType,
      std::string(asset.data, asset.data + static_cast<std::ptrdiff_t>(asset.size)));
}

std::optional<std::string> qrCodeSVG(std::string_view text) {
  const auto modules = qrModules(text);
  if (!modules) return std::nullopt;
  constexpr std::size_t quiet = 4;
  const std::size_t width = modules->size();
  const std::string size = std::to_string(width + 2 * quiet);
  // One path of horizontal runs keeps the file small and the edges crisp at any scale.
  std::string path;
  for (std::size_t y = 0; y < width; ++y) {
    for (std::size_t x = 0; x < width;) {
      if (!(*modules)[y][x]) {
        ++x;
        continue;
      }
      std::size_t run = 1;
      while (x + run < width && (*modules)[y][x + run])
        ++run;
      path += "M" + std::to_string(x + quiet) + " " + std::to_string(y + quiet) + "h" +
              std::to_string(run) + "v1h-" + std::to_string(run) + "z";
      x += run;
    }
  }
  return "<svg xmlns=\"http://www.w3.org/2000/svg\" viewBox=\"0 0 " + size + " " + size +
         "\" shape-rendering=\"crispEdges\"><rect width=\"" + size + "\" height=\"" + size +
         "\" fill=\"#fff\"/><path fill=\"#000\" d=\"" + path + "\"/></svg>";
}

HTTPResponse qrCodeResponse(std::string_view text) {
  auto svg = qrCodeSVG(text);
  if (!svg) {
    return HTTPResponse::error(HTTPStatus::internalServerError, "qr_unavailable",
                               "The pairing details are too long for a QR code.");
  }
  return guardedResponse("image/svg+xml", std::move(*svg));
}

std::string controlPanelURL(std::uint16_t port, std::string_view secret) {
  return "http://127.0.0.1:" + std::to_string(port) + "/#" + std::string(secret);
}

std::string sessionCookieHeader(std::string_view name, std::string_view secret) {
  return std::string(name) + "=" + std::string(secret) + "; Path=/; HttpOnly; SameSite=Strict";
}

}  // namespace orin
