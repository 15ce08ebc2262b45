#include "OrinLink/ui/QRCode.h"

#include <memory>
#include <qrencode.h>

namespace orin {

std::optional<std::vector<std::vector<bool>>> qrModules(std::string_view text) {
  const std::string data(text);
  std::unique_ptr<QRcode, decltype(&QRcode_free)> code(
      QRcode_encodeString8bit(data.c_str(), 0, QR_ECLEVEL_L), &QRcode_free);
  if (!code) return std::nullopt;
  const auto width = static_cast<std::size_t>(code->width);
  std::vector<std::vector<bool>> modules(width, std::vector<bool>(width));
  for (std::size_t y = 0; y < width; ++y) {
    for (std::size_t x = 0; x < width; ++x)
      modules[y][x] = (code->data[y * width + x] & 1) != 0;
  }
  return modules;
}

std::string qrForTerminal(std::string_view text) {
  const auto modules = qrModules(text);
  if (!modules) return {};
  constexpr std::size_t quiet = 2;
  const std::size_t width = modules->size();
  const std::size_t size = width + 2 * quiet;
  // Light modules are drawn, so the code reads on a dark terminal.
  auto light = [&](std::size_t x, std::size_t y) {
    if (x < quiet || y < quiet || x >= width + quiet || y >= width + quiet) return true;
    return !(*modules)[y - quiet][x - quiet];
  };
  std::string out;
  for (std::size_t y = 0; y < size; y += 2) {
    for (std::size_t x = 0; x < size; ++x) {
      const bool top = light(x, y);
      const bool bottom = y + 1 < size ? light(x, y + 1) : false;
      out += top && bottom ? "\u2588" : top ? "\u2580" : bottom ? "\u2584" : " ";
    }
    out += '\n';
  }
  return out;
}

}  // namespace orin
