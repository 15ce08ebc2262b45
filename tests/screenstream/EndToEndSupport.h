// What the screen-streaming end-to-end tests share: the orinlink application as a child process
// on free ports, driven through its control API, and a headset's recording of what it received.
#pragma once

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "ScreenStreamClient.h"
#include "tests/core/TemporaryDirectory.h"
#include "tests/support/Eventually.h"
#include "tests/support/StandInProcess.h"
#include "tests/support/XServerProcess.h"

extern char** environ;

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
// The longest the stream goes without a keyframe, and the host's in-flight limit per client.
constexpr std::uint64_t keyframeBound = 2 * oneSecond;
constexpr std::size_t inFlight = 8;
// How often the host asks for a keyframe for a client waiting for one, at most.
constexpr std::int64_t recoverySpacing = 500'000;
// What the kernel's buffers take for a client that does not read.
constexpr std::size_t kernelBytesLimit = 256 * 1024;
constexpr int fps = 15;
constexpr std::uint64_t frameInterval = oneSecond / fps;

inline std::string readText(const fs::path& file) {
  std::ifstream in(file, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

// The application on free ports with its files in `directory`; stopped with SIGTERM, as a
// session ends, when this goes.
class OrinLinkApp {
 public:
  // `session` holds the desktop session's variables (DISPLAY=..., WAYLAND_DISPLAY=...), which
  // replace the test's own; XDG_RUNTIME_DIR among them replaces the private one.
  OrinLinkApp(const fs::path& directory, const std::vector<std::string>& session)
      : directory_(directory) {
    const fs::path config = directory / "config";
    fs::create_directories(config);
    // Nothing answers there: no Ollama of the machine's is asked anything.
    std::ofstream(config / "settings.json") << R"({"ollamaBaseURL": "http://127.0.0.1:9"})";
    // libx265 keeps allocations for the life of the process; under ASan the app would fail its
    // exit on them.
    std::ofstream(directory / "lsan.supp") << "leak:libx265.so\n";

    std::vector<std::string> arguments{ORINLINK_PATH,
                                       "--config-dir",
                                       config.string(),
                                       "--data-dir",
                                       (directory / "data").string(),
                                       "--port",
                                       "0",
                                       "--control-port",
                                       "0",
                                       "--stream-port",
                                       "0",
                                       "--no-advertise",
                                       "--no-open"};
    const auto replaced = [](std::string_view variable) {
      for (std::string_view name :
           {"DISPLAY=", "WAYLAND_DISPLAY=", "XDG_SESSION_TYPE=", "XAUTHORITY=", "HOME=",
            "XDG_CONFIG_HOME=", "XDG_DATA_HOME=", "XDG_RUNTIME_DIR=", "DBUS_SESSION_BUS_ADDRESS=",
            "PIPEWIRE_REMOTE=", "LSAN_OPTIONS="}) {
        if (variable.starts_with(name)) return true;
      }
      return false;
    };
    std::vector<std::string> environment;
    for (char** entry = environ; *entry != nullptr; ++entry) {
      if (!replaced(*entry)) environment.emplace_back(*entry);
    }
    const char* lsan = std::getenv("LSAN_OPTIONS");
    const bool ownRuntime = std::none_of(session.begin(), session.end(), [](const std::string& v) {
      return v.starts_with("XDG_RUNTIME_DIR=");
    });
    environment.insert(environment.end(), session.begin(), session.end());
    environment.push_back("HOME=" + directory.string());
    environment.push_back("XDG_CONFIG_HOME=" + (directory / "xdg-config").string());
    environment.push_back("XDG_DATA_HOME=" + (directory / "xdg-data").string());
    if (ownRuntime) environment.push_back("XDG_RUNTIME_DIR=" + directory.string());
    environment.push_back("LSAN_OPTIONS=" + std::string(lsan ? lsan : "") + (lsan ? ":" : "") +
                          "suppressions=" + (directory / "lsan.supp").string());
    std::vector<char*> argv;
    for (auto& word : arguments)
      argv.push_back(word.data());
    argv.push_back(nullptr);
    std::vector<char*> envp;
    for (auto& entry : environment)
      envp.push_back(entry.data());
    envp.push_back(nullptr);

    const int log = ::open((directory / "orinlink.log").c_str(),
                           O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (log < 0) throw std::runtime_error("cannot write the application's log");
    const pid_t parent = ::getpid();
    pid_ = ::fork();
    if (pid_ == 0) {
      // A test that dies takes the application with it.
      ::prctl(PR_SET_PDEATHSIG, SIGTERM);
      if (::getppid() != parent) ::_exit(127);
      ::dup2(log, STDOUT_FILENO);
      ::dup2(log, STDERR_FILENO);
      ::execve(argv[0], argv.data(), envp.data());
      ::_exit(127);
    }
    ::close(log);
    if (pid_ < 0) throw std::runtime_error("fork failed");
  }

  ~OrinLinkApp() { stop(); }
  OrinLinkApp(const OrinLinkApp&) = delete;
  OrinLinkApp& operator=(const OrinLinkApp&) = delete;

  // False, with the reason in `why`, when the control API does not come up.
  bool waitUntilReady(std::string& why) {
    const std::string prefix = "Control API on 127.0.0.1:";
    std::string text;
    const bool up = eventually(
        [&] {
          text = log();
          return text.find(prefix) != std::string::npos || exited();
        },
        startLimit);
    const auto at = text.find(prefix);
    if (!up || at == std::string::npos) {
      why = "orinlink did not start; its output:\n" + text;
      return false;
    }
    controlPort_ = static_cast<std::uint16_t>(std::stoi(text.substr(at + prefix.size())));
    secret_ = readText(directory_ / "config" / "control-secret");
    while (!secret_.empty() && (secret_.back() == '\n' || secret_.back() == '\r'))
      secret_.pop_back();
    return true;
  }

  // The wait status, or nullopt when it had to be killed.
  std::optional<int> stop() {
    if (pid_ <= 0) return status_;
    ::kill(pid_, SIGTERM);
    const bool ended = eventually([&] { return exited(); }, startLimit);
    if (!ended) {
      ::kill(pid_, SIGKILL);
      ::waitpid(pid_, nullptr, 0);
    }
    pid_ = -1;
    return status_;
  }

  // As a crash or the OOM killer would: no handler runs.
  void kill() {
    if (pid_ <= 0) return;
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, nullptr, 0);
    pid_ = -1;
  }

  std::string log() const { return readText(directory_ / "orinlink.log"); }

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
  bool exited() {
    if (pid_ <= 0) return true;
    int status = 0;
    if (::waitpid(pid_, &status, WNOHANG) != pid_) return false;
    status_ = status;
    pid_ = -1;
    return true;
  }

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
  pid_t pid_ = -1;
  std::optional<int> status_;
  std::uint16_t controlPort_ = 0;
  std::string secret_;
};

struct Frame {
  std::uint64_t presentationTime = 0;
  bool keyframe = false;
  std::uint64_t receivedAt = 0;
  std::size_t bytes = 0;
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
      frames.push_back({header.presentationTimeMicroseconds, header.isKeyframe,
                        message.receivedAtMicroseconds, message.payload.size(), size,
                        order.size()});
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

  // Frames captured in [from, to) and received by `to`, per second of that span.
  double rate(std::uint64_t from, std::uint64_t to) const {
    const auto count = std::count_if(frames.begin(), frames.end(), [&](const Frame& f) {
      return f.presentationTime >= from && f.receivedAt < to;
    });
    return static_cast<double>(count) * 1e6 / static_cast<double>(to - from);
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

struct Probe {
  std::vector<std::pair<int, int>> frameSizes;
  std::string errors;
  int status = -1;
};

// Writes the recording's video to `file` and decodes every frame of it with ffprobe.
inline Probe probe(const Recording& recording, const fs::path& file) {
  std::ofstream(file, std::ios::binary)
      .write(reinterpret_cast<const char*>(recording.annexB.data()),
             static_cast<std::streamsize>(recording.annexB.size()));
  using testing_support::shellQuoted;
  const fs::path errors = file.string() + ".errors";
  const auto [output, status] = testing_support::runShell(
      "ffprobe -v error -f hevc -show_entries frame=width,height -of csv=p=0 " +
      shellQuoted(file.string()) + " 2>" + shellQuoted(errors.string()));
  Probe result;
  result.status = status;
  result.errors = readText(errors);
  std::istringstream lines(output);
  for (std::string line; std::getline(lines, line);) {
    int width = 0;
    int height = 0;
    if (std::sscanf(line.c_str(), "%d,%d", &width, &height) == 2)
      result.frameSizes.emplace_back(width, height);
  }
  return result;
}

template <typename Microseconds>
double seconds(Microseconds microseconds) {
  return static_cast<double>(microseconds) / 1e6;
}

// One application streaming 1080p (the smallest preset, to keep two cores from saturating) at
// `fps` on a desktop session the test started, and the headsets that join it.
class StreamingApp : public ::testing::Test {
 protected:
  // `session`: the desktop session's variables for the application.
  void launch(const std::vector<std::string>& session) {
    app_ = std::make_unique<OrinLinkApp>(directory_.path(), session);
    std::string why;
    ASSERT_TRUE(app_->waitUntilReady(why)) << why;
    port_ = app_->enableStreaming(1080, fps);
    ASSERT_NE(port_, 0) << app_->log();
  }

  void TearDown() override {
    if (!app_) return;
    const auto status = app_->stop();
    // A crash, a sanitizer report or a hang on the way out is a failure of the run.
    EXPECT_TRUE(status && WIFEXITED(*status) && WEXITSTATUS(*status) == 0)
        << "orinlink did not exit cleanly; its output:\n"
        << app_->log();
  }

  Headset join(const std::string& name, std::optional<int> receiveBufferBytes = std::nullopt) {
    ScreenStreamClient::Options options;
    options.port = port_;
    options.receiveBufferBytes = receiveBufferBytes;
    Headset headset;
    headset.client = std::make_unique<ScreenStreamClient>(options);
    headset.welcome = headset.client->handshake(
        {std::nullopt, app_->pairingCode(), "e2e-" + name, name}, eventLimit);
    headset.acceptedAt = monotonicMicroseconds();
    return headset;
  }

  orin::test::TemporaryDirectory directory_;
  std::unique_ptr<OrinLinkApp> app_;
  std::uint16_t port_ = 0;
};

}  // namespace orin::device::e2e
