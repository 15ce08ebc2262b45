#include <future>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <boost/asio/co_spawn.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/use_future.hpp>
#include <gtest/gtest.h>

#include "OrinLink/concurrency/SerialExecutor.h"
#include "OrinLink/screenstream/ScreenStreamServer.h"

#include "ScreenStreamClient.h"
#include "ScreenTestFakes.h"

namespace orin::screen {
namespace {

namespace asio = boost::asio;
using device::ScreenMessage;
using device::ScreenStreamClient;
using Kind = OrinScreenControlMessage::Kind;
using namespace std::chrono_literals;

constexpr auto patience = 10s;
constexpr std::string_view clientTooOld =
    "Vantaro on the headset is out of date. Update Vantaro, then reconnect.";
constexpr std::string_view hostTooOld =
    "The Orin Link app on this Mac is out of date. Update Orin Link on the Mac, then reconnect.";
constexpr std::string_view wrongCode = "That pairing code is not the one shown on the host.";

OrinScreenControlMessage message(Kind kind) {
  OrinScreenControlMessage m;
  m.kind = kind;
  return m;
}

OrinScreenControlMessage hello(std::optional<std::int64_t> version,
                               std::optional<std::string> token,
                               std::optional<std::string> name = "Headset") {
  auto m = message(Kind::hello);
  m.version = version;
  m.token = std::move(token);
  m.deviceName = std::move(name);
  return m;
}

OrinScreenControlMessage pair(std::optional<std::string> code, std::optional<std::string> id,
                              std::optional<std::string> name) {
  auto m = message(Kind::pair);
  m.pairingCode = std::move(code);
  m.deviceId = std::move(id);
  m.deviceName = std::move(name);
  return m;
}

OrinScreenControlMessage error(std::string_view text, std::optional<std::int64_t> version = {}) {
  auto m = message(Kind::error);
  m.message = std::string(text);
  m.version = version;
  return m;
}

OrinScreenControlMessage accepted() {
  auto m = message(Kind::accepted);
  m.name = "Test Host";
  m.edition = "website";
  m.supportsVirtualDisplays = true;
  return m;
}

OrinScreenControlMessage withShape(Kind kind, std::int64_t shape) {
  auto m = message(kind);
  m.shape = shape;
  return m;
}

OrinScreenControlMessage withPortal(Kind kind, bool on) {
  auto m = message(kind);
  m.portal = on;
  return m;
}

asio::awaitable<std::string> issue(std::optional<std::string> token) {
  if (!token) throw Error(std::string(wrongCode));
  co_return *token;
}

asio::awaitable<void> nothing() {
  co_return;
}

ByteString frameData(std::size_t index, std::size_t size) {
  ByteString data(size, static_cast<std::uint8_t>(index));
  data[0] = static_cast<std::uint8_t>(index >> 8);
  return data;
}

EncodedVideoFrame videoFrame(std::uint64_t time, bool key, std::size_t size = 64,
                             std::optional<OrinScreenVideoConfig> config = {}) {
  return {{time, key}, frameData(time, size), std::move(config)};
}

OrinScreenVideoConfig config(std::int64_t width) {
  return {"hvc1", width, 1080, 4, {{0x40, 0x01}, {0x42, 0x01}, {0x44, 0x01}}};
}

// A server on loopback port 0 whose callbacks record what they see, and real clients.
class ScreenStreamServerTest : public testing::Test, public fake::Watched {
 protected:
  void startServer(std::chrono::milliseconds helloTimeout = 10s,
                   std::size_t maxConnections = transport::ConnectionTracker::defaultCap) {
    ScreenStreamServer::Options options;
    options.port = 0;
    options.httpPort = 38141;
    options.serviceName = "Test Stream";
    options.hostName = "Test Host";
    options.bindAddress = asio::ip::address_v4::loopback();
    options.advertiser = &advertiser_;
    options.helloTimeout = helloTimeout;
    options.maxConnections = maxConnections;
    options.keyframeRecoverySpacing = {};
    server_ = std::make_unique<ScreenStreamServer>(options, serverLoop_.executor(),
                                                   mainLoop_.executor(), callbacks());
    port_ = server_->start();
  }

  ScreenStreamServer::Callbacks callbacks() {
    ScreenStreamServer::Callbacks c;
    c.authenticate = [](std::string token) -> asio::awaitable<bool> {
      co_return token.starts_with("known");
    };
    c.pair = [this](std::string code, std::string id, std::string) {
      record([&] { pairedIds_.push_back(id); });
      return issue(code == "123456" ? std::optional<std::string>("known-paired") : std::nullopt);
    };
    c.clientsChanged = [this](std::vector<std::string> names) {
      record([&] { clientLists_.push_back(std::move(names)); });
    };
    c.needsKeyframe = [this] { record([&] { ++keyframeRequests_; }); };
    c.serverStateChanged = [this](std::optional<std::string> failure) {
      record([&] { states_.push_back(std::move(failure)); });
    };
    c.clientRejected = [this](std::string text) {
      record([&] { rejections_.push_back(std::move(text)); });
    };
    c.setShape = [this](OrinScreenShape shape) {
      record([&] { shapeRequests_.push_back(shape); });
      return nothing();
    };
    c.currentShape = []() -> asio::awaitable<OrinScreenShape> {
      co_return OrinScreenShape::ultrawide;
    };
    c.portalStateChanged = [this](bool on) { record([&] { portals_.push_back(on); }); };
    return c;
  }

  std::unique_ptr<ScreenStreamClient> connect(std::optional<int> receiveBuffer = {}) {
    ScreenStreamClient::Options options;
    options.port = port_;
    options.receiveBufferBytes = receiveBuffer;
    return std::make_unique<ScreenStreamClient>(options);
  }

  static ScreenMessage next(ScreenStreamClient& client) {
    ScreenMessage m;
    EXPECT_EQ(client.receive(m, patience), ScreenStreamClient::Received::message);
    return m;
  }

  static OrinScreenControlMessage nextControl(ScreenStreamClient& client) {
    const ScreenMessage m = next(client);
    EXPECT_TRUE(m.control) << "type " << int(m.typeByte);
    return m.control.value_or(message(Kind::ping));
  }

  static void expectResponsive(ScreenStreamClient& client) {
    client.send(message(Kind::ping));
    EXPECT_EQ(nextControl(client), message(Kind::pong));
  }

  // Said hello without a token and was asked to pair.
  std::unique_ptr<ScreenStreamClient> waitingClient() {
    auto client = connect();
    client->send(hello(3, std::nullopt));
    EXPECT_EQ(nextControl(*client), message(Kind::pairingRequired));
    return client;
  }

  // Streaming and told its shape; nothing else is pending for it.
  std::unique_ptr<ScreenStreamClient> streamingClient(std::string name, std::string token,
                                                      std::optional<int> receiveBuffer = {}) {
    auto client = connect(receiveBuffer);
    client->send(hello(3, token, name));
    EXPECT_EQ(nextControl(*client), accepted());
    EXPECT_EQ(nextControl(*client), withShape(Kind::shape, 1));
    return client;
  }

  std::vector<ScreenStreamServer::SessionStatistics> statistics() {
    return asio::co_spawn(mainLoop_.executor(), server_->statistics(), asio::use_future).get();
  }

  ~ScreenStreamServerTest() override {
    server_.reset();
    shutDownLoops({}, {&mainLoop_, &serverLoop_});
  }

  SerialExecutor mainLoop_{"test.main"};
  SerialExecutor serverLoop_{"test.screen"};
  fake::FakeAdvertiser advertiser_;
  std::unique_ptr<ScreenStreamServer> server_;
  std::uint16_t port_ = 0;

  std::vector<std::vector<std::string>> clientLists_;
  std::vector<std::string> pairedIds_;
  std::vector<std::optional<std::string>> states_;
  std::vector<std::string> rejections_;
  std::vector<OrinScreenShape> shapeRequests_;
  std::vector<bool> portals_;
  int keyframeRequests_ = 0;
};

TEST_F(ScreenStreamServerTest, AnswersEachHandshake) {
  startServer();
  auto paired = message(Kind::paired);
  paired.token = "known-paired";
  struct Case {
    std::string name;
    std::vector<OrinScreenControlMessage> send;
    std::vector<OrinScreenControlMessage> expect;
    bool closes = false;
    std::vector<std::string> clients;
  };
  const Case cases[] = {
      {"version 2", {hello(2, "known")}, {error(clientTooOld, 3)}, true, {}},
      {"no version", {hello(std::nullopt, "known")}, {error(clientTooOld, 3)}, true, {}},
      {"version 4", {hello(4, "known")}, {error(hostTooOld, 3)}, true, {}},
      {"no token", {hello(3, std::nullopt)}, {message(Kind::pairingRequired)}, false, {}},
      {"empty token", {hello(3, "")}, {message(Kind::pairingRequired)}, false, {}},
      {"unknown token", {hello(3, "stranger")}, {message(Kind::pairingRequired)}, false, {}},
      {"known token",
       {hello(3, "known")},
       {accepted(), withShape(Kind::shape, 1)},
       false,
       {"Headset"}},
      {"unnamed device",
       {hello(3, "known", std::nullopt)},
       {accepted(), withShape(Kind::shape, 1)},
       false,
       {"Unknown device"}},
      {"second hello ignored",
       {hello(3, std::nullopt), hello(2, "known")},
       {message(Kind::pairingRequired)},
       false,
       {}},
      {"pair without code",
       {hello(3, std::nullopt), pair(std::nullopt, "id-1", "Mine")},
       {message(Kind::pairingRequired), error("Pairing request was missing its code.")},
       false,
       {}},
      {"pair without device id",
       {pair("123456", std::nullopt, "Mine")},
       {error("Pairing request was missing its code.")},
       false,
       {}},
      {"wrong code then right code",
       {hello(3, std::nullopt), pair("000000", "id-2", "Mine"), pair("123456", "id-3", "Mine")},
       {message(Kind::pairingRequired), error(wrongCode), paired, accepted(),
        withShape(Kind::shape, 1)},
       false,
       {"Mine"}},
      {"pair without name",
       {hello(3, std::nullopt), pair("123456", "id-4", std::nullopt)},
       {message(Kind::pairingRequired), paired, accepted(), withShape(Kind::shape, 1)},
       false,
       {"Vision Pro"}},
  };
  std::size_t refusals = 0;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    auto client = connect();
    for (const auto& m : c.send)
      client->send(m);
    for (const auto& expected : c.expect)
      EXPECT_EQ(nextControl(*client), expected);
    if (c.closes) {
      EXPECT_TRUE(client->waitUntilClosed(patience));
      ++refusals;
      EXPECT_TRUE(eventually([&] { return rejections_.size() == refusals; }));
      std::lock_guard lock(mutex);
      EXPECT_EQ(rejections_.back(), c.expect.front().message);
      continue;
    }
    expectResponsive(*client);
    if (!c.clients.empty()) {
      EXPECT_TRUE(
          eventually([&] { return !clientLists_.empty() && clientLists_.back() == c.clients; }));
    }
    client.reset();
    EXPECT_TRUE(eventually([&] { return clientLists_.empty() || clientLists_.back().empty(); }));
  }
  std::lock_guard lock(mutex);
  EXPECT_EQ(pairedIds_, (std::vector<std::string>{"id-2", "id-3", "id-4"}));
}

TEST_F(ScreenStreamServerTest, DeviceClientHandshakePairsWhenAskedAndCodeIsAtHand) {
  startServer();
  struct Case {
    std::string name;
    std::optional<std::string> token;
    std::optional<std::string> code;
    std::optional<std::string> issued;
    std::optional<device::DeviceError::Kind> failure;
    std::string text;
  };
  using FailureKind = device::DeviceError::Kind;
  const Case cases[] = {
      {"stale token and code", "stale", "123456", "known-paired", std::nullopt, ""},
      {"no credentials", std::nullopt, std::nullopt, std::nullopt, FailureKind::unauthorized,
       "Orin Link asks this device to pair: run again with --code and the code it shows."},
      {"wrong code", std::nullopt, "999999", std::nullopt, FailureKind::requestFailed,
       std::string(wrongCode)},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    auto client = connect();
    const ScreenStreamClient::Credentials credentials{c.token, c.code, "id", "Device"};
    try {
      const auto welcome = client->handshake(credentials, patience);
      EXPECT_FALSE(c.failure);
      EXPECT_EQ(welcome.accepted, accepted());
      EXPECT_EQ(welcome.issuedToken, c.issued);
    } catch (const device::DeviceError& e) {
      EXPECT_EQ(e.kind(), c.failure);
      EXPECT_EQ(e.what(), c.text);
    }
  }
}

// Messages arrive in pieces of any size; what a client may not send is skipped, not answered.
TEST_F(ScreenStreamServerTest, ReadsMessagesInAnyPiecesAndSkipsWhatItDoesNotKnow) {
  startServer();
  auto client = connect();
  const ByteString greeting = OrinScreenFraming::frame(hello(3, "known"));
  for (const std::uint8_t byte : greeting)
    client->sendBytes({&byte, 1});
  EXPECT_EQ(nextControl(*client), accepted());
  EXPECT_EQ(nextControl(*client), withShape(Kind::shape, 1));

  const std::string notJSON = "not json";
  const std::string unknownKind = R"({"kind":"wave"})";
  const ByteString ignored[] = {
      OrinScreenFraming::frame(
          OrinScreenMessageType::control,
          {reinterpret_cast<const std::uint8_t*>(notJSON.data()), notJSON.size()}),
      OrinScreenFraming::frame(
          OrinScreenMessageType::control,
          {reinterpret_cast<const std::uint8_t*>(unknownKind.data()), unknownKind.size()}),
      OrinScreenFraming::frame(OrinScreenMessageType::videoFrame, ByteString(100, 7)),
      {9, 0, 0, 0, 2, 1, 2},
      {1, 0, 0, 0, 0},
      OrinScreenFraming::frame(message(Kind::pong)),
      OrinScreenFraming::frame(message(Kind::accepted)),
  };
  for (const auto& bytes : ignored)
    client->sendBytes(bytes);
  expectResponsive(*client);

  // A header announcing more than the protocol allows ends the connection.
  client->sendBytes(ByteString{1, 0x02, 0x00, 0x00, 0x01});
  EXPECT_TRUE(client->waitUntilClosed(patience));
}

TEST_F(ScreenStreamServerTest, DropsClientsThatNeverSayHello) {
  startServer(50ms);
  auto greeted = waitingClient();
  auto silent = connect();
  EXPECT_TRUE(silent->waitUntilClosed(patience));
  // Its own time-out began earlier and has passed too.
  expectResponsive(*greeted);
}

// The cap spares streaming sessions and pushes out the oldest that has not finished its handshake.
TEST_F(ScreenStreamServerTest, FloodsOfSilentClientsGiveWayToHandshakes) {
  startServer(10s, 4);
  auto streaming = streamingClient("Headset", "known");
  std::vector<std::unique_ptr<ScreenStreamClient>> silent;
  for (int i = 0; i < 12; ++i)
    silent.push_back(connect());
  auto late = streamingClient("Late", "known-late");
  EXPECT_TRUE(silent.front()->waitUntilClosed(patience));
  expectResponsive(*streaming);
}

TEST_F(ScreenStreamServerTest, ShapeAndPortalRequestsCountOnlyFromStreamingClients) {
  startServer();
  auto waiting = waitingClient();
  waiting->send(withShape(Kind::setShape, 1));
  waiting->send(withPortal(Kind::portal, true));
  expectResponsive(*waiting);

  auto streaming = streamingClient("Headset", "known");
  for (const std::int64_t shape : {3, -1})
    streaming->send(withShape(Kind::setShape, shape));
  streaming->send(message(Kind::setShape));
  streaming->send(message(Kind::portal));
  streaming->send(withShape(Kind::setShape, 2));
  streaming->send(withPortal(Kind::portal, false));
  EXPECT_TRUE(eventually([&] { return !portals_.empty(); }));
  {
    std::lock_guard lock(mutex);
    EXPECT_EQ(shapeRequests_, std::vector{OrinScreenShape::superUltrawide});
    EXPECT_EQ(portals_, std::vector{false});
  }

  server_->broadcastShape(OrinScreenShape::mirror);
  server_->broadcastSetPortal(true);
  server_->broadcastError("Capture stopped.");
  EXPECT_EQ(nextControl(*streaming), withShape(Kind::shape, 0));
  EXPECT_EQ(nextControl(*streaming), withPortal(Kind::setPortal, true));
  EXPECT_EQ(nextControl(*streaming), error("Capture stopped."));
  expectResponsive(*waiting);
}

TEST_F(ScreenStreamServerTest, FramesReachStreamingClientsWithTheLatestConfigurationFirst) {
  startServer();
  auto early = streamingClient("Early", "known-1");
  auto waiting = waitingClient();

  server_->broadcast(videoFrame(1, false, 64, config(1920)));  // before any key frame: dropped
  server_->broadcast(videoFrame(2, true));
  server_->broadcast(videoFrame(3, false, 64, config(2560)));
  const auto expectFrame = [](ScreenStreamClient& client, std::uint64_t time, bool key) {
    const ScreenMessage m = next(client);
    ASSERT_TRUE(m.frameHeader);
    EXPECT_EQ(*m.frameHeader, (OrinScreenFrameHeader{time, key}));
    const auto data = m.frameData();
    EXPECT_EQ(ByteString(data.begin(), data.end()), frameData(time, 64));
  };
  EXPECT_EQ(next(*early).config, config(1920));
  expectFrame(*early, 2, true);
  EXPECT_EQ(next(*early).config, config(2560));
  expectFrame(*early, 3, false);

  const int requestsBefore = read([&] { return keyframeRequests_; });
  auto late = connect();
  late->send(hello(3, "known-2", "Late"));
  EXPECT_EQ(nextControl(*late), accepted());
  EXPECT_EQ(next(*late).config, config(2560));
  EXPECT_EQ(nextControl(*late), withShape(Kind::shape, 1));
  EXPECT_TRUE(eventually([&] { return keyframeRequests_ > requestsBefore; }));
  EXPECT_TRUE(eventually([&] {
    return clientLists_.back() == std::vector<std::string>{"Early", "Late"};
  }));

  server_->broadcast(videoFrame(4, false));
  server_->broadcast(videoFrame(5, true));
  expectFrame(*early, 4, false);
  expectFrame(*early, 5, true);
  expectFrame(*late, 5, true);

  // Nothing of the stream reached the client that is still waiting to pair.
  expectResponsive(*waiting);
}

// One client stops reading: it never has more than 8 frames in flight and skips to the next key
// frame, while the other receives every frame.
TEST_F(ScreenStreamServerTest, SlowClientSkipsAheadWhileOthersGetEveryFrame) {
  startServer();
  auto reader = streamingClient("Reader", "known-r");
  auto stalled = streamingClient("Stalled", "known-s", 4096);
  constexpr std::size_t frameSize = 256 * 1024;
  constexpr std::uint64_t frames = 64;
  for (std::uint64_t i = 0; i < frames; ++i) {
    server_->broadcast(videoFrame(i, i == 0, frameSize));
    const ScreenMessage m = next(*reader);
    ASSERT_TRUE(m.frameHeader);
    ASSERT_EQ(m.frameHeader->presentationTimeMicroseconds, i);
    ASSERT_EQ(m.frameData().size(), frameSize);
  }
  const auto figures = statistics();
  ASSERT_EQ(figures.size(), 2u);
  EXPECT_EQ(figures[0].videoFramesQueued, frames);
  EXPECT_EQ(figures[0].videoFramesDropped, 0u);
  const auto& slow = figures[1];
  EXPECT_EQ(slow.peakPendingVideoSends, ScreenStreamServer::maxPendingVideoSends);
  EXPECT_LE(slow.pendingVideoSends, ScreenStreamServer::maxPendingVideoSends);
  EXPECT_GT(slow.videoFramesDropped, 0u);
  EXPECT_EQ(slow.videoFramesQueued + slow.videoFramesDropped, frames);
  // A stalled client asks for no keyframe while it has no room: one per frame would be a storm.
  EXPECT_TRUE(eventually([&] { return keyframeRequests_ == 2; }));  // the two hellos

  // Once it has caught up, it asks for one, and only a key frame resumes its stream.
  for (std::uint64_t i = 0; i < slow.videoFramesQueued; ++i) {
    const ScreenMessage m = next(*stalled);
    ASSERT_TRUE(m.frameHeader);
    EXPECT_EQ(m.frameHeader->presentationTimeMicroseconds, i);
  }
  const auto drainDeadline = std::chrono::steady_clock::now() + patience;
  while (statistics()[1].pendingVideoSends != 0 && std::chrono::steady_clock::now() < drainDeadline)
    std::this_thread::yield();
  server_->broadcast(videoFrame(99, false));
  EXPECT_TRUE(eventually([&] { return keyframeRequests_ == 3; }));
  EXPECT_EQ(next(*reader).frameHeader, (OrinScreenFrameHeader{99, false}));
  server_->broadcast(videoFrame(100, false));
  server_->broadcast(videoFrame(101, true));
  EXPECT_EQ(next(*reader).frameHeader, (OrinScreenFrameHeader{100, false}));
  EXPECT_EQ(next(*reader).frameHeader, (OrinScreenFrameHeader{101, true}));
  EXPECT_EQ(next(*stalled).frameHeader, (OrinScreenFrameHeader{101, true}));
}

TEST_F(ScreenStreamServerTest, AdvertisesWhileRunningAndStopEndsEverything) {
  startServer();
  EXPECT_TRUE(eventually([&] { return !states_.empty(); }));
  {
    std::lock_guard lock(mutex);
    EXPECT_EQ(states_, std::vector<std::optional<std::string>>{std::nullopt});
  }
  EXPECT_EQ(advertiser_.read([&] { return advertiser_.adverts; }),
            (std::vector<fake::FakeAdvertiser::Advert>{
                {"Test Stream", "_orinlink-screen._tcp", port_, {{"v", "3"}, {"http", "38141"}}}}));
  EXPECT_EQ(advertiser_.read([&] { return advertiser_.live; }), 1);

  auto streaming = streamingClient("Headset", "known");
  server_->broadcast(videoFrame(1, true, 64, config(1920)));
  auto waiting = waitingClient();
  auto refused = connect();
  refused->send(hello(2, std::nullopt));
  auto silent = connect();

  server_->stop();
  for (auto* client : {streaming.get(), waiting.get(), refused.get(), silent.get()})
    EXPECT_TRUE(client->waitUntilClosed(patience));
  EXPECT_TRUE(eventually([&] { return clientLists_.back().empty(); }));
  EXPECT_EQ(advertiser_.read([&] { return advertiser_.live; }), 0);
  EXPECT_THROW(connect(), device::DeviceError);
}

TEST_F(ScreenStreamServerTest, StartRefusesPortsItCannotListenOn) {
  for (const int port : {-1, 65536}) {
    ScreenStreamServer::Options options;
    options.port = port;
    ScreenStreamServer server(options, serverLoop_.executor(), mainLoop_.executor(), {});
    try {
      server.start();
      ADD_FAILURE() << "started on " << port;
    } catch (const StreamServerError& e) {
      EXPECT_EQ(e.what(), "Invalid stream port " + std::to_string(port) + ".");
      EXPECT_EQ(e.domain(), "OrinLink");
      EXPECT_EQ(e.code(), 1);
    }
  }
}

}  // namespace
}  // namespace orin::screen
