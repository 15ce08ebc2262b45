// The X11 capture against a real X server: an Xvfb of its own on a free display number, with the
// time-stamped test pattern running on it.

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <mutex>
#include <optional>
#include <poll.h>
#include <spawn.h>
#include <string>
#include <sys/stat.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>
#include <xcb/randr.h>
#include <xcb/xcb.h>
#include <xcb/xcbext.h>

#include <gtest/gtest.h>

#include "OrinLink/screenstream/DisplayCaptureEngine.h"
#include "OrinLink/screenstream/X11DisplayBackend.h"

#include "TestStamp.h"

extern char** environ;

namespace orin::screen {
namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

template <typename Predicate>
bool eventually(Predicate predicate, std::chrono::milliseconds limit = 10s) {
  auto deadline = Clock::now() + limit;
  while (!predicate()) {
    if (Clock::now() > deadline) return false;
    std::this_thread::sleep_for(2ms);
  }
  return true;
}

std::optional<std::string> findProgram(const std::string& name) {
  const char* path = std::getenv("PATH");
  std::string dirs = path ? path : "/usr/bin:/bin";
  std::size_t at = 0;
  while (at <= dirs.size()) {
    std::size_t end = dirs.find(':', at);
    if (end == std::string::npos) end = dirs.size();
    std::string candidate = dirs.substr(at, end - at) + "/" + name;
    if (access(candidate.c_str(), X_OK) == 0) return candidate;
    at = end + 1;
  }
  return std::nullopt;
}

pid_t spawn(const std::vector<std::string>& argv, posix_spawn_file_actions_t* actions) {
  std::vector<char*> args;
  for (const auto& a : argv)
    args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);
  pid_t pid = -1;
  if (posix_spawn(&pid, args[0], actions, nullptr, args.data(), environ) != 0) return -1;
  return pid;
}

void terminate(pid_t& pid) {
  if (pid <= 0) return;
  kill(pid, SIGTERM);
  waitpid(pid, nullptr, 0);
  pid = -1;
}

// Xvfb on the first free display number (it reports the number through -displayfd), plus the
// test pattern drawing on it.
class XServer {
 public:
  // `randr` false starts a bare server: no RandR and no MIT-SHM.
  static std::unique_ptr<XServer> start(bool randr = true) {
    auto xvfb = findProgram("Xvfb");
    if (!xvfb) return nullptr;
    auto server = std::unique_ptr<XServer>(new XServer);
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) return nullptr;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, fds[1], 3);
    posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
    std::vector<std::string> args = {*xvfb, "-displayfd", "3", "-screen", "0", "1920x1080x24"};
    args.insert(args.end(), {"-noreset", "-nolisten", "tcp"});
    args.insert(args.end(), {randr ? "+extension" : "-extension", "RANDR"});
    if (!randr) args.insert(args.end(), {"-extension", "MIT-SHM"});
    server->xvfb_ = spawn(args, &actions);
    posix_spawn_file_actions_destroy(&actions);
    close(fds[1]);
    std::string number;
    pollfd reader{fds[0], POLLIN, 0};
    auto deadline = Clock::now() + 20s;
    while (number.find('\n') == std::string::npos && Clock::now() < deadline) {
      if (poll(&reader, 1, 100) <= 0) continue;
      char buffer[16];
      ssize_t n = read(fds[0], buffer, sizeof buffer);
      if (n <= 0) break;
      number.append(buffer, static_cast<std::size_t>(n));
    }
    close(fds[0]);
    if (number.find('\n') == std::string::npos) return nullptr;
    server->display_ = ":" + number.substr(0, number.find('\n'));

    posix_spawn_file_actions_t quiet;
    posix_spawn_file_actions_init(&quiet);
    posix_spawn_file_actions_addopen(&quiet, 1, "/dev/null", O_WRONLY, 0);
    server->pattern_ =
        spawn({TEST_PATTERN_PATH, "--fps", "30", "--display", server->display_}, &quiet);
    posix_spawn_file_actions_destroy(&quiet);
    return server;
  }

  ~XServer() {
    terminate(pattern_);
    terminate(xvfb_);
  }

  const std::string& display() const { return display_; }

  // A RandR monitor of our own over part of the screen, or its removal (width 0).
  void setMonitor(const std::string& name, int x, int y, int width, int height) {
    xcb_connection_t* c = xcb_connect(display_.c_str(), nullptr);
    xcb_window_t root = xcb_setup_roots_iterator(xcb_get_setup(c)).data->root;
    auto* atom = xcb_intern_atom_reply(
        c, xcb_intern_atom(c, 0, static_cast<std::uint16_t>(name.size()), name.c_str()), nullptr);
    if (width == 0) {
      free(xcb_request_check(c, xcb_randr_delete_monitor_checked(c, root, atom->atom)));
    } else {
      // Sent by hand: libxcb 1.15's xcb_randr_set_monitor leaves part of its request vector
      // unset and fails at random.
      struct {
        std::uint8_t major = 0;
        std::uint8_t minor = XCB_RANDR_SET_MONITOR;
        std::uint16_t length = 0;
        xcb_window_t window = 0;
        xcb_randr_monitor_info_t info{};
      } request;
      request.window = root;
      request.info.name = atom->atom;
      request.info.x = static_cast<std::int16_t>(x);
      request.info.y = static_cast<std::int16_t>(y);
      request.info.width = static_cast<std::uint16_t>(width);
      request.info.height = static_cast<std::uint16_t>(height);
      request.info.width_in_millimeters = 100;
      request.info.height_in_millimeters = 100;
      iovec parts[4] = {{}, {}, {&request, sizeof request}, {}};
      xcb_protocol_request_t protocol{1, &xcb_randr_id, XCB_RANDR_SET_MONITOR, 1};
      xcb_void_cookie_t cookie{xcb_send_request(c, XCB_REQUEST_CHECKED, parts + 2, &protocol)};
      free(xcb_request_check(c, cookie));
    }
    free(atom);
    xcb_disconnect(c);
  }

 private:
  XServer() = default;
  pid_t xvfb_ = -1;
  pid_t pattern_ = -1;
  std::string display_;
};

struct Seen {
  int width = 0;
  int height = 0;
  const std::uint8_t* pixels = nullptr;
  std::uint64_t presentationTime = 0;
  std::optional<teststamp::Stamp> stamp;
  std::uint64_t checksum = 0;
};

class X11CaptureTest : public ::testing::Test {
 protected:
  void SetUp() override {
    server = XServer::start();
    if (!server) GTEST_SKIP() << "Xvfb is not available";
    backend = std::make_shared<X11DisplayBackend>(server->display());
  }

  void TearDown() override {
    engine.reset();
    server.reset();
  }

  void makeEngine(bool holdFrames = false) {
    engine = std::make_unique<DisplayCaptureEngine>(
        backend,
        [this, holdFrames](const CapturedFrame& frame) {
          Seen seen{frame.width,
                    frame.height,
                    frame.pixels,
                    frame.presentationTimeMicroseconds,
                    teststamp::readStampedTime(frame.pixels, teststamp::PixelFormat::bgra,
                                               frame.width, frame.height, frame.bytesPerRow),
                    0};
          for (int y = 0; y < frame.height; y += 7) {
            const std::uint8_t* row = frame.pixels + y * frame.bytesPerRow;
            for (int x = 0; x < frame.width * 4; x += 13)
              seen.checksum = seen.checksum * 31 + row[x];
          }
          std::lock_guard lock(mutex);
          frames.push_back(seen);
          if (holdFrames) held.push_back(frame);
        },
        [this](const std::optional<DisplayCaptureError>& error) {
          std::lock_guard lock(mutex);
          stops.push_back(error);
        });
  }

  std::size_t frameCount() {
    std::lock_guard lock(mutex);
    return frames.size();
  }

  std::uint32_t displayNamed(const std::string& name) {
    for (const auto& d : engine->availableDisplays()) {
      if (d.name.rfind(name + " (", 0) == 0) return d.id;
    }
    ADD_FAILURE() << "no display named " << name;
    return 0;
  }

  std::unique_ptr<XServer> server;
  std::shared_ptr<X11DisplayBackend> backend;
  std::unique_ptr<DisplayCaptureEngine> engine;
  std::mutex mutex;
  std::vector<Seen> frames;
  std::vector<CapturedFrame> held;
  std::vector<std::optional<DisplayCaptureError>> stops;
};

TEST_F(X11CaptureTest, ListsTheRandRMonitorsByName) {
  makeEngine();
  EXPECT_EQ(engine->availableDisplays(),
            (std::vector<CapturableDisplay>{
                {displayIdForMonitorName("screen"), "screen (1920\u00D71080)", 1920, 1080}}));
  server->setMonitor("ORIN-SIDE", 200, 100, 640, 480);
  auto displays = engine->availableDisplays();
  ASSERT_EQ(displays.size(), 2u);
  EXPECT_TRUE(std::count(displays.begin(), displays.end(),
                         CapturableDisplay{displayIdForMonitorName("ORIN-SIDE"),
                                           "ORIN-SIDE (640\u00D7480)", 640, 480}));
}

TEST_F(X11CaptureTest, CapturesMovingFramesWhoseStampTellsTheirAge) {
  makeEngine();
  engine->start(displayNamed("screen"), 1280, 720, 30);
  EXPECT_EQ(engine->streamSize(), (PixelSize{1280, 720}));
  ASSERT_TRUE(eventually([&] {
    std::lock_guard lock(mutex);
    return std::count_if(frames.begin(), frames.end(), [](const Seen& s) { return s.stamp; }) >= 6;
  })) << frameCount()
      << " frames";
  engine->stop();

  std::lock_guard lock(mutex);
  std::vector<Seen> stamped;
  std::copy_if(frames.begin(), frames.end(), std::back_inserter(stamped),
               [](const Seen& s) { return s.stamp.has_value(); });
  for (const auto& s : stamped) {
    EXPECT_EQ(s.width, 1920);
    EXPECT_EQ(s.height, 1080);
    // Frame times are taken as the grab is requested, and the pattern may draw once more before
    // the server carries it out; otherwise the stamp is older than the frame, and not by much on
    // an idle server.
    auto age = static_cast<std::int64_t>(s.presentationTime - s.stamp->timeMicroseconds);
    EXPECT_GT(age, -50'000);
    EXPECT_LT(age, 1'000'000);
  }
  EXPECT_LT(stamped.front().stamp->frameCounter, stamped.back().stamp->frameCounter);
  EXPECT_NE(stamped.front().checksum, stamped.back().checksum);
  EXPECT_TRUE(stops.empty());
}

TEST_F(X11CaptureTest, HeldFramesPauseTheCaptureAndTheirBuffersComeBack) {
  makeEngine(true);
  engine->start(displayNamed("screen"), 1920, 1080, 60);
  ASSERT_TRUE(eventually([&] { return frameCount() == 3; }));
  // All three shared buffers are held: no grab may write into them.
  EXPECT_FALSE(eventually([&] { return frameCount() > 3; }, 300ms));
  std::vector<const std::uint8_t*> buffers;
  {
    std::lock_guard lock(mutex);
    for (const auto& s : frames)
      buffers.push_back(s.pixels);
    held.clear();
  }
  std::sort(buffers.begin(), buffers.end());
  EXPECT_EQ(std::unique(buffers.begin(), buffers.end()), buffers.end());
  ASSERT_TRUE(eventually([&] { return frameCount() >= 5; }));
  engine->stop();
  std::lock_guard lock(mutex);
  held.clear();
  for (std::size_t i = 3; i < frames.size(); ++i) {
    EXPECT_TRUE(std::binary_search(buffers.begin(), buffers.end(), frames[i].pixels))
        << "frame " << i << " is not in a pooled buffer";
  }
}

TEST_F(X11CaptureTest, AMonitorRemovedMidCaptureStopsItWithDisplayNotFound) {
  server->setMonitor("ORIN-SIDE", 200, 100, 640, 480);
  makeEngine();
  engine->start(displayIdForMonitorName("ORIN-SIDE"), 1280, 960, 30);
  ASSERT_TRUE(eventually([&] { return frameCount() >= 2; }));
  {
    std::lock_guard lock(mutex);
    EXPECT_EQ(frames.back().width, 640);
    EXPECT_EQ(frames.back().height, 480);
  }
  server->setMonitor("ORIN-SIDE", 0, 0, 0, 0);
  ASSERT_TRUE(eventually([&] {
    std::lock_guard lock(mutex);
    return !stops.empty();
  }));
  std::lock_guard lock(mutex);
  ASSERT_EQ(stops.size(), 1u);
  ASSERT_TRUE(stops[0].has_value());
  EXPECT_STREQ(stops[0]->what(), "The selected display is no longer connected.");
}

TEST_F(X11CaptureTest, AnUnknownDisplayIdIsNotFound) {
  makeEngine();
  try {
    engine->start(12345, 1920, 1080, 30);
    FAIL() << "started";
  } catch (const DisplayCaptureError& error) {
    EXPECT_EQ(error.kind(), DisplayCaptureError::Kind::displayNotFound);
  }
  EXPECT_FALSE(engine->isRunning());
}

TEST(X11BareServer, CapturesTheWholeScreenWithoutRandROrSharedMemory) {
  auto server = XServer::start(false);
  if (!server) GTEST_SKIP() << "Xvfb is not available";
  auto backend = std::make_shared<X11DisplayBackend>(server->display());
  std::mutex mutex;
  std::vector<teststamp::Stamp> stamps;
  DisplayCaptureEngine engine(backend,
                              [&](const CapturedFrame& frame) {
                                auto stamp = teststamp::readStampedTime(
                                    frame.pixels, teststamp::PixelFormat::bgra, frame.width,
                                    frame.height, frame.bytesPerRow);
                                std::lock_guard lock(mutex);
                                if (stamp) stamps.push_back(*stamp);
                              },
                              {});
  EXPECT_EQ(engine.availableDisplays(),
            (std::vector<CapturableDisplay>{
                {wholeScreenDisplayID, "Display 1 (1920\u00D71080)", 1920, 1080}}));
  engine.start(wholeScreenDisplayID, 1920, 1080, 30);
  EXPECT_TRUE(eventually([&] {
    std::lock_guard lock(mutex);
    return stamps.size() >= 2 && stamps.front().frameCounter < stamps.back().frameCounter;
  }));
}

TEST(X11CaptureUnreachable, NamesTheDisplayItCouldNotReach) {
  // A display number with neither a socket nor a lock file is not served.
  int number = 4000;
  struct stat info {};
  while (stat(("/tmp/.X11-unix/X" + std::to_string(number)).c_str(), &info) == 0 ||
         stat(("/tmp/.X" + std::to_string(number) + "-lock").c_str(), &info) == 0) {
    ++number;
  }
  std::string name = ":" + std::to_string(number);
  X11DisplayBackend backend(name);
  try {
    backend.displays();
    FAIL() << "listed displays of " << name;
  } catch (const DisplayCaptureError& error) {
    EXPECT_EQ(error.kind(), DisplayCaptureError::Kind::displayServerUnreachable);
    EXPECT_EQ(std::string(error.what()),
              "Could not connect to the X display \"" + name +
                  "\". Start Orin Link inside your desktop session, or set DISPLAY to its "
                  "display.");
  }
  EXPECT_THROW(backend.open(1), DisplayCaptureError);
}

}  // namespace
}  // namespace orin::screen
