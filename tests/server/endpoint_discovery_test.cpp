#include <gtest/gtest.h>

#include "OrinLink/server/EndpointDiscovery.h"

namespace orin {
namespace {

using Kind = OrinLinkConnectionKind;

TEST(EndpointDiscovery, PrivateAndTailscaleAddressesCount) {
  const std::pair<const char*, bool> cases[] = {
      {"10.0.0.1", true},     {"192.168.1.20", true}, {"100.1.2.3", true},   {"172.16.0.5", true},
      {"172.31.255.1", true}, {"172.15.0.1", false},  {"172.32.0.1", false}, {"172.16.0", false},
      {"8.8.8.8", false},     {"172.16.x.1", false},  {"", false},           {"192.169.0.1", false},
  };
  for (const auto& [address, counts] : cases) {
    EXPECT_EQ(EndpointDiscovery::isPrivateOrTailscale(address), counts) << address;
  }
}

struct Listed {
  std::string displayName;
  std::string host;
  Kind kind;
  bool operator==(const Listed&) const = default;
};

std::vector<Listed> listed(const std::vector<OrinLinkEndpoint>& endpoints) {
  std::vector<Listed> out;
  for (const auto& e : endpoints) {
    EXPECT_EQ(e.port, 38141);
    EXPECT_FALSE(e.usesTLS);
    out.push_back({e.displayName, e.host, e.connectionKind});
  }
  return out;
}

TEST(EndpointDiscovery, ListsEachAddressThenTheManualEntry) {
  struct Case {
    std::vector<std::string> addresses;
    std::string manualHost;
    Kind manualKind;
    std::vector<Listed> expected;
  };
  const Case cases[] = {
      {{}, "", Kind::manual, {{"Manual Endpoint", "your-mac-hostname-or-ip", Kind::manual}}},
      {{},
       "  \t ",
       Kind::tailscale,
       {{"Manual Endpoint", "your-mac-hostname-or-ip", Kind::manual}}},
      {{"100.1.2.3", "192.168.1.20"},
       "  desk.example  ",
       Kind::tailscale,
       {{"Tailscale 100.1.2.3", "100.1.2.3", Kind::tailscale},
        {"Local 192.168.1.20", "192.168.1.20", Kind::localNetwork},
        {"Tailscale desk.example", "desk.example", Kind::tailscale}}},
      {{"10.0.0.2"},
       "host",
       Kind::localNetwork,
       {{"Local 10.0.0.2", "10.0.0.2", Kind::localNetwork},
        {"Local host", "host", Kind::localNetwork}}},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(listed(EndpointDiscovery::discover(38141, c.manualHost, c.manualKind, c.addresses)),
              c.expected);
  }
}

TEST(EndpointDiscovery, MagicDNSNameComesFromTheSelfEntry) {
  const std::pair<const char*, std::optional<std::string>> cases[] = {
      {R"({"Self": {"DNSName": "desk.tail1234.ts.net."}})", "desk.tail1234.ts.net"},
      {R"({"Self": {"DNSName": "plain"}})", "plain"},
      {R"({"Self": {"DNSName": ""}})", std::nullopt},
      {R"({"Self": {"DNSName": 7}})", std::nullopt},
      {R"({"Self": []})", std::nullopt},
      {R"({"Peers": {}})", std::nullopt},
      {"not json", std::nullopt},
  };
  for (const auto& [output, name] : cases) {
    EXPECT_EQ(EndpointDiscovery::parseMagicDNSName(output), name) << output;
  }
}

TEST(EndpointDiscovery, MagicDNSNameGoesBeforeTheFirstTailscaleEntryOnce) {
  auto endpoints =
      EndpointDiscovery::discover(38141, "", Kind::manual, {"100.1.2.3", "192.168.1.20"});
  EXPECT_TRUE(EndpointDiscovery::insertMagicDNSName(endpoints, "desk.ts.net", 38141));
  EXPECT_FALSE(EndpointDiscovery::insertMagicDNSName(endpoints, "desk.ts.net", 38141));
  EXPECT_EQ(listed(endpoints),
            (std::vector<Listed>{{"Tailscale desk.ts.net", "desk.ts.net", Kind::tailscale},
                                 {"Tailscale 100.1.2.3", "100.1.2.3", Kind::tailscale},
                                 {"Local 192.168.1.20", "192.168.1.20", Kind::localNetwork},
                                 {"Manual Endpoint", "your-mac-hostname-or-ip", Kind::manual}}));

  auto withoutTailscale = EndpointDiscovery::discover(38141, "", Kind::manual, {"10.0.0.1"});
  EndpointDiscovery::insertMagicDNSName(withoutTailscale, "desk.ts.net", 38141);
  EXPECT_EQ(withoutTailscale.back().host, "desk.ts.net");
}

}  // namespace
}  // namespace orin
