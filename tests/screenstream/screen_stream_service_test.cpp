#include <algorithm>
#include <atomic>
#include <filesystem>
#include <fstream>
#include <future>
#include <string>
#include <vector>

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <gtest/gtest.h>

#include "OrinLink/concurrency/SerialExecutor.h"
#include "OrinLink/pairing/TokenHash.h"
#include "OrinLink/screenstream/ScreenStreamService.h"
#include "OrinLink/screenstream/VideoEncoder.h"
#include "OrinLink/screenstream/VirtualDisplayError.h"

#include "ScreenStreamClient.h"
#include "ScreenTestFakes.h"
#include "tests/core/TemporaryDirectory.h"

namespace orin::screen {
namespace {

namespace asio = boost::asio;
using device::ScreenMessage;
using device::ScreenStreamClient;
using Kind = OrinScreenControlMessage::Kind;
using nlohmann::json;
using namespace std::chrono_literals;

constexpr auto patience = 10s;
constexpr std::uint16_t httpPort = 41234;
constexpr std::uint32_t realDisplay = 7;

// What the fakes and the published state report, under one lock, so a test can wait for any
// combination of them.
struct Probe : fake::DisplayState {
  Probe() { displays = {{realDisplay, "Desk", 1920, 1080}}; }
  ScreenStreamService::Properties props;

  std::optional<Error> encoderFailure;
  std::vector<StreamEncoderSettings> encoders;
  int liveEncoders = 0;
  int forcedKeyframes = 0;

  bool virtualSupported = true;
  std::optional<Error> virtualFailure;
  std::vector<PixelSize> virtualCreated;
  int liveVirtual = 0;
  int soleDesktopRequests = 0;
};

// Emits one small frame per image, a key frame first and whenever one was asked for; fails to
// start with the probe's encoderFailure.
class FakeEncoder : public StreamEncoder {
 public:
  FakeEncoder(Probe& probe, StreamEncoderSettings settings,
              std::function<void(EncodedVideoFrame)> output)
      : probe_(probe), settings_(settings), output_(std::move(output)) {
    probe_.record([&] {
      probe_.encoders.push_back(settings);
      if (probe_.encoderFailure) throw *probe_.encoderFailure;
      ++probe_.liveEncoders;
    });
  }
  ~FakeEncoder() override {
    probe_.record([&] { --probe_.liveEncoders; });
  }
  void encode(const CapturedFrame& frame) override {
    EncodedVideoFrame out;
    out.header = {frame.presentationTimeMicroseconds, force_.exchange(false)};
    out.data = {0, 0, 0, 2, 0x26, 0x01};
    if (first_) {
      first_ = false;
      out.header.isKeyframe = true;
      out.config = OrinScreenVideoConfig{"hevc", settings_.width, settings_.height, 4, {{0x40}}};
    }
    output_(std::move(out));
  }
  void forceKeyframe() override {
    force_ = true;
    probe_.record([&] { ++probe_.forcedKeyframes; });
  }

 private:
  Probe& probe_;
  StreamEncoderSettings settings_;
  std::function<void(EncodedVideoFrame)> output_;
  std::atomic<bool> force_{false};
  bool first_ = true;
};

class FakeVirtualScreen : public VirtualScreen {
 public:
  FakeVirtualScreen(Probe& probe, std::uint32_t id) : probe_(probe), id_(id) {}
  ~FakeVirtualScreen() override {
    probe_.record([&] {
      std::erase_if(probe_.displays, [&](const BackendDisplay& d) { return d.id == id_; });
      --probe_.liveVirtual;
    });
  }
  std::uint32_t displayID() const override { return id_; }
  bool adoptAsSoleDesktop() override {
    probe_.record([&] { ++probe_.soleDesktopRequests; });
    return true;
  }

 private:
  Probe& probe_;
  std::uint32_t id_;
};

class FakeVirtualDisplays : public VirtualDisplayFactory {
 public:
  explicit FakeVirtualDisplays(Probe& probe) : probe_(probe) {}
  bool isSupported() override {
    std::lock_guard lock(probe_.mutex);
    return probe_.virtualSupported;
  }
  std::unique_ptr<VirtualScreen> create(const std::string& name, std::uint32_t width,
                                        std::uint32_t height, double) override {
    std::uint32_t id = 0;
    std::optional<Error> failure;
    probe_.record([&] {
      failure = probe_.virtualFailure;
      if (failure) return;
      id = 9000 + static_cast<std::uint32_t>(probe_.virtualCreated.size());
      probe_.virtualCreated.push_back({int(width), int(height)});
      probe_.displays.push_back({id, name, int(width), int(height)});
      ++probe_.liveVirtual;
    });
    if (failure) throw *failure;
    return std::make_unique<FakeVirtualScreen>(probe_, id);
  }

 private:
  Probe& probe_;
};

OrinScreenControlMessage hello(std::int64_t version, std::optional<std::string> token = {}) {
  OrinScreenControlMessage m;
  m.kind = Kind::hello;
  m.version = version;
  m.token = std::move(token);
  return m;
}

OrinScreenControlMessage setShape(OrinScreenShape shape) {
  OrinScreenControlMessage m;
  m.kind = Kind::setShape;
  m.shape = rawValue(shape);
  return m;
}

// The next message that matches, skipping the others (video, mostly).
template <class Predicate>
std::optional<ScreenMessage> next(ScreenStreamClient& client, Predicate predicate) {
  const auto deadline = std::chrono::steady_clock::now() + patience;
  while (std::chrono::steady_clock::now() < deadline) {
    ScreenMessage m;
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    if (client.receive(m, std::max(left, 1ms)) != ScreenStreamClient::Received::message) break;
    if (predicate(m)) return m;
  }
  return std::nullopt;
}

std::optional<std::int64_t> nextShape(ScreenStreamClient& client) {
  auto m = next(client, [](const ScreenMessage& message) {
    return message.control && message.control->shape;
  });
  return m ? m->control->shape : std::nullopt;
}

std::optional<std::string> nextError(ScreenStreamClient& client) {
  auto m = next(client, [](const ScreenMessage& message) {
    return message.control && message.control->kind == Kind::error;
  });
  return m ? m->control->message : std::nullopt;
}

bool receivesKeyframe(ScreenStreamClient& client) {
  return next(client,
              [](const ScreenMessage& m) { return m.frameHeader && m.frameHeader->isKeyframe; })
      .has_value();
}

std::string advertising(std::uint16_t port) {
  return "Advertising on port " + std::to_string(port) + ". Waiting for Vantaro.";
}

std::string couldNotStart(const std::string& cause) {
  return "The Mac could not start streaming: " + cause + ". Check the Orin Link window on the Mac.";
}

// The service on a main loop of its own, with a real stream server on loopback and fakes for
// the platform.
class ScreenStreamServiceTest : public testing::Test {
 protected:
  ~ScreenStreamServiceTest() override {
    clients_.clear();
    dropService();
    platformLoop_.finish();
    shutDownLoops({}, {&mainLoop_, &serverLoop_, &platformLoop_});
  }

  void dropService() {
    if (!service_) return;
    onMain([&] {
      service_->shutdown();
      service_.reset();
    });
  }

  void make(const json& stored = json::object(), std::optional<std::uint16_t> port = 0) {
    dropService();
    std::ofstream(dir_ / "settings.json") << stored.dump();
    settings_.emplace(dir_ / "settings.json");
    registry_.emplace(dir_ / "paired-devices.json");
    ScreenStreamService::Environment env;
    env.mainExecutor = mainLoop_.executor();
    env.serverExecutor = serverLoop_.executor();
    env.platformExecutor = platformLoop_.executor();
    env.settings = &*settings_;
    env.registry = &*registry_;
    env.httpPort = [] { return httpPort; };
    env.advertiser = &advertiser_;
    env.platform = {std::make_shared<fake::FakeDisplays>(probe_),
                    [this](const StreamEncoderSettings& settings,
                           std::function<void(EncodedVideoFrame)> output) {
                      return std::make_unique<FakeEncoder>(probe_, settings, std::move(output));
                    },
                    std::make_shared<FakeVirtualDisplays>(probe_),
                    [] { return std::string("fake displays"); }};
    env.bindAddress = asio::ip::address_v4::loopback();
    env.portOverride = port;
    env.rejectionClearDelay = 50ms;
    onMain([&] {
      service_ = ScreenStreamService::make(env);
      service_->observe([this](std::string_view) { snapshot(); });
      snapshot();
    });
  }

  void snapshot() {
    probe_.record([&] { probe_.props = service_->properties(); });
  }

  template <class F>
  auto onMain(F f) -> decltype(f()) {
    std::packaged_task<decltype(f())()> task(std::move(f));
    auto result = task.get_future();
    asio::post(mainLoop_.executor(), std::move(task));
    return result.get();
  }

  std::uint16_t enable() {
    onMain([&] { service_->setEnabled(true); });
    return onMain([&] { return service_->activePort().value_or(0); });
  }

  template <class Predicate>
  bool eventually(Predicate predicate) {
    return probe_.eventually(predicate);
  }

  bool statusBecomes(const std::string& text) {
    return eventually([&] { return probe_.props.statusText == text; });
  }

  std::string pairDevice(const std::string& id, const std::string& name) {
    return onMain([&] { return registry_->pair(id, name, registry_->pairingCode()); });
  }

  ScreenStreamClient& connect(std::uint16_t port) {
    ScreenStreamClient::Options options;
    options.port = port;
    clients_.push_back(std::make_unique<ScreenStreamClient>(options));
    return *clients_.back();
  }

  ScreenStreamClient& stream(std::uint16_t port, const std::string& token) {
    auto& client = connect(port);
    client.handshake({token, std::nullopt, "Headset", "Headset"}, patience);
    return client;
  }

  json stored() const {
    std::ifstream in(dir_ / "settings.json");
    return json::parse(in);
  }

  Probe probe_;
  SerialExecutor mainLoop_{"test.main"};
  SerialExecutor serverLoop_{"test.screen"};
  SerialExecutor platformLoop_{"test.platform"};
  test::TemporaryDirectory temporary_;
  const std::filesystem::path& dir_ = temporary_.path();
  fake::FakeAdvertiser advertiser_;
  std::optional<SettingsStore> settings_;
  std::optional<DeviceRegistry> registry_;
  std::shared_ptr<ScreenStreamService> service_;
  std::vector<std::unique_ptr<ScreenStreamClient>> clients_;
};

// Stored settings, with their defaults; streaming resumes at launch only when it was left on.
TEST_F(ScreenStreamServiceTest, ReadsAndSavesSettingsInTheirStoredForms) {
  struct Case {
    std::string name;
    json stored;
    bool enabled;
    StreamSettings expected;
  };
  using R = StreamResolutionPreset;
  using V = VirtualDisplayPreset;
  const Case cases[] = {
      {"nothing stored", json::object(), false, {0, R::quadHD, V::off, true, 60, 38142}},
      {"everything stored",
       {{"screenStreamEnabled", true},
        {"screenStreamPort", 40000},
        {"screenStreamDisplayID", 7},
        {"screenStreamPresetHeight", 1080},
        {"screenStreamVirtualPreset", 2},
        {"screenStreamVirtualMergeDesktop", false},
        {"screenStreamFPS", 30}},
       true,
       {7, R::fullHD, V::superUltrawide, false, 30, 40000}},
      {"4K and ultrawide",
       {{"screenStreamPresetHeight", 2160}, {"screenStreamVirtualPreset", 1}},
       false,
       {0, R::ultraHD, V::ultrawide, true, 60, 38142}},
      {"unknown height and shape, zero port and rate, merge as text",
       {{"screenStreamPresetHeight", 720},
        {"screenStreamVirtualPreset", 3},
        {"screenStreamPort", 0},
        {"screenStreamFPS", 0},
        {"screenStreamVirtualMergeDesktop", "no"}},
       false,
       {0, R::quadHD, V::off, true, 60, 38142}},
      {"impossible port and rate, merge as a number",
       {{"screenStreamPort", 70000},
        {"screenStreamFPS", -5},
        {"screenStreamVirtualMergeDesktop", 0}},
       false,
       {0, R::quadHD, V::off, true, 60, 38142}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    make(c.stored);
    const auto [settings, enabled, status] = onMain([&] {
      return std::tuple(service_->settings(), service_->properties().isEnabled,
                        service_->properties().statusText);
    });
    EXPECT_EQ(settings, c.expected);
    EXPECT_EQ(enabled, c.enabled);
    EXPECT_EQ(status, "Streaming is off.");
    onMain([&] { service_->resumeIfEnabled(); });
    EXPECT_TRUE(eventually([&] { return probe_.props.availableDisplays.size() == 1; }));
    const auto port = onMain([&] { return service_->activePort(); });
    EXPECT_EQ(port.has_value(), c.enabled);
    EXPECT_TRUE(!port || statusBecomes(advertising(*port)));
  }

  onMain([&] {
    service_->applySettings(
        {3, StreamResolutionPreset::ultraHD, VirtualDisplayPreset::superUltrawide, false, 0, 0});
  });
  const json expected = {
      {"screenStreamEnabled", false},   {"screenStreamPort", 38142},
      {"screenStreamDisplayID", 3},     {"screenStreamPresetHeight", 2160},
      {"screenStreamVirtualPreset", 2}, {"screenStreamVirtualMergeDesktop", false},
      {"screenStreamFPS", 60}};
  EXPECT_EQ(stored(), expected);
}

TEST(StreamSizeTest, FollowsThePresetAndTheShape) {
  using R = StreamResolutionPreset;
  using V = VirtualDisplayPreset;
  struct DisplayCase {
    int width, height;
    R preset;
    PixelSize expected;
  };
  const DisplayCase displays[] = {
      {3024, 1964, R::quadHD, {2216, 1440}}, {1920, 0, R::quadHD, {2560, 1440}},
      {1920, 1080, R::fullHD, {1920, 1080}}, {1920, 1080, R::ultraHD, {3840, 2160}},
      {1366, 768, R::fullHD, {1920, 1080}},  {5120, 1440, R::ultraHD, {5120, 2160}},
      {1001, 1000, R::fullHD, {1080, 1080}}, {1280, 1024, R::quadHD, {1800, 1440}},
  };
  for (const auto& c : displays) {
    SCOPED_TRACE(std::to_string(c.width) + "x" + std::to_string(c.height));
    EXPECT_EQ(pixelSize({1, "", c.width, c.height}, c.preset), c.expected);
  }

  struct ShapeCase {
    V shape;
    R preset;
    PixelSize expected;
  };
  const ShapeCase shapes[] = {
      {V::ultrawide, R::fullHD, {2580, 1080}},      {V::ultrawide, R::quadHD, {3440, 1440}},
      {V::ultrawide, R::ultraHD, {3440, 1440}},     {V::superUltrawide, R::fullHD, {3840, 1080}},
      {V::superUltrawide, R::quadHD, {5120, 1440}}, {V::superUltrawide, R::ultraHD, {5120, 1440}},
  };
  for (const auto& c : shapes) {
    SCOPED_TRACE(std::string(label(c.shape)) + " at " + std::string(shortLabel(c.preset)));
    EXPECT_EQ(streamSize(c.shape, c.preset), c.expected);
  }

  struct RateCase {
    int width, height;
    R preset;
    std::int64_t expected;
  };
  const RateCase rates[] = {
      {2560, 1440, R::quadHD, 20'000'000}, {5120, 1440, R::quadHD, 40'000'000},
      {1280, 720, R::quadHD, 10'000'000},  {7680, 4320, R::ultraHD, 70'000'000},
      {1920, 1080, R::fullHD, 12'000'000}, {3440, 1440, R::quadHD, 26'875'000},
  };
  for (const auto& c : rates) {
    EXPECT_EQ(averageBitrate(c.width, c.height, c.preset), c.expected)
        << c.width << "x" << c.height;
  }
}

TEST_F(ScreenStreamServiceTest, SummarisesTheStream) {
  make({{"screenStreamFPS", 30}, {"screenStreamPresetHeight", 1080}});
  EXPECT_EQ(onMain([&] { return service_->streamSummary(); }), "1080p at 30 fps");
  onMain([&] { service_->refreshDisplays(); });
  ASSERT_TRUE(eventually([&] { return probe_.props.availableDisplays.size() == 1; }));
  EXPECT_EQ(probe_.read([&] { return probe_.props.availableDisplays[0].name; }),
            "Desk (1920\u00D71080)");
  auto summary = [&](StreamSettings s) {
    return onMain([&] {
      service_->applySettings(s);
      return service_->streamSummary();
    });
  };
  StreamSettings s{realDisplay, StreamResolutionPreset::fullHD, VirtualDisplayPreset::off, true, 30,
                   38142};
  EXPECT_EQ(summary(s), "1920\u00D71080 at 30 fps, HEVC, ~12 Mbps");
  s.resolutionPreset = StreamResolutionPreset::quadHD;
  s.virtualDisplayPreset = VirtualDisplayPreset::ultrawide;
  EXPECT_EQ(summary(s), "3440\u00D71440 at 30 fps, HEVC, ~27 Mbps");
  s.virtualDisplayPreset = VirtualDisplayPreset::off;
  s.selectedDisplayID = 99;
  EXPECT_EQ(summary(s), "1440p at 30 fps");
}

// Off, advertising, streaming to one and then two clients, back to advertising, off again; the
// capture runs exactly while someone streams.
TEST_F(ScreenStreamServiceTest, CapturesWhileClientsStream) {
  make();
  const std::string token = pairDevice("dev-1", "Headset");
  const std::uint16_t port = enable();
  ASSERT_NE(port, 0);
  EXPECT_TRUE(statusBecomes(advertising(port)));
  EXPECT_EQ(stored()["screenStreamEnabled"], true);
  ASSERT_TRUE(advertiser_.eventually([&] { return advertiser_.live == 1; }));
  EXPECT_EQ(advertiser_.read([&] { return advertiser_.adverts.back().txt; }),
            (TXTEntries{{"v", "3"}, {"http", std::to_string(httpPort)}}));
  EXPECT_TRUE(probe_.read([&] { return probe_.opened.empty(); }));

  auto& first = stream(port, token);
  EXPECT_TRUE(statusBecomes("Streaming to Headset."));
  ASSERT_TRUE(eventually([&] { return probe_.props.isCapturing; }));
  EXPECT_TRUE(receivesKeyframe(first));
  {
    std::lock_guard lock(probe_.mutex);
    EXPECT_EQ(probe_.opened, std::vector<std::uint32_t>{realDisplay});
    EXPECT_EQ(probe_.encoders, (std::vector<StreamEncoderSettings>{{2560, 1440, 60, 20'000'000}}));
  }

  // A second client pairs with the code; its arrival asks the running encoder for a key frame.
  const int forcedBefore = probe_.read([&] { return probe_.forcedKeyframes; });
  auto& second = connect(port);
  const std::string code = onMain([&] { return registry_->pairingCode(); });
  const auto welcome = second.handshake({std::nullopt, code, "dev-2", "Second"}, patience);
  EXPECT_TRUE(welcome.issuedToken);
  EXPECT_TRUE(statusBecomes("Streaming to Headset, Second."));
  EXPECT_TRUE(eventually([&] { return probe_.forcedKeyframes > forcedBefore; }));
  EXPECT_TRUE(receivesKeyframe(second));

  clients_.pop_back();
  EXPECT_TRUE(statusBecomes("Streaming to Headset."));
  clients_.clear();
  EXPECT_TRUE(statusBecomes(advertising(port)));
  EXPECT_TRUE(eventually([&] {
    return !probe_.props.isCapturing && probe_.liveSources == 0 && probe_.liveEncoders == 0;
  }));
  EXPECT_EQ(probe_.read([&] { return probe_.encoders.size(); }), 1u);

  onMain([&] { service_->setEnabled(false); });
  EXPECT_TRUE(statusBecomes("Streaming is off."));
  EXPECT_FALSE(onMain([&] { return service_->activePort(); }));
  EXPECT_EQ(stored()["screenStreamEnabled"], false);
}

// A wide shape creates a virtual display and captures it; mirror takes it down again, and so
// does the last client leaving.
TEST_F(ScreenStreamServiceTest, WideShapesStreamAVirtualDisplay) {
  make();
  const std::string token = pairDevice("dev-1", "Headset");
  const std::uint16_t port = enable();
  auto* client = &stream(port, token);
  EXPECT_EQ(nextShape(*client), 0);
  ASSERT_TRUE(eventually([&] { return probe_.props.isCapturing; }));

  client->send(setShape(OrinScreenShape::ultrawide));
  EXPECT_EQ(nextShape(*client), 1);
  EXPECT_TRUE(statusBecomes("Streaming to Headset as Ultrawide 21:9."));
  ASSERT_TRUE(eventually([&] { return probe_.opened.size() == 2 && probe_.props.isCapturing; }));
  {
    std::lock_guard lock(probe_.mutex);
    EXPECT_EQ(probe_.virtualCreated, (std::vector<PixelSize>{{3440, 1440}}));
    EXPECT_EQ(probe_.opened.back(), 9000u);
    EXPECT_EQ(probe_.encoders.back(), (StreamEncoderSettings{3440, 1440, 60, 26'875'000}));
    EXPECT_EQ(probe_.soleDesktopRequests, 1);
    EXPECT_EQ(probe_.liveVirtual, 1);
  }
  EXPECT_EQ(stored()["screenStreamVirtualPreset"], 1);

  // Leaving removes the display; coming back makes a new one in the stored shape.
  clients_.clear();
  EXPECT_TRUE(eventually([&] { return probe_.liveVirtual == 0 && !probe_.props.isCapturing; }));
  client = &stream(port, token);
  EXPECT_EQ(nextShape(*client), 1);
  ASSERT_TRUE(eventually([&] { return probe_.liveVirtual == 1 && probe_.props.isCapturing; }));

  client->send(setShape(OrinScreenShape::mirror));
  EXPECT_EQ(nextShape(*client), 0);
  EXPECT_TRUE(statusBecomes("Streaming to Headset."));
  EXPECT_TRUE(eventually([&] {
    return probe_.liveVirtual == 0 && probe_.props.isCapturing && probe_.liveSources == 1 &&
           probe_.opened.back() == realDisplay;
  }));
  EXPECT_EQ(probe_.read([&] { return probe_.encoders.back(); }),
            (StreamEncoderSettings{2560, 1440, 60, 20'000'000}));
  EXPECT_EQ(stored()["screenStreamVirtualPreset"], 0);
  EXPECT_TRUE(receivesKeyframe(*client));
}

TEST_F(ScreenStreamServiceTest, NotesRejectionsAndClearsThemLater) {
  probe_.virtualSupported = false;
  make();
  const std::string token = pairDevice("dev-1", "Headset");
  const std::uint16_t port = enable();
  ASSERT_TRUE(eventually([&] { return !probe_.props.supportsVirtualDisplays; }));
  auto& client = connect(port);
  EXPECT_EQ(client.handshake({token, std::nullopt, "Headset", "Headset"}, patience)
                .accepted.supportsVirtualDisplays,
            false);
  EXPECT_EQ(nextShape(client), 0);

  client.send(setShape(OrinScreenShape::superUltrawide));
  EXPECT_EQ(nextShape(client), 0);
  EXPECT_TRUE(eventually([&] {
    return probe_.props.lastRejection ==
           "A device tried to connect: Super Ultrawide 32:9 is not available. " +
               std::string(VirtualDisplayError::unsupported().what());
  }));
  EXPECT_TRUE(eventually([&] { return !probe_.props.lastRejection; }));
  EXPECT_TRUE(probe_.read([&] {
    return probe_.props.virtualDisplayPreset == VirtualDisplayPreset::off &&
           probe_.virtualCreated.empty();
  }));
  EXPECT_FALSE(stored().contains("screenStreamVirtualPreset"));

  auto& outdated = connect(port);
  outdated.send(hello(2));
  EXPECT_TRUE(eventually([&] {
    return probe_.props.lastRejection ==
           "A device tried to connect: Vantaro on the headset is out of date. Update Vantaro, "
           "then reconnect.";
  }));
}

TEST_F(ScreenStreamServiceTest, RevokedTokensAreCutOffInEveryLaterServer) {
  make();
  const std::string token = pairDevice("dev-1", "Headset");
  std::uint16_t port = enable();
  auto& client = stream(port, token);
  EXPECT_TRUE(statusBecomes("Streaming to Headset."));

  onMain([&] { service_->revoke(tokenHash(token)); });
  EXPECT_TRUE(client.waitUntilClosed(patience));
  EXPECT_TRUE(statusBecomes(advertising(port)));

  onMain([&] { service_->setEnabled(false); });
  port = enable();
  auto& again = connect(port);
  again.send(hello(3, token));
  EXPECT_TRUE(again.waitUntilClosed(patience));
}

TEST_F(ScreenStreamServiceTest, ReportsAServerThatCannotListen) {
  asio::io_context io;
  asio::ip::tcp::acceptor taken(io, {asio::ip::address_v4::loopback(), 0});
  make(json::object(), taken.local_endpoint().port());
  onMain([&] { service_->setEnabled(true); });
  EXPECT_TRUE(statusBecomes("Stream server could not start."));
  EXPECT_TRUE(probe_.read([&] {
    return probe_.props.isEnabled && probe_.props.streamError && !probe_.props.streamError->empty();
  }));
}

TEST_F(ScreenStreamServiceTest, ReportsACaptureThatStops) {
  make();
  const std::string token = pairDevice("dev-1", "Headset");
  auto& client = stream(enable(), token);
  ASSERT_TRUE(eventually([&] { return probe_.props.isCapturing; }));
  EXPECT_TRUE(receivesKeyframe(client));
  probe_.record([&] {
    probe_.grabFailure = DisplayCaptureError::connectionLost();
    probe_.grabsLeft = 0;
  });
  EXPECT_TRUE(eventually([&] {
    return probe_.props.streamError ==
               "Capture stopped: The connection to the X display was lost." &&
           !probe_.props.isCapturing && probe_.liveEncoders == 0;
  }));
}

// Clients stay connected when capture cannot start; a shape that works starts it for them.
TEST_F(ScreenStreamServiceTest, StartsCaptureForWaitingClientsWhenTheShapeChanges) {
  probe_.virtualFailure = VirtualDisplayError::connectionLost();
  make({{"screenStreamVirtualPreset", 1}});
  auto& client = stream(enable(), pairDevice("dev-1", "Headset"));
  EXPECT_EQ(nextError(client), couldNotStart(VirtualDisplayError::connectionLost().what()));
  EXPECT_FALSE(probe_.read([&] { return probe_.props.isCapturing; }));

  client.send(setShape(OrinScreenShape::mirror));
  EXPECT_TRUE(eventually([&] { return probe_.props.isCapturing && probe_.liveSources == 1; }));
  EXPECT_TRUE(receivesKeyframe(client));
}

struct FailureCase {
  std::string name;
  std::function<void(Probe&)> fault;
  json stored;
  // After the advertising port.
  std::string advertisingTail;
  std::string streamError;
  std::string clientText;
};

void PrintTo(const FailureCase& c, std::ostream* out) {
  *out << c.name;
}

class CaptureFailureTest : public ScreenStreamServiceTest,
                           public testing::WithParamInterface<FailureCase> {};

// Capture that cannot start is shown on the host and told to the streaming client, and leaves
// nothing running.
TEST_P(CaptureFailureTest, IsShownAndToldToClients) {
  const FailureCase& c = GetParam();
  c.fault(probe_);
  make(c.stored);
  const std::string token = pairDevice("dev-1", "Headset");
  const std::uint16_t port = enable();
  EXPECT_TRUE(statusBecomes("Advertising on port " + std::to_string(port) + c.advertisingTail));
  auto& client = stream(port, token);
  EXPECT_EQ(nextError(client), c.clientText);
  EXPECT_TRUE(eventually([&] {
    return probe_.props.streamError == c.streamError && !probe_.props.isCapturing &&
           probe_.liveEncoders == 0 && probe_.liveSources == 0 && probe_.liveVirtual == 0;
  }));
  EXPECT_TRUE(
      probe_.read([&] { return probe_.props.statusText; }).starts_with("Streaming to Headset"));
}

const std::string noXDisplay = DisplayCaptureError::displayServerUnreachable("").what();
const std::string encoderFailure = VideoEncoderError::sessionCreationFailed(-22).what();
const std::string tooLarge = VirtualDisplayError::tooLarge(8560, 1440, 8192, 8192).what();
const std::string waiting = ". Waiting for Vantaro.";

INSTANTIATE_TEST_SUITE_P(
    Causes, CaptureFailureTest,
    testing::Values(
        FailureCase{
            "noXDisplay",
            [](Probe& p) { p.listingFailure = DisplayCaptureError::displayServerUnreachable(""); },
            json::object(), ", but streaming is blocked until an X display is available.",
            noXDisplay, couldNotStart(noXDisplay)},
        FailureCase{
            "permission",
            [](Probe& p) { p.listingFailure = DisplayCaptureError::permissionDenied("TCC"); },
            json::object(), ", but streaming is blocked until Screen Recording is allowed.",
            DisplayCaptureError::permissionDenied("TCC").what(),
            "The Mac needs Screen Recording permission: on the Mac, allow Orin Link in "
            "System Settings > Privacy & Security > Screen Recording, then quit and "
            "reopen Orin Link."},
        FailureCase{"sharingDeclined",
                    [](Probe& p) { p.listingFailure = DisplayCaptureError::sharingDeclined(); },
                    json::object(), ", but streaming is blocked until screen sharing is allowed.",
                    DisplayCaptureError::sharingDeclined().what(),
                    couldNotStart(DisplayCaptureError::sharingDeclined().what())},
        FailureCase{"noDisplays", [](Probe& p) { p.displays.clear(); }, json::object(), waiting,
                    "No display available to capture.",
                    couldNotStart("No display available to capture.")},
        FailureCase{
            "encoder",
            [](Probe& p) { p.encoderFailure = VideoEncoderError::sessionCreationFailed(-22); },
            json::object(), waiting, encoderFailure, couldNotStart(encoderFailure)},
        FailureCase{"virtualDisplay",
                    [](Probe& p) {
                      p.virtualFailure = VirtualDisplayError::tooLarge(8560, 1440, 8192, 8192);
                    },
                    json{{"screenStreamVirtualPreset", 1}}, waiting, tooLarge,
                    couldNotStart(tooLarge)}),
    [](const testing::TestParamInfo<FailureCase>& failure) { return failure.param.name; });

}  // namespace
}  // namespace orin::screen
