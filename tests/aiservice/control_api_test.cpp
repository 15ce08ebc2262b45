#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/read_until.hpp>
#include <boost/asio/write.hpp>

#include "OrinLink/ui/ControlAPI.h"

#include "tests/aiservice/AIServiceFixture.h"

namespace orin::test {
namespace {

const std::string secret(64, 'a');

class ControlAPITest : public AIServiceTest {
 protected:
  void SetUp() override {
    AIServiceTest::SetUp();
    std::promise<std::uint16_t> ready;
    onMain([&] {
      control_ =
          std::make_unique<ControlAPI>(app_, secret, 0, httpLoop_.executor(), mainLoop_.executor());
      control_->setStateChanged(
          [&ready](bool, std::uint16_t port, auto) { ready.set_value(port); });
      control_->start();
    });
    controlPort_ = ready.get_future().get();
  }
  void TearDown() override {
    onMain([&] { control_.reset(); });
    AIServiceTest::TearDown();
  }

  testing_support::HTTPReply control(const std::string& method, const std::string& target,
                                     std::vector<std::pair<std::string, std::string>> headers,
                                     const std::string& body = {}) const {
    return httpExchange(controlPort_, method, target, body, headers);
  }
  std::string host() const { return "127.0.0.1:" + std::to_string(controlPort_); }
  std::pair<std::string, std::string> authorised() const {
    return {"Authorization", "Bearer " + secret};
  }

  std::unique_ptr<ControlAPI> control_;
  std::uint16_t controlPort_ = 0;
};

TEST_F(ControlAPITest, RefusesForeignHostsOriginsAndMissingSecrets) {
  const std::string local = "http://localhost:" + std::to_string(controlPort_);
  struct Case {
    std::string name;
    std::string method;
    std::string target;
    std::vector<std::pair<std::string, std::string>> headers;
    int status;
  };
  const Case cases[] = {
      {"rebound name", "GET", "/api/state", {{"Host", "evil.example:80"}, authorised()}, 403},
      {"empty host", "GET", "/api/state", {{"Host", ""}, authorised()}, 403},
      {"no secret", "GET", "/api/state", {{"Host", host()}}, 401},
      {"wrong secret", "GET", "/api/state", {{"Host", host()}, {"Authorization", "Bearer b"}}, 401},
      {"secret", "GET", "/api/state", {{"Host", host()}, authorised()}, 200},
      {"cookie",
       "GET",
       "/api/state",
       {{"Host", host()}, {"Cookie", "x=1; orinlink_session=" + secret}},
       200},
      {"foreign origin",
       "POST",
       "/api/pairing/new-code",
       {{"Host", host()}, authorised(), {"Origin", "http://evil.example"}},
       403},
      {"own origin",
       "POST",
       "/api/pairing/new-code",
       {{"Host", host()}, authorised(), {"Origin", local}},
       200},
      {"no origin", "POST", "/api/pairing/new-code", {{"Host", host()}, authorised()}, 200},
      {"unknown operation", "POST", "/api/nothing", {{"Host", host()}, authorised()}, 404},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(control(c.method, c.target, c.headers).status, c.status) << c.name;
  }
}

TEST_F(ControlAPITest, TheSnapshotShowsDevicesWithoutTokens) {
  const std::string token = pair("phone-1", "<img src=x onerror=alert(1)>");
  const auto reply = control("GET", "/api/state", {{"Host", host()}, authorised()});
  ASSERT_EQ(reply.status, 200);
  const Json state = Json::parse(reply.body);
  ASSERT_EQ(state["devices"].size(), 1u);
  EXPECT_EQ(state["devices"][0]["displayName"], "<img src=x onerror=alert(1)>");
  EXPECT_EQ(reply.body.find(token), std::string::npos);
  EXPECT_EQ(reply.body.find("tokenHash"), std::string::npos);
  EXPECT_EQ(state["pairing"]["code"].get<std::string>().size(), 7u);
  EXPECT_TRUE(state["server"]["running"].get<bool>());
}

TEST_F(ControlAPITest, RemovingADeviceStopsItsTokenAtOnce) {
  const std::string token = pair("phone-2");
  EXPECT_EQ(call("GET", "/status", token).status, 200);
  const Json state =
      Json::parse(control("GET", "/api/state", {{"Host", host()}, authorised()}).body);
  const Json body = {{"id", state["devices"][0]["id"]}};
  EXPECT_EQ(
      control("POST", "/api/devices/remove", {{"Host", host()}, authorised()}, body.dump()).status,
      200);
  EXPECT_EQ(call("GET", "/status", token).status, 0);
  EXPECT_EQ(
      control("POST", "/api/devices/remove", {{"Host", host()}, authorised()}, body.dump()).status,
      404);
}

TEST_F(ControlAPITest, TheChangeStreamNamesWhatChanged) {
  asio::io_context io;
  asio::ip::tcp::socket socket(io);
  socket.connect({asio::ip::address_v4::loopback(), controlPort_});
  const std::string request = "GET /api/events HTTP/1.1\r\nHost: " + host() +
                              "\r\nAuthorization: Bearer " + secret + "\r\n\r\n";
  asio::write(socket, asio::buffer(request));
  std::string received;
  asio::read_until(socket, asio::dynamic_buffer(received), "data: {\"changed\":[]}\n\n");
  onMain([&] { app_->newPairingCode(); });
  asio::read_until(socket, asio::dynamic_buffer(received), "registry");
  EXPECT_NE(received.find("text/event-stream"), std::string::npos);
}

}  // namespace
}  // namespace orin::test
