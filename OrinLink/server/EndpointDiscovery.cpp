#include "OrinLink/server/EndpointDiscovery.h"

#include <algorithm>
#include <charconv>
#include <ifaddrs.h>
#include <net/if.h>
#include <netdb.h>
#include <set>
#include <sys/socket.h>

#include "OrinLink/system/SystemActions.h"
#include "OrinLinkShared/JSONCoding.h"
#include "OrinLinkShared/Text.h"

namespace orin::EndpointDiscovery {
namespace {

constexpr std::string_view manualPlaceholderHost = "your-mac-hostname-or-ip";

OrinLinkEndpoint endpoint(std::string label, std::string host, std::uint16_t port,
                          OrinLinkConnectionKind kind) {
  return {Uuid::random(), std::move(label), std::move(host), port, kind, false};
}

}  // namespace

bool isPrivateOrTailscale(std::string_view address) {
  if (address.starts_with("10.") || address.starts_with("192.168.") ||
      address.starts_with("100.")) {
    return true;
  }
  std::vector<long> numbers;
  std::size_t start = 0;
  while (start <= address.size()) {
    const std::size_t dot = std::min(address.find('.', start), address.size());
    const std::string_view piece = address.substr(start, dot - start);
    long value = 0;
    const auto [end, error] = std::from_chars(piece.data(), piece.data() + piece.size(), value);
    if (!piece.empty() && error == std::errc() && end == piece.data() + piece.size()) {
      numbers.push_back(value);
    }
    start = dot + 1;
  }
  return numbers.size() == 4 && numbers[0] == 172 && numbers[1] >= 16 && numbers[1] <= 31;
}

std::vector<std::string> privateIPv4Addresses() {
  ifaddrs* interfaces = nullptr;
  if (::getifaddrs(&interfaces) != 0) return {};
  std::set<std::string> found;
  for (const ifaddrs* i = interfaces; i != nullptr; i = i->ifa_next) {
    if (i->ifa_addr == nullptr || i->ifa_addr->sa_family != AF_INET) continue;
    if ((i->ifa_flags & IFF_UP) == 0 || (i->ifa_flags & IFF_LOOPBACK) != 0) continue;
    char host[1025];
    if (::getnameinfo(i->ifa_addr, sizeof(sockaddr_in), host, sizeof host, nullptr, 0,
                      NI_NUMERICHOST) != 0) {
      continue;
    }
    if (isPrivateOrTailscale(host)) found.insert(host);
  }
  ::freeifaddrs(interfaces);
  return {found.begin(), found.end()};
}

std::string displayName(OrinLinkConnectionKind kind, std::string_view host) {
  switch (kind) {
    case OrinLinkConnectionKind::localNetwork:
      return "Local " + std::string(host);
    case OrinLinkConnectionKind::tailscale:
      return "Tailscale " + std::string(host);
    case OrinLinkConnectionKind::manual:
      break;
  }
  return "Manual " + std::string(host);
}

std::vector<OrinLinkEndpoint> discover(std::uint16_t port, std::string_view manualHost,
                                       OrinLinkConnectionKind manualKind,
                                       const std::vector<std::string>& addresses) {
  std::vector<OrinLinkEndpoint> endpoints;
  for (const auto& address : addresses) {
    const auto kind = address.starts_with("100.") ? OrinLinkConnectionKind::tailscale
                                                  : OrinLinkConnectionKind::localNetwork;
    endpoints.push_back(endpoint(displayName(kind, address), address, port, kind));
  }
  const std::string host(text::trimmed(manualHost));
  if (host.empty()) {
    endpoints.push_back(endpoint("Manual Endpoint", std::string(manualPlaceholderHost), port,
                                 OrinLinkConnectionKind::manual));
  } else {
    endpoints.push_back(endpoint(displayName(manualKind, host), host, port, manualKind));
  }
  return endpoints;
}

std::vector<OrinLinkEndpoint> discover(std::uint16_t port, std::string_view manualHost,
                                       OrinLinkConnectionKind manualKind) {
  return discover(port, manualHost, manualKind, privateIPv4Addresses());
}

std::optional<std::string> parseMagicDNSName(std::string_view statusJSON) {
  try {
    const json::Value status = json::parse(statusJSON);
    const auto self = status.find("Self");
    if (self == status.end() || !self->is_object()) return std::nullopt;
    const auto name = self->find("DNSName");
    if (name == self->end() || !name->is_string()) return std::nullopt;
    std::string text = name->get<std::string>();
    if (text.empty()) return std::nullopt;
    if (text.back() == '.') text.pop_back();
    return text;
  } catch (const DecodingError&) {
    return std::nullopt;
  }
}

std::optional<std::string> magicDNSName(SystemActions& system) {
  std::optional<std::filesystem::path> tool;
  for (const char* path :
       {"/usr/local/bin/tailscale", "/opt/homebrew/bin/tailscale", "/usr/bin/tailscale"}) {
    if (system.fileExists(path)) {
      tool = path;
      break;
    }
  }
  if (!tool) tool = system.findOnPath("tailscale");
  if (!tool) return std::nullopt;
  const auto output = system.runCapturingOutput({tool->string(), "status", "--json"});
  if (!output) return std::nullopt;
  return parseMagicDNSName(*output);
}

bool insertMagicDNSName(std::vector<OrinLinkEndpoint>& endpoints, const std::string& name,
                        std::uint16_t port) {
  if (std::any_of(endpoints.begin(), endpoints.end(),
                  [&name](const OrinLinkEndpoint& e) { return e.host == name; })) {
    return false;
  }
  const auto firstTailscale =
      std::find_if(endpoints.begin(), endpoints.end(), [](const OrinLinkEndpoint& e) {
        return e.connectionKind == OrinLinkConnectionKind::tailscale;
      });
  endpoints.insert(firstTailscale,
                   endpoint("Tailscale " + name, name, port, OrinLinkConnectionKind::tailscale));
  return true;
}

}  // namespace orin::EndpointDiscovery
