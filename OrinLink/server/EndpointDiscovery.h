#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "OrinLinkShared/AIRecords.h"

namespace orin {

class SystemActions;

// The addresses under which devices can reach the AI service.
namespace EndpointDiscovery {

// 10.x, 192.168.x, 172.16-31.x and every 100.x address (taken as Tailscale).
bool isPrivateOrTailscale(std::string_view address);
// The machine's up, non-loopback IPv4 addresses that count, sorted, without duplicates.
std::vector<std::string> privateIPv4Addresses();
std::string displayName(OrinLinkConnectionKind kind, std::string_view host);
// One entry per address, then the manual entry (or its placeholder).
std::vector<OrinLinkEndpoint> discover(std::uint16_t port, std::string_view manualHost,
                                       OrinLinkConnectionKind manualKind,
                                       const std::vector<std::string>& addresses);
std::vector<OrinLinkEndpoint> discover(std::uint16_t port, std::string_view manualHost,
                                       OrinLinkConnectionKind manualKind);

// The machine's MagicDNS name from `tailscale status --json`. Runs a child process and waits for
// it: never call it on the main loop.
std::optional<std::string> magicDNSName(SystemActions& system);
std::optional<std::string> parseMagicDNSName(std::string_view statusJSON);
// Inserts the name before the first Tailscale entry (or at the end) unless a host already has it.
bool insertMagicDNSName(std::vector<OrinLinkEndpoint>& endpoints, const std::string& name,
                        std::uint16_t port);

}  // namespace EndpointDiscovery
}  // namespace orin
