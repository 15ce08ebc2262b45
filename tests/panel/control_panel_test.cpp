#include <fstream>
#include <ifaddrs.h>
#include <iterator>
#include <netinet/in.h>

#include <boost/asio/ip/tcp.hpp>

#include "OrinLink/core/SetupGuide.h"
#include "OrinLink/ui/ControlPanelAssets.h"
#include "OrinLink/ui/QRCode.h"
#include "OrinLink/ui/TrayItem.h"

#include "tests/aiservice/AIServiceFixture.h"
#include "tests/panel/TrayHost.h"

namespace orin::test {
namespace {

class ControlPanelTest : public ControlAPIServiceTest {
 protected:
  testing_support::HTTPReply request(const std::string& method, const std::string& target,
                                     const std::vector<std::string>& fields) const {
    std::vector<std::pair<std::string, std::string>> headers;
    for (const auto& field : fields) {
      const std::size_t colon = field.find(':');
      headers.emplace_back(field.substr(0, colon), field.substr(colon + 2));
    }
    return httpExchange(controlPort_, method, target, {}, headers, false);
  }
};

TEST_F(ControlPanelTest, ThePageOpensWithoutTheSecretAndNothingElseDoes) {
  const std::string own = "Host: " + host();
  const std::string bearer = "Authorization: Bearer " + secret;
  const std::string origin = "Origin: http://" + host();
  struct Case {
    std::string name;
    std::string method;
    std::string target;
    std::vector<std::string> fields;
    int status;
    std::string contentType;
  };
  const Case cases[] = {
      {"page", "GET", "/", {own}, 200, "text/html; charset=utf-8"},
      {"page with a query", "GET", "/?from=tray", {own}, 200, "text/html; charset=utf-8"},
      {"script", "GET", "/assets/js/main.js", {own}, 200, "text/javascript; charset=utf-8"},
      {"style", "GET", "/assets/panel.css", {own}, 200, "text/css; charset=utf-8"},
      {"heading face", "GET", "/assets/fonts/heading-medium.otf", {own}, 200, "font/otf"},
      {"page for a rebound name",
       "GET",
       "/",
       {"Host: evil.example:" + std::to_string(controlPort_)},
       403,
       ""},
      {"page without a host", "GET", "/", {}, 403, ""},
      {"state for a rebound name", "GET", "/api/state", {"Host: evil.example:80", bearer}, 403, ""},
      {"state for an empty host", "GET", "/api/state", {"Host: ", bearer}, 403, ""},
      {"state without the secret", "GET", "/api/state", {own}, 401, ""},
      {"state", "GET", "/api/state", {own, bearer}, 200, "application/json; charset=utf-8"},
      {"state by cookie",
       "GET",
       "/api/state",
       {own, "Cookie: x=1; orinlink_session=" + secret},
       200,
       ""},
      {"new code without an origin", "POST", "/api/pairing/new-code", {own, bearer}, 200, ""},
      {"new code from its own page by name",
       "POST",
       "/api/pairing/new-code",
       {own, bearer, "Origin: http://localhost:" + std::to_string(controlPort_)},
       200,
       ""},
      {"unknown operation", "POST", "/api/nothing", {own, bearer}, 404, ""},
      {"page posted to", "POST", "/", {own, bearer}, 404, ""},
      {"unknown file", "GET", "/assets/other.js", {own}, 401, ""},
      {"QR code without the secret", "GET", "/api/pairing/qr.svg", {own}, 401, ""},
      {"QR code", "GET", "/api/pairing/qr.svg", {own, bearer}, 200, "image/svg+xml"},
      {"session without the secret", "POST", "/api/session", {own, origin}, 401, ""},
      {"session with a wrong secret",
       "POST",
       "/api/session",
       {own, origin, "Authorization: Bearer " + std::string(64, 'd')},
       401,
       ""},
      {"session from another site",
       "POST",
       "/api/session",
       {own, bearer, "Origin: http://evil.example"},
       403,
       ""},
      {"session",
       "POST",
       "/api/session",
       {own, bearer, origin},
       200,
       "application/json; charset=utf-8"},
  };
  for (const auto& c : cases) {
    const auto reply = request(c.method, c.target, c.fields);
    EXPECT_EQ(reply.status, c.status) << c.name;
    if (c.contentType.empty()) continue;
    EXPECT_EQ(reply.field("content-type"), c.contentType) << c.name;
    if (c.contentType.starts_with("application/json")) continue;
    EXPECT_EQ(reply.field("x-content-type-options"), "nosniff") << c.name;
    EXPECT_EQ(reply.field("cache-control"), "no-store") << c.name;
    const std::string policy = reply.field("content-security-policy");
    EXPECT_NE(policy.find("default-src 'none'"), std::string::npos) << c.name;
    EXPECT_NE(policy.find("script-src 'self';"), std::string::npos) << c.name;
    EXPECT_NE(policy.find("frame-ancestors 'none'"), std::string::npos) << c.name;
  }
}

TEST_F(ControlPanelTest, TheSessionCookieOpensTheAPIToThePageAlone) {
  const auto session =
      request("POST", "/api/session", {"Host: " + host(), "Authorization: Bearer " + secret});
  ASSERT_EQ(session.status, 200);
  const std::string cookie = session.field("set-cookie");
  EXPECT_NE(cookie.find("; HttpOnly"), std::string::npos) << cookie;
  EXPECT_NE(cookie.find("; SameSite=Strict"), std::string::npos) << cookie;
  EXPECT_NE(cookie.find("; Path=/"), std::string::npos) << cookie;
  EXPECT_EQ(Json::parse(session.body)["pairing"]["code"].get<std::string>().size(), 7u);

  const std::string value = cookie.substr(0, cookie.find(';'));
  EXPECT_EQ(request("GET", "/api/state", {"Host: " + host(), "Cookie: " + value}).status, 200);
  // A page on another site can make the browser send the cookie, but cannot act with it.
  EXPECT_EQ(request("POST", "/api/pairing/new-code",
                    {"Host: " + host(), "Cookie: " + value, "Origin: http://evil.example"})
                .status,
            403);
  EXPECT_EQ(controlPanelURL(controlPort_, secret),
            "http://127.0.0.1:" + std::to_string(controlPort_) + "/#" + secret);
}

TEST_F(ControlPanelTest, EveryPanelFileIsServedAsWritten) {
  std::size_t served = 0;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(PANEL_SOURCE_DIR)) {
    if (!entry.is_regular_file()) continue;
    const auto relative = entry.path().lexically_relative(PANEL_SOURCE_DIR).generic_string();
    const std::string target = relative == "index.html" ? "/" : "/assets/" + relative;
    std::ifstream file(entry.path(), std::ios::binary);
    const std::string written{std::istreambuf_iterator<char>(file), {}};
    const auto reply = request("GET", target, {"Host: " + host()});
    EXPECT_EQ(reply.status, 200) << target;
    EXPECT_TRUE(reply.body == written) << target << " differs from " << entry.path();
    ++served;
  }
  EXPECT_GE(served, 5u);
}

TEST_F(ControlPanelTest, TheListenerIsOnLoopbackOnly) {
  ifaddrs* list = nullptr;
  ASSERT_EQ(::getifaddrs(&list), 0);
  std::vector<asio::ip::address_v4> others;
  for (ifaddrs* entry = list; entry != nullptr; entry = entry->ifa_next) {
    if (entry->ifa_addr == nullptr || entry->ifa_addr->sa_family != AF_INET) continue;
    sockaddr_in address{};
    std::memcpy(&address, entry->ifa_addr, sizeof address);
    const asio::ip::address_v4 v4(ntohl(address.sin_addr.s_addr));
    if (!v4.is_loopback()) others.push_back(v4);
  }
  ::freeifaddrs(list);
  if (others.empty()) GTEST_SKIP() << "this machine has no address besides loopback";
  for (const auto& address : others) {
    asio::io_context io;
    asio::ip::tcp::socket socket(io);
    boost::system::error_code error;
    socket.connect({address, controlPort_}, error);
    EXPECT_TRUE(error) << address.to_string() << " reached the control API";
  }
}

TEST_F(ControlPanelTest, TheTrayItemFollowsTheApplicationAndDrivesIt) {
  PrivateBus bus;
  Host host(bus.address());
  std::unique_ptr<TrayItem> tray;
  std::promise<void> opened;
  onMain([&] {
    tray = TrayItem::make(mainLoop_.executor(), bus.address());
    tray->follow(
        app_, [&opened] { opened.set_value(); }, [] {});
  });
  ASSERT_TRUE(host.waitUntil([&] { return !host.itemName.empty(); }));
  EXPECT_EQ(host.tooltip().second, onMain([&] { return presenceSentence(app_->stateSnapshot()); }));
  const auto [revision, items] = host.menu();
  ASSERT_EQ(items.size(), 7u);
  EXPECT_EQ(items[3].label, "Stop Server");
  EXPECT_FALSE(items[4].enabled) << "this run has no screen streaming";

  const std::string code = onMain([&] { return app_->registry().pairingCode(); });
  host.click(items[2].id);
  EXPECT_TRUE(
      waitUntil([code](const AppState& app) { return app.registry().pairingCode() != code; }));
  const int layouts = host.signals["LayoutUpdated"];
  host.click(items[3].id);
  EXPECT_TRUE(waitUntil([](const AppState& app) { return !app.properties().isServerRunning; }));
  EXPECT_TRUE(host.waitUntil([&] { return host.signals["LayoutUpdated"] > layouts; }));
  EXPECT_EQ(host.menu().second[3].label, "Start Server");
  EXPECT_EQ(host.icon().first, orbIcon("dormant", 22, false));
  host.click(items[0].id);
  EXPECT_EQ(opened.get_future().wait_for(bound), std::future_status::ready);
  onMain([&] { tray.reset(); });
}

// Reads the modules back out of the drawing, so a run drawn too long or too short shows.
std::vector<std::vector<bool>> modulesOfSVG(const std::string& svg, std::size_t& size) {
  const std::size_t box = svg.find("viewBox=\"0 0 ") + 13;
  size = std::stoul(svg.substr(box));
  std::vector<std::vector<bool>> grid(size, std::vector<bool>(size));
  const std::size_t start = svg.find(" d=\"") + 4;
  const std::string path = svg.substr(start, svg.find('"', start) - start);
  std::size_t at = 0;
  while ((at = path.find('M', at)) != std::string::npos) {
    std::size_t used = 0;
    const std::size_t x = std::stoul(path.substr(at + 1), &used);
    at += 1 + used + 1;
    const std::size_t y = std::stoul(path.substr(at), &used);
    at += used + 1;
    const std::size_t run = std::stoul(path.substr(at), &used);
    for (std::size_t i = 0; i < run; ++i)
      grid.at(y).at(x + i) = true;
  }
  return grid;
}

TEST(QRCodeSVG, DrawsExactlyTheModulesWithAQuietZone) {
  const std::string cases[] = {"1", "{\"app\" : \"Orin Link\", \"pairingCode\" : \"123 456\"}",
                               std::string(900, 'x')};
  for (const auto& text : cases) {
    const auto svg = qrCodeSVG(text);
    const auto modules = qrModules(text);
    ASSERT_TRUE(svg && modules) << text.size();
    std::size_t size = 0;
    const auto grid = modulesOfSVG(*svg, size);
    ASSERT_EQ(size, modules->size() + 8) << text.size();
    for (std::size_t y = 0; y < size; ++y) {
      for (std::size_t x = 0; x < size; ++x) {
        const bool inside = x >= 4 && y >= 4 && x < size - 4 && y < size - 4;
        ASSERT_EQ(grid[y][x], inside && (*modules)[y - 4][x - 4])
            << text.size() << " " << x << "," << y;
      }
    }
  }
  EXPECT_FALSE(qrCodeSVG(std::string(8000, 'x')));
}

}  // namespace
}  // namespace orin::test
