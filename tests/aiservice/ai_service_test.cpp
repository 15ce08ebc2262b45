#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/read.hpp>
#include <boost/asio/write.hpp>

#include "tests/aiservice/AIServiceFixture.h"

namespace orin::test {
namespace {

// How a stream in flight ends when something other than the model ends it.
TEST_F(AIServiceTest, StreamsEndCleanlyWhenTheirConnectionOrDaemonGoes) {
  enum class Ending { devicePairedAgain, daemonDied, clientLeft };
  for (const Ending ending : {Ending::devicePairedAgain, Ending::daemonDied, Ending::clientLeft}) {
    SCOPED_TRACE(static_cast<int>(ending));
    if (ending != Ending::devicePairedAgain) {
      standIn_.reset();
      restart();
    }
    const std::string token = pair("stream-device");
    asio::io_context io;
    asio::ip::tcp::socket socket(io);
    socket.connect({asio::ip::address_v4::loopback(), port_});
    const std::string body = generateBody("slow:1b");
    const std::string request = "POST /v1/generate/stream HTTP/1.1\r\nAuthorization: Bearer " +
                                token + "\r\nContent-Length: " + std::to_string(body.size()) +
                                "\r\n\r\n" + body;
    asio::write(socket, asio::buffer(request));
    std::string received;
    boost::system::error_code ec;
    while (received.find("data: ") == std::string::npos && !ec) {
      char chunk[512];
      received.append(chunk, socket.read_some(asio::buffer(chunk), ec));
    }
    ASSERT_TRUE(waitUntil([](const AppState& app) {
      return app.properties().activeGenerations == 1;
    })) << received;

    switch (ending) {
      case Ending::devicePairedAgain:
        pair("stream-device");
        break;
      case Ending::daemonDied:
        standIn_->kill();
        break;
      case Ending::clientLeft:
        socket.close();
        EXPECT_TRUE(standIn_->waitFor({{"generations_cancelled", 1}}));
        break;
    }
    if (ending != Ending::clientLeft) {
      asio::read(socket, asio::dynamic_buffer(received), ec);
      const bool errorEvent = received.find("event: error\ndata: ") != std::string::npos;
      EXPECT_EQ(errorEvent, ending == Ending::daemonDied) << received;
      EXPECT_EQ(received.find("event: done"), std::string::npos);
    }
    EXPECT_TRUE(
        waitUntil([](const AppState& app) { return app.properties().activeGenerations == 0; }));
    if (ending == Ending::devicePairedAgain) {
      // Revoked in this server's life: cut off without any reply.
      EXPECT_EQ(call("GET", "/status", token).status, 0);
    }
  }
}

TEST_F(AIServiceTest, LaunchAppliesTheAvailabilityOptionsAndOpensThePanel) {
  const auto desktop = onMain([&] { return *desktop_; });
  EXPECT_EQ(desktop.panelOpens, 1);
  EXPECT_EQ(desktop.loginItemCalls, std::vector<bool>{false});
  EXPECT_FALSE(desktop.sleepHeld);
}

}  // namespace
}  // namespace orin::test
