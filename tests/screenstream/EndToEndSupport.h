// What the screen-streaming end-to-end tests share: the orinlink application as a child process
// on free ports, driven through its control API, and a headset's recording of what it received.
#pragma once

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "ScreenStreamClient.h"
#include "tests/core/TemporaryDirectory.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/Eventually.h"
#include "tests/support/StandInProcess.h"
#include "tests/support/XServerProcess.h"

namespace orin::device::e2e {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using Kind = OrinScreenControlMessage::Kind;
using nlohmann::json;
using testing_support::eventually;

// Bounds for things that take no time unless something is wrong; generous for ASan builds.
constexpr auto startLimit = 20s;
constexpr auto eventLimit = 10s;
constexpr std::uint64_t oneSecond = 1'000'000;  // in microseconds, the unit of frame times
// How often the host asks for a keyframe for a client waiting for one, at most.
constexpr std::int64_t recoverySpacing = 500'000;
constexpr int fps = 15;
constexpr std::uint64_t frameInterval = oneSecond / fps;

using test::readText;

// The application on free ports with its files in `directory`; stopped with SIGTERM, as a
// session ends, when this goes.
class OrinLinkApp {
 public:
  // `session` holds the desktop session's variables (DISPLAY, WAYLAND_DISPLAY...), which replace
  // the test's own; XDG_RUNTIME_DIR among them replaces the private one.
  OrinLinkApp(const fs::path& directory, const std::map<std::string, std::string>& session)
      : directory_(directory), process_(ORINLINK_PATH, directory, session, {"--no-open"}) {}

  ~OrinLinkApp() { stop(); }
  OrinLinkApp(const OrinLinkApp&) = delete;
  OrinLinkApp& operator=(const OrinLinkApp&) = delete;

  // False when the control API does not come up.
  bool waitUntilReady() {
    const std::string prefix = "Control API on 127.0.0.1:";
    const auto line = process_.waitForLine(prefix, startLimit);
    if (!line) return false;
    controlPort_ =
        static_cast<std::uint16_t>(std::stoi(line->substr(line->find(prefix) + prefix.size())));
    secret_ = readText(directory_ / "config" / "control-secret");
    while (!secret_.empty() && (secret_.back() == '\n' || secret_.back() == '\r'))
      secret_.pop_back();
    return true;
  }

  // The exit status, or nothing when it has to be killed.
  std::optional<int> stop() {
    process_.signal(SIGTERM);
    return process_.waitForExit(startLimit);
  }

  // As a crash or the OOM killer would: no handler runs.
  void kill() {
    process_.signal(SIGKILL);
    process_.waitForExit();
  }

  std::string log() { return process_.output(); }

  json state() const { return exchange("GET", "/api/state", {}); }
  json post(const std::string& path, const json& body) const {
    return exchange("POST", path, body.dump());
  }

  // Polls the state until `predicate` holds; the last state seen either way.
  template <typename Predicate>
  json waitForState(Predicate predicate, Clock::duration limit = eventLimit) const {
    json last;
    eventually(
        [&] {
          last = state();
          return predicate(last);
        },
        limit);
    return last;
  }

  std::uint16_t enableStreaming(int height, int framesPerSecond) const {
    post("/api/screen-stream/settings",
         {{"resolutionHeight", height}, {"framesPerSecond", framesPerSecond}});
    post("/api/screen-stream/enable", {{"on", true}});
    const json s =
        waitForState([](const json& j) { return j["screenStream"]["port"].is_number(); });
    return s["screenStream"]["port"].is_number() ? s["screenStream"]["port"].get<std::uint16_t>()
                                                 : 0;
  }

  std::string pairingCode() const { return state()["pairing"]["code"].get<std::string>(); }

 private:
  json exchange(const std::string& method, const std::string& path, const std::string& body) const {
    const auto reply = testing_support::httpExchange(controlPort_, method, path, body,
                                                     {{"Authorization", "Bearer " + secret_}});
    if (reply.status != 200) {
      throw std::runtime_error(method + " " + path + " answered " + std::to_string(reply.status) +
                               ": " + reply.body);
    }
    return json::parse(reply.body);
  }

  fs::path directory_;
  test::OrinLinkProcess process_;
  std::uint16_t controlPort_ = 0;
  std::string secret_;
};

struct Frame {
  std::uint64_t presentationTime = 0;
  bool keyframe = false;
  // The size of the configuration in force when it arrived.
  std::pair<std::int64_t, std::int64_t> size;
  // Its position in Recording::order.
  std::size_t position = 0;
};

// What one headset received, and the video as an Annex-B stream.
struct Recording {
  std::vector<Frame> frames;
  std::vector<OrinScreenVideoConfig> configs;
  std::vector<OrinScreenControlMessage> controls;
  // Arrival order: 'c' control, 'v' configuration, 'k' key frame, 'f' other frame.
  std::string order;
  ByteString annexB;
  AnnexBWriter writer;
  bool closed = false;

  void add(const ScreenMessage& message) {
    if (message.control) {
      controls.push_back(*message.control);
      order += 'c';
    } else if (message.config) {
      configs.push_back(*message.config);
      writer.configure(*message.config);
      order += 'v';
    } else if (message.frameHeader) {
      const auto& header = *message.frameHeader;
      std::pair<std::int64_t, std::int64_t> size;
      if (!configs.empty()) size = {configs.back().width, configs.back().height};
      frames.push_back(
          {header.presentationTimeMicroseconds, header.isKeyframe, size, order.size()});
      order += header.isKeyframe ? 'k' : 'f';
      const ByteString bytes = writer.frame(header, message.frameData());
      annexB.insert(annexB.end(), bytes.begin(), bytes.end());
    }
  }

  // Frames captured at or after `time`.
  std::vector<Frame> since(std::uint64_t time) const {
    std::vector<Frame> found;
    std::copy_if(frames.begin(), frames.end(), std::back_inserter(found),
                 [&](const Frame& f) { return f.presentationTime >= time; });
    return found;
  }

  // A keyframe of that size at or after `position`.
  bool keyframeOfSize(std::size_t position, std::int64_t width, std::int64_t height) const {
    return std::any_of(frames.begin(), frames.end(), [&](const Frame& f) {
      return f.keyframe && f.position >= position && f.size == std::pair(width, height);
    });
  }

  // For failure messages: the arrival order and the control messages.
  std::string describe() const {
    std::string text = "received " + order;
    for (const auto& control : controls)
      text += "\n  " + control.encode().dump();
    return text;
  }

  bool sawShape(OrinScreenShape shape) const {
    return std::any_of(controls.begin(), controls.end(), [&](const OrinScreenControlMessage& m) {
      return m.kind == Kind::shape && m.shape == rawValue(shape);
    });
  }
};

inline std::size_t keyframes(const std::vector<Frame>& frames) {
  return static_cast<std::size_t>(
      std::count_if(frames.begin(), frames.end(), [](const Frame& f) { return f.keyframe; }));
}

// The longest gap between frames, nominal at least: how long a frame takes in this run, which
// load stretches.
inline std::int64_t pace(const std::vector<Frame>& frames) {
  std::uint64_t longest = frameInterval;
  for (std::size_t i = 1; i < frames.size(); ++i)
    longest = std::max(longest, frames[i].presentationTime - frames[i - 1].presentationTime);
  return static_cast<std::int64_t>(longest);
}

// Receives into `recording` until `done` holds (true), the time is up or the host closes.
template <typename Done>
bool receiveUntil(ScreenStreamClient& client, Recording& recording, Clock::duration limit,
                  Done done) {
  const auto deadline = Clock::now() + limit;
  while (!done()) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
    if (left.count() <= 0 || recording.closed) return false;
    ScreenMessage message;
    switch (client.receive(message, left)) {
      case ScreenStreamClient::Received::message:
        recording.add(message);
        break;
      case ScreenStreamClient::Received::closed:
        recording.closed = true;
        break;
      case ScreenStreamClient::Received::timedOut:
        break;
    }
  }
  return true;
}

inline bool receiveFrames(ScreenStreamClient& client, Recording& recording, std::size_t count,
                          Clock::duration limit = eventLimit) {
  const std::size_t until = recording.frames.size() + count;
  return receiveUntil(client, recording, limit, [&] { return recording.frames.size() >= until; });
}

struct Headset {
  std::unique_ptr<ScreenStreamClient> client;
  ScreenStreamClient::Welcome welcome;
  // Taken as the handshake returns, right after "accepted" was read.
  std::uint64_t acceptedAt = 0;
};

inline void sendShape(ScreenStreamClient& client, OrinScreenShape shape) {
  OrinScreenControlMessage request;
  request.kind = Kind::setShape;
  request.shape = rawValue(shape);
  client.send(request);
}

inline void save(const Recording& recording, const fs::path& file) {
  std::ofstream(file, std::ios::binary)
      .write(reinterpret_cast<const char*>(recording.annexB.data()),
             static_cast<std::streamsize>(recording.annexB.size()));
}

// Writes the recording's video to `file` and decodes every frame of it with ffprobe; with
// `sizes`, the frames must have these sizes in turn, a run of one size counting once.
inline testing::AssertionResult decodes(const Recording& recording, const fs::path& file,
                                        const std::vector<std::pair<int, int>>& sizes = {}) {
  save(recording, file);
  using testing_support::shellQuoted;
  const fs::path errors = file.string() + ".errors";
  const auto [output, status] = testing_support::runShell(
      "ffprobe -v error -f hevc -show_entries frame=width,height -of csv=p=0 " +
      shellQuoted(file.string()) + " 2>" + shellQuoted(errors.string()));
  std::size_t frames = 0;
  std::vector<std::pair<int, int>> runs;
  std::istringstream lines(output);
  for (std::string line; std::getline(lines, line);) {
    std::pair<int, int> size;
    if (std::sscanf(line.c_str(), "%d,%d", &size.first, &size.second) != 2) continue;
    ++frames;
    if (runs.empty() || runs.back() != size) runs.push_back(size);
  }
  if (status != 0 || !readText(errors).empty())
    return testing::AssertionFailure() << "ffprobe failed: " << readText(errors);
  if (frames != recording.frames.size() || (!sizes.empty() && runs != sizes)) {
    return testing::AssertionFailure()
           << frames << " of " << recording.frames.size() << " frames decoded, of sizes "
           << testing::PrintToString(runs);
  }
  return testing::AssertionSuccess();
}

// One application streaming 1080p (the smallest preset, to keep two cores from saturating) at
// `fps` on a desktop session the test started, and the headsets that join it.
class StreamingApp : public ::testing::Test {
 protected:
  // `session`: the desktop session's variables for the application.
  void launch(const std::map<std::string, std::string>& session) {
    app_ = std::make_unique<OrinLinkApp>(directory_.path(), session);
    ASSERT_TRUE(app_->waitUntilReady()) << "orinlink did not start; its output:\n" << app_->log();
    port_ = app_->enableStreaming(1080, fps);
    ASSERT_NE(port_, 0) << app_->log();
  }

  void TearDown() override {
    if (!app_) return;
    // A crash, a sanitizer report or a hang on the way out is a failure of the run.
    EXPECT_EQ(app_->stop(), 0) << "orinlink did not exit cleanly; its output:\n" << app_->log();
  }

  Headset join(const std::string& name) {
    ScreenStreamClient::Options options;
    options.port = port_;
    Headset headset;
    headset.client = std::make_unique<ScreenStreamClient>(options);
    headset.welcome = headset.client->handshake(
        {std::nullopt, app_->pairingCode(), "e2e-" + name, name}, eventLimit);
    headset.acceptedAt = monotonicMicroseconds();
    return headset;
  }

  // Asks for `shape` and receives its keyframe, `width` × 1080, and a few frames after it.
  void reshape(Headset& headset, Recording& got, OrinScreenShape shape, std::int64_t width) {
    sendShape(*headset.client, shape);
    const std::size_t from = got.order.size();
    got.controls.clear();
    ASSERT_TRUE(receiveUntil(*headset.client, got, startLimit,
                             [&] { return got.keyframeOfSize(from, width, 1080); }))
        << got.describe() << "\n"
        << app_->log();
    EXPECT_TRUE(got.sawShape(shape)) << got.describe();
    ASSERT_TRUE(receiveFrames(*headset.client, got, 3, startLimit));
  }

  orin::test::TemporaryDirectory directory_;
  std::unique_ptr<OrinLinkApp> app_;
  std::uint16_t port_ = 0;
};

}  // namespace orin::device::e2e
