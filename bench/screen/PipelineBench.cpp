// orin_screen_bench: the screen pipeline end to end against ffmpeg, on one X display showing the
// time-stamped test pattern. For one picture size it measures, one after the other:
//
//   encoder   captured frames fed to VideoEncoder one at a time: what the encoder alone can do
//   orinlink  capture -> encoder -> ScreenStreamServer (127.0.0.1, a child process) -> a client
//   stalled   the same with a second client that authenticates and never reads
//   ffmpeg    ffmpeg -f x11grab ... -c:v libx265 ... -f avi pipe:1
//   wayland   orinlink capturing through the Wayland desktop's screen cast instead of X11
//
// Both streams go through the same HEVC decoder, and a picture's delay is the time it came out of
// the decoder minus the time the pattern stamped into it. scripts/bench-screen.sh starts the X
// server (or the GNOME session for the wayland phase), runs every size and collects the results.

#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <initializer_list>
#include <iostream>
#include <limits>
#include <mutex>
#include <pthread.h>
#include <regex>
#include <thread>
#include <unistd.h>

#include <boost/asio/co_spawn.hpp>
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/address_v4.hpp>
#include <boost/asio/use_future.hpp>
#include <nlohmann/json.hpp>

#include "OrinLink/screenstream/DisplayCaptureEngine.h"
#include "OrinLink/screenstream/ScreenStreamServer.h"
#include "OrinLink/screenstream/VideoEncoder.h"
#include "OrinLink/screenstream/WaylandCapture.h"
#include "OrinLink/screenstream/X11DisplayBackend.h"

#include "PipelineSupport.h"
#include "ScreenStreamClient.h"

namespace {

using namespace orin::screenbench;
using nlohmann::ordered_json;
namespace asio = boost::asio;
using orin::screen::CapturedFrame;
using orin::screen::EncodedVideoFrame;
using orin::screen::VideoEncoder;

constexpr std::string_view token = "pipeline-bench-token";
// The delay is taken as not growing when the last window's median is within this of the first's.
constexpr double growthAllowance = 1.10;
constexpr double rssGrowthAllowanceKiB = 2048;

struct Options {
  std::string size = "1920x1080";
  int width = 0;
  int height = 0;
  int fps = 60;
  int patternFps = 0;
  std::int64_t bitrate = 0;
  double seconds = 20;
  // orinlink and ffmpeg alternate this many times; the goals take the median of each pair's ratio.
  int rounds = 3;
  double warmup = 3;
  double encoderSeconds = 30;
  bool quick = false;
  std::string display;
  std::string ffmpeg = "ffmpeg";
  std::vector<std::string> phases{"encoder", "orinlink", "stalled", "ffmpeg"};
  std::string out;
  bool host = false;
  // The host's capture: "x11" or "wayland".
  std::string capture = "x11";
  std::vector<std::string> summarize;
};

bool wants(const Options& options, std::string_view phase) {
  return std::find(options.phases.begin(), options.phases.end(), phase) != options.phases.end();
}

double milliseconds(std::uint64_t later, std::uint64_t earlier) {
  return (static_cast<double>(later) - static_cast<double>(earlier)) / 1000.0;
}

// The base rates of the stream presets for these heights.
std::int64_t defaultBitrate(int height) {
  return height >= 1440 ? 20'000'000 : 12'000'000;
}

// --- The pipeline in a child process ------------------------------------------------------------

asio::awaitable<bool> checkToken(std::string expected, std::string offered) {
  co_return offered == expected;
}

asio::awaitable<orin::OrinScreenShape> mirrorShape() {
  co_return orin::OrinScreenShape::mirror;
}

std::string environment(const char* name) {
  const char* value = std::getenv(name);
  if (!value || !*value) fail(std::string("not in a Wayland session: ") + name + " is not set");
  return value;
}

std::shared_ptr<orin::screen::DisplayBackend> displayBackend(const Options& options) {
  if (options.capture == "x11") return std::make_shared<orin::screen::X11DisplayBackend>();
  // The directory is where the portal would keep its restore token; GNOME's screen cast keeps none.
  // A compositor rendering without a GPU on two busy cores may take longer than the app's 10 s
  // to send its first picture.
  return orin::screen::makeWaylandBindings(
             {environment("XDG_RUNTIME_DIR"), std::chrono::seconds(30)})
      .displays;
}

std::uint32_t displayOfSize(orin::screen::DisplayCaptureEngine& capture, const Options& options) {
  const auto displays = capture.availableDisplays();
  if (displays.empty()) fail("the desktop lists no display");
  const auto& display = displays.front();
  if (display.pointWidth != options.width || display.pointHeight != options.height) {
    fail("the display is " + std::to_string(display.pointWidth) + "x" +
         std::to_string(display.pointHeight) + ", not " + options.size);
  }
  return display.id;
}

ordered_json hostStatistics(const VideoEncoder& encoder, orin::screen::ScreenStreamServer& server,
                            asio::io_context& mainContext) {
  const auto figures = encoder.statistics();
  ordered_json stats{{"encoder", encoder.backendName()},
                     {"submitted", figures.submitted},
                     {"replaced", figures.replaced},
                     {"delivered", figures.delivered},
                     {"failed", figures.failed},
                     {"busyMs", figures.busyMicroseconds / 1000},
                     {"idleMs", figures.idleMicroseconds / 1000},
                     {"convertMs", figures.convertMicroseconds / 1000}};
  auto sessions = asio::co_spawn(mainContext, server.statistics(), asio::use_future).get();
  stats["sessions"] = ordered_json::array();
  for (const auto& session : sessions) {
    stats["sessions"].push_back({{"name", session.displayName},
                                 {"streaming", session.isStreaming},
                                 {"peakPending", session.peakPendingVideoSends},
                                 {"queued", session.videoFramesQueued},
                                 {"dropped", session.videoFramesDropped}});
  }
  return stats;
}

// The application's pipeline as the stream service wires it: capture feeds the encoder, the
// encoder's frames go to the server, and a session's keyframe request reaches the encoder. Prints
// the port, answers "stats" on stdin with one JSON line, ends at the end of stdin.
int runHost(const Options& options) {
  asio::io_context serverContext;
  asio::io_context mainContext;
  auto serverWork = asio::make_work_guard(serverContext);
  auto mainWork = asio::make_work_guard(mainContext);
  std::thread serverThread([&] {
    pthread_setname_np(pthread_self(), "bench.server");
    serverContext.run();
  });
  std::thread mainThread([&] {
    pthread_setname_np(pthread_self(), "bench.main");
    mainContext.run();
  });

  std::mutex encoderMutex;
  VideoEncoder* liveEncoder = nullptr;
  orin::screen::ScreenStreamServer::Callbacks callbacks;
  callbacks.authenticate = [](std::string offered) {
    return checkToken(std::string(token), std::move(offered));
  };
  callbacks.needsKeyframe = [&] {
    std::lock_guard lock(encoderMutex);
    if (liveEncoder) liveEncoder->forceKeyframe();
  };
  callbacks.currentShape = [] { return mirrorShape(); };
  orin::screen::ScreenStreamServer::Options serverOptions;
  serverOptions.port = 0;
  serverOptions.bindAddress = asio::ip::address_v4::loopback();
  serverOptions.hostName = "benchmark";
  orin::screen::ScreenStreamServer server(serverOptions, serverContext.get_executor(),
                                          mainContext.get_executor(), callbacks);
  const std::uint16_t port = server.start();

  {
    // Threads take their creator's name: x265 starts its pool in the encoder's constructor, and
    // this way its workers can be told apart in /proc.
    pthread_setname_np(pthread_self(), "x265.pool");
    VideoEncoder encoder(
        options.width, options.height, options.fps, options.bitrate,
        [&server](EncodedVideoFrame frame) { server.broadcast(std::move(frame)); });
    pthread_setname_np(pthread_self(), "bench.host");
    {
      std::lock_guard lock(encoderMutex);
      liveEncoder = &encoder;
    }
    orin::screen::DisplayCaptureEngine capture(
        displayBackend(options), [&encoder](const CapturedFrame& frame) { encoder.encode(frame); },
        {});
    try {
      capture.start(displayOfSize(capture, options), options.width, options.height, options.fps,
                    encoder.pacer());
    } catch (const orin::screen::DisplayCaptureError& error) {
      fail(std::string("cannot capture: ") + error.what());
    }
    std::cout << "port " << port << std::endl;

    for (std::string line; std::getline(std::cin, line);) {
      if (line == "stats")
        std::cout << hostStatistics(encoder, server, mainContext).dump() << std::endl;
    }
    capture.stop();
    std::lock_guard lock(encoderMutex);
    liveEncoder = nullptr;
  }
  server.stop();
  serverWork.reset();
  mainWork.reset();
  serverContext.stop();
  mainContext.stop();
  serverThread.join();
  mainThread.join();
  return 0;
}

// --- Recording one stream -----------------------------------------------------------------------

// The receipt of one picture of our stream split at the capture and the socket read.
struct Breakdown {
  std::uint64_t grabbedAt = 0;
  std::uint64_t receivedAt = 0;
};

// A process of the desktop that works for a capture: the X server copies every grab; on Wayland
// mutter copies every frame into the stream, Xwayland hands it the pattern's pictures, and
// PipeWire passes the buffers on.
struct DisplayProcess {
  std::string name;
  pid_t pid = 0;
  double cpuBefore = 0;
  double cpuAfter = 0;
};

// Watches one decoded stream: the clock starts at its first picture, the warm-up is left out,
// and during the measured window the producing process's CPU time, threads and RSS are taken,
// and the CPU time of the desktop's processes.
class Recorder {
 public:
  Recorder(pid_t producer, std::vector<DisplayProcess> display, double warmup, double seconds)
      : producer_(producer), display_(std::move(display)), warmup_(warmup), seconds_(seconds) {}

  ~Recorder() { stopSampler(); }

  void add(const StampDecoder::Picture& picture, std::size_t bytes, std::optional<bool> keyframe,
           std::optional<Breakdown> breakdown = {}) {
    tick(picture.decodedAtMicroseconds);
    if (state_ != State::measuring) return;
    ++frames_;
    bytes_ += bytes;
    if (keyframe && *keyframe) ++keyframes_;
    arrivals_.push_back({milliseconds(picture.decodedAtMicroseconds, windowStart_) / 1000.0,
                         keyframe.value_or(false)});
    if (!picture.stampMicroseconds) {
      ++unreadable_;
      return;
    }
    const std::uint64_t stamp = *picture.stampMicroseconds;
    if (stamp == lastStamp_) ++repeats_;
    lastStamp_ = stamp;
    times_.push_back(milliseconds(picture.decodedAtMicroseconds, windowStart_) / 1000.0);
    delays_.push_back(milliseconds(picture.decodedAtMicroseconds, stamp));
    if (breakdown) {
      stampToGrab_.push_back(milliseconds(breakdown->grabbedAt, stamp));
      grabToReceipt_.push_back(milliseconds(breakdown->receivedAt, breakdown->grabbedAt));
      receiptToDecoded_.push_back(
          milliseconds(picture.decodedAtMicroseconds, breakdown->receivedAt));
    }
  }

  // Moves through warm-up and window; also called when nothing arrives.
  void tick(std::uint64_t now) {
    if (state_ == State::waiting) {
      firstPicture_ = now;
      state_ = State::warmingUp;
    }
    if (state_ == State::warmingUp &&
        now >= firstPicture_ + static_cast<std::uint64_t>(warmup_ * 1e6)) {
      state_ = State::measuring;
      windowStart_ = now;
      cpuBefore_ = processCpuSeconds(producer_);
      clientBefore_ = processCpuSeconds(::getpid());
      for (auto& process : display_)
        process.cpuBefore = processCpuSeconds(process.pid);
      threadsBefore_ = threadTimes(producer_);
      startSampler();
    }
    if (state_ == State::measuring &&
        now >= windowStart_ + static_cast<std::uint64_t>(seconds_ * 1e6)) {
      windowEnd_ = now;
      cpuAfter_ = processCpuSeconds(producer_);
      clientAfter_ = processCpuSeconds(::getpid());
      for (auto& process : display_)
        process.cpuAfter = processCpuSeconds(process.pid);
      threadsAfter_ = threadTimes(producer_);
      stopSampler();
      state_ = State::done;
    }
  }

  bool done() const { return state_ == State::done; }
  bool started() const { return state_ != State::waiting; }

  ordered_json result() const {
    const double wall = milliseconds(windowEnd_, windowStart_) / 1000.0;
    const double edge = std::min(10.0, seconds_ / 3.0);
    std::vector<double> first, last;
    for (std::size_t i = 0; i < times_.size(); ++i) {
      if (times_[i] < edge) first.push_back(delays_[i]);
      if (times_[i] >= wall - edge) last.push_back(delays_[i]);
    }
    const Percentiles delay = percentiles(delays_);
    const double cpu = wall > 0 ? (cpuAfter_ - cpuBefore_) / wall : 0;
    const auto perFrame = [&](double cores) {
      return frames_ > 0 ? cores * wall * 1000.0 / static_cast<double>(frames_) : 0;
    };
    ordered_json out{
        {"seconds", wall},
        {"frames", frames_},
        {"framesPerSecond", wall > 0 ? static_cast<double>(frames_) / wall : 0},
        // Pictures the display had not shown in the frame before: a compositor slower than the
        // encoder hands over the same picture again.
        {"newPicturesPerSecond", wall > 0 ? static_cast<double>(frames_ - repeats_) / wall : 0},
        {"megabitsPerSecond", wall > 0 ? static_cast<double>(bytes_) * 8 / wall / 1e6 : 0},
        {"keyframes", keyframes_},
        {"unreadableStamps", unreadable_},
        {"repeatedStamps", repeats_},
        {"delayMs", delay.toJSON()},
        {"windowSeconds", edge},
        {"firstWindowP50Ms", percentiles(first).p50},
        {"lastWindowP50Ms", percentiles(last).p50},
        {"slopeMsPerMinute", slope(times_, delays_) * 60.0},
        {"cpuCores", cpu},
        {"clientCpuCores", wall > 0 ? (clientAfter_ - clientBefore_) / wall : 0},
        {"cpuMsPerFrame", perFrame(cpu)},
    };
    ordered_json display = ordered_json::object();
    double displayMsPerFrame = 0;
    for (const auto& process : display_) {
      const double cores = wall > 0 ? (process.cpuAfter - process.cpuBefore) / wall : 0;
      display[process.name] = {
          {"pid", process.pid}, {"cores", cores}, {"msPerFrame", perFrame(cores)}};
      displayMsPerFrame += perFrame(cores);
    }
    out["displayCpu"] = display;
    out["displayCpuMsPerFrame"] = displayMsPerFrame;
    if (!stampToGrab_.empty()) {
      out["breakdownP50Ms"] = {{"stampToGrab", percentiles(stampToGrab_).p50},
                               {"grabToReceipt", percentiles(grabToReceipt_).p50},
                               {"receiptToDecoded", percentiles(receiptToDecoded_).p50}};
      out["breakdownP99Ms"] = {{"stampToGrab", percentiles(stampToGrab_).p99},
                               {"grabToReceipt", percentiles(grabToReceipt_).p99},
                               {"receiptToDecoded", percentiles(receiptToDecoded_).p99}};
    }
    ordered_json threads = ordered_json::object();
    for (const auto& [name, share] : threadShares(threadsBefore_, threadsAfter_, wall))
      threads[name] = share;
    out["threadCores"] = threads;
    out["timeline"] = timeline(edge);
    std::lock_guard lock(samplerMutex_);
    if (!rss_.empty()) {
      out["rssKiB"] = {{"start", rss_.front()},
                       {"end", rss_.back()},
                       {"max", *std::max_element(rss_.begin(), rss_.end())},
                       {"samples", rss_.size()}};
    }
    return out;
  }

 private:
  enum class State { waiting, warmingUp, measuring, done };

  // Slices of the window: where a change happened, and whether it came and went or stayed.
  ordered_json timeline(double slice) const {
    ordered_json out = ordered_json::array();
    for (double from = 0; from + slice / 2 < seconds_; from += slice) {
      const auto in = [&](double t) { return t >= from && t < from + slice; };
      std::vector<double> delays;
      for (std::size_t i = 0; i < times_.size(); ++i) {
        if (in(times_[i])) delays.push_back(delays_[i]);
      }
      const auto frames = std::count_if(arrivals_.begin(), arrivals_.end(),
                                        [&](const Arrival& a) { return in(a.at); });
      const auto keyframes =
          std::count_if(arrivals_.begin(), arrivals_.end(),
                        [&](const Arrival& a) { return a.keyframe && in(a.at); });
      out.push_back({{"fromSeconds", from},
                     {"framesPerSecond", static_cast<double>(frames) / slice},
                     {"keyframes", keyframes},
                     {"delayP50Ms", percentiles(delays).p50}});
    }
    return out;
  }

  void startSampler() {
    sampler_ = std::thread([this] {
      std::unique_lock lock(samplerMutex_);
      do {
        rss_.push_back(residentKiB(producer_));
      } while (!stopSampling_.wait_for(lock, std::chrono::milliseconds(500),
                                       [this] { return samplerStop_; }));
      rss_.push_back(residentKiB(producer_));
    });
  }

  void stopSampler() {
    {
      std::lock_guard lock(samplerMutex_);
      samplerStop_ = true;
    }
    stopSampling_.notify_all();
    if (sampler_.joinable()) sampler_.join();
  }

  pid_t producer_;
  std::vector<DisplayProcess> display_;
  double warmup_;
  double seconds_;
  State state_ = State::waiting;
  std::uint64_t firstPicture_ = 0;
  std::uint64_t windowStart_ = 0;
  std::uint64_t windowEnd_ = 0;
  std::uint64_t frames_ = 0;
  std::uint64_t unreadable_ = 0;
  std::uint64_t repeats_ = 0;
  std::uint64_t bytes_ = 0;
  std::uint64_t keyframes_ = 0;
  std::uint64_t lastStamp_ = 0;
  std::vector<double> times_, delays_, stampToGrab_, grabToReceipt_, receiptToDecoded_;
  double cpuBefore_ = 0, cpuAfter_ = 0;
  double clientBefore_ = 0, clientAfter_ = 0;
  struct Arrival {
    double at;
    bool keyframe;
  };
  std::vector<Arrival> arrivals_;
  ThreadTimes threadsBefore_, threadsAfter_;
  mutable std::mutex samplerMutex_;
  std::condition_variable stopSampling_;
  bool samplerStop_ = false;
  std::vector<long> rss_;
  std::thread sampler_;
};

// --- The phases ---------------------------------------------------------------------------------

std::chrono::milliseconds phaseBound(const Options& options) {
  return std::chrono::milliseconds(
      static_cast<long>((options.warmup + options.seconds + 60) * 1e3));
}

// The desktop's processes whose CPU time counts beside the pipeline's; one not found is left out.
std::vector<DisplayProcess> displayProcesses(const Options& options, std::string_view capture) {
  std::vector<std::pair<std::string, std::optional<pid_t>>> found;
  if (capture == "x11") {
    found = {{"X server", xServerPid(options.display)}};
  } else {
    const std::filesystem::path runtime = environment("XDG_RUNTIME_DIR");
    found = {{"mutter", socketHolder(runtime / environment("WAYLAND_DISPLAY"), "mutter")},
             {"Xwayland", xServerPid(options.display, "Xwayland")},
             {"pipewire", socketHolder(runtime / "pipewire-0", "pipewire")}};
  }
  std::vector<DisplayProcess> processes;
  for (const auto& [name, pid] : found) {
    if (pid) {
      processes.push_back({name, *pid});
    } else {
      std::cerr << "orin_screen_bench: no " << name << " process found; its CPU is left out\n";
    }
  }
  return processes;
}

ordered_json measureOrinLink(const Options& options, bool withStalledClient,
                             std::string_view capture) {
  ChildProcess host(
      {"/proc/self/exe", "--host", "--capture", std::string(capture), "--size", options.size,
       "--fps", std::to_string(options.fps), "--bitrate", std::to_string(options.bitrate)},
      true, true);
  // Beyond the capture's own start timeout.
  const auto portLine = host.readLine(60'000);
  if (!portLine || !portLine->starts_with("port ")) fail("the pipeline did not start");
  orin::device::ScreenStreamClient::Options clientOptions;
  clientOptions.port = static_cast<std::uint16_t>(std::stoi(portLine->substr(5)));
  orin::device::ScreenStreamClient::Credentials credentials;
  credentials.token = std::string(token);
  credentials.deviceId = "reader";
  credentials.deviceName = "reader";
  orin::device::ScreenStreamClient reader(clientOptions);
  reader.handshake(credentials, std::chrono::seconds(10));
  const std::uint64_t acceptedAt = nowMicroseconds();
  std::optional<std::uint64_t> firstPictureAt;

  std::optional<orin::device::ScreenStreamClient> stalled;
  if (withStalledClient) {
    auto stalledOptions = clientOptions;
    // A small window fills after a few frames, so the host feels the stall at once.
    stalledOptions.receiveBufferBytes = 16 * 1024;
    credentials.deviceId = credentials.deviceName = "stalled";
    stalled.emplace(stalledOptions);
    stalled->handshake(credentials, std::chrono::seconds(10));
  }

  StampDecoder decoder;
  orin::device::AnnexBWriter annexB;
  Recorder recorder(host.pid(), displayProcesses(options, capture), options.warmup,
                    options.seconds);
  const auto bound = std::chrono::steady_clock::now() + phaseBound(options);
  while (!recorder.done()) {
    if (std::chrono::steady_clock::now() > bound) fail("no pictures came through in time");
    orin::device::ScreenMessage message;
    const auto received = reader.receive(message, std::chrono::milliseconds(500));
    if (received == orin::device::ScreenStreamClient::Received::closed)
      fail("the pipeline closed the stream");
    if (received == orin::device::ScreenStreamClient::Received::message) {
      if (message.config) annexB.configure(*message.config);
      if (message.frameHeader) {
        const auto unit = annexB.frame(*message.frameHeader, message.frameData());
        if (auto picture = decoder.decode(unit)) {
          if (!firstPictureAt) firstPictureAt = picture->decodedAtMicroseconds;
          recorder.add(*picture, message.payload.size(), message.frameHeader->isKeyframe,
                       Breakdown{message.frameHeader->presentationTimeMicroseconds,
                                 message.receivedAtMicroseconds});
          continue;
        }
      }
    }
    if (recorder.started()) recorder.tick(nowMicroseconds());
  }
  ordered_json result = recorder.result();
  result["decodeErrors"] = decoder.errors();
  // From the client's acceptance to its first decoded picture: what a user waits for on joining.
  if (firstPictureAt) result["firstFrameMs"] = milliseconds(*firstPictureAt, acceptedAt);
  if (::write(host.stdinFd(), "stats\n", 6) == 6) {
    if (auto line = host.readLine(10'000)) result["host"] = ordered_json::parse(*line);
  }
  const int status = host.stop();
  if (status != 0) fail("the pipeline process ended with status " + std::to_string(status));
  return result;
}

std::vector<std::string> ffmpegCommand(const Options& options) {
  const std::int64_t kbps = options.bitrate / 1000;
  return {options.ffmpeg, "-hide_banner", "-nostdin", "-loglevel", "error", "-f", "x11grab",
          "-framerate", std::to_string(options.fps), "-video_size", options.size, "-i",
          options.display, "-c:v", "libx265", "-preset", "ultrafast", "-tune", "zerolatency",
          // The rate control of our encoder, so that both spend the same bits the same way.
          "-x265-params",
          "keyint=" + std::to_string(2 * options.fps) +
              ":bframes=0:rc-lookahead=0:scenecut=0:open-gop=0:repeat-headers=1:info=0"
              ":log-level=error:vbv-maxrate=" +
              std::to_string(kbps) + ":vbv-bufsize=" + std::to_string(kbps / 4),
          "-b:v", std::to_string(options.bitrate),
          // Left to itself ffmpeg hands x265 planar RGB (4:4:4), the nearest format to the
          // capture's; the stream it is compared with is 4:2:0.
          "-pix_fmt", "yuv420p",
          // Every captured picture once: no duplicates to make up a constant rate.
          "-fps_mode", "passthrough", "-flush_packets", "1",
          // AVI frames every packet as a chunk with its length, so a picture is complete the
          // moment its last byte arrives (a raw HEVC stream shows that only with the next one).
          "-f", "avi", "pipe:1"};
}

ordered_json measureFfmpeg(const Options& options) {
  const auto command = ffmpegCommand(options);
  ChildProcess ffmpeg(command, false, true);
  StampDecoder decoder;
  AviChunkReader chunks;
  Recorder recorder(ffmpeg.pid(), displayProcesses(options, "x11"), options.warmup,
                    options.seconds);
  std::vector<std::uint8_t> buffer(1 << 20);
  const auto bound = std::chrono::steady_clock::now() + phaseBound(options);
  while (!recorder.done()) {
    if (std::chrono::steady_clock::now() > bound) fail("ffmpeg delivered no pictures in time");
    if (waitReadable(ffmpeg.stdoutFd(), 500)) {
      const ssize_t n = ::read(ffmpeg.stdoutFd(), buffer.data(), buffer.size());
      if (n <= 0) fail("ffmpeg ended early; its command: " + command.front() + " ...");
      chunks.append({buffer.data(), static_cast<std::size_t>(n)});
      AviChunkReader::Chunk chunk;
      while (chunks.next(chunk)) {
        if (chunk.data.empty() || !chunk.code.starts_with("00d")) continue;
        if (auto picture = decoder.decode(chunk.data))
          recorder.add(*picture, chunk.data.size(), std::nullopt);
      }
    }
    if (recorder.started()) recorder.tick(nowMicroseconds());
  }
  ordered_json result = recorder.result();
  result["decodeErrors"] = decoder.errors();
  std::string line;
  for (const auto& arg : command)
    line += (line.empty() ? "" : " ") + arg;
  result["command"] = line;
  // Asked to stop, ffmpeg finishes the file; reading on lets it write its last bytes.
  ffmpeg.signal(SIGTERM);
  const auto drainBound = std::chrono::steady_clock::now() + std::chrono::seconds(5);
  while (std::chrono::steady_clock::now() < drainBound && waitReadable(ffmpeg.stdoutFd(), 500) &&
         ::read(ffmpeg.stdoutFd(), buffer.data(), buffer.size()) > 0) {
  }
  ffmpeg.closeStdout();
  ffmpeg.stop(0);
  return result;
}

// Frames grabbed from the display one at a time and each encoded before the next is grabbed, so
// the mailbox never replaces one: the encoder's own rate on these pictures.
ordered_json measureEncoderAlone(const Options& options) {
  orin::screen::X11DisplayBackend backend(options.display);
  const auto displays = backend.displays();
  if (displays.empty()) fail("the X server lists no display");
  auto source = backend.open(displays.front().id);

  std::mutex mutex;
  std::condition_variable arrived;
  std::uint64_t delivered = 0;
  VideoEncoder encoder(options.width, options.height, options.fps, options.bitrate,
                       [&](EncodedVideoFrame) {
                         std::lock_guard lock(mutex);
                         ++delivered;
                         arrived.notify_one();
                       });
  std::vector<double> encodeMs;
  double encodeSeconds = 0;
  const std::uint64_t begin = nowMicroseconds();
  const auto warmupEnd = begin + static_cast<std::uint64_t>(options.warmup * 1e6);
  const auto end = warmupEnd + static_cast<std::uint64_t>(options.encoderSeconds * 1e6);
  std::uint64_t expected = 0;
  while (nowMicroseconds() < end) {
    std::optional<CapturedFrame> frame = source->grab();
    if (!frame) continue;
    const std::uint64_t submitted = nowMicroseconds();
    encoder.encode(*frame);
    frame.reset();
    std::unique_lock lock(mutex);
    ++expected;
    if (!arrived.wait_for(lock, std::chrono::seconds(10), [&] { return delivered >= expected; }))
      fail("the encoder delivered nothing for 10 s");
    const std::uint64_t done = nowMicroseconds();
    if (submitted >= warmupEnd) {
      encodeMs.push_back(milliseconds(done, submitted));
      encodeSeconds += milliseconds(done, submitted) / 1000.0;
    }
  }
  const auto statistics = encoder.statistics();
  return {{"frames", encodeMs.size()},
          {"encodeSeconds", encodeSeconds},
          {"framesPerSecond",
           encodeSeconds > 0 ? static_cast<double>(encodeMs.size()) / encodeSeconds : 0},
          {"encodeMs", percentiles(encodeMs).toJSON()},
          {"replaced", statistics.replaced},
          {"encoder", encoder.backendName()}};
}

// --- Goals and tables ---------------------------------------------------------------------------

double number(const ordered_json& object, std::initializer_list<std::string_view> path) {
  const ordered_json* at = &object;
  for (auto key : path) {
    const auto found = at->find(std::string(key));
    if (found == at->end()) return 0;
    at = &*found;
  }
  return at->is_number() ? at->get<double>() : 0;
}

ordered_json goal(std::string text, double measured, double reference, double ratio, double target,
                  bool atMost) {
  return {{"goal", std::move(text)}, {"measured", measured},
          {"reference", reference},  {"ratio", ratio},
          {"target", target},        {"met", atMost ? ratio <= target : ratio >= target}};
}

double median(std::vector<double> values) {
  if (values.empty()) return 0;
  std::sort(values.begin(), values.end());
  const std::size_t middle = values.size() / 2;
  return values.size() % 2 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
}

// One measure of orinlink against ffmpeg over the rounds: the median of each side, and the median
// of the pairwise ratios, which a slow minute on a shared machine moves far less than one pair.
struct Paired {
  double ours = 0;
  double peer = 0;
  double ratio = 0;
};

Paired paired(const ordered_json& rounds, std::initializer_list<std::string_view> path) {
  std::vector<double> ours, peer, ratios;
  for (const auto& round : rounds) {
    if (!round.contains("orinlink") || !round.contains("ffmpeg")) continue;
    const double a = number(round["orinlink"], path);
    const double b = number(round["ffmpeg"], path);
    ours.push_back(a);
    peer.push_back(b);
    if (b > 0) ratios.push_back(a / b);
  }
  return {median(ours), median(peer), median(ratios)};
}

ordered_json evaluate(const ordered_json& run) {
  const ordered_json& phases = run["phases"];
  const ordered_json rounds = run.value("rounds", ordered_json::array());
  ordered_json goals = ordered_json::array();
  const auto has = [&](std::string_view name) { return phases.contains(std::string(name)); };
  const auto ratio = [](double a, double b) { return b > 0 ? a / b : 0; };
  if (has("orinlink") && has("ffmpeg")) {
    const std::string pairs = " (median of " + std::to_string(rounds.size()) + " pairs)";
    const auto add = [&](const std::string& text, std::initializer_list<std::string_view> path,
                         double target, bool atMost) {
      const Paired p = paired(rounds, path);
      goals.push_back(goal(text + pairs, p.ours, p.peer, p.ratio, target, atMost));
    };
    add("frame rate >= 1.05x ffmpeg's", {"framesPerSecond"}, 1.05, false);
    add("delay p50 <= 0.8x ffmpeg's", {"delayMs", "p50"}, 0.8, true);
    add("delay p99 <= ffmpeg's", {"delayMs", "p99"}, 1.0, true);
    add("CPU per frame <= ffmpeg's", {"cpuMsPerFrame"}, 1.0, true);
  }
  if (has("wayland") && has("ffmpeg")) {
    // On Wayland the pipeline is held to what ffmpeg does on X11, one pair.
    const auto& ours = phases["wayland"];
    const auto& peer = phases["ffmpeg"];
    const double fps = number(ours, {"framesPerSecond"});
    const double peerFps = number(peer, {"framesPerSecond"});
    goals.push_back(goal("wayland: frame rate >= 1.0x ffmpeg's", fps, peerFps, ratio(fps, peerFps),
                         1.0, false));
    for (const char* p : {"p50", "p99"}) {
      const double a = number(ours, {"delayMs", p});
      const double b = number(peer, {"delayMs", p});
      goals.push_back(
          goal(std::string("wayland: delay ") + p + " <= ffmpeg's", a, b, ratio(a, b), 1.0, true));
    }
  }
  if (has("orinlink") && has("encoder")) {
    const double fps = paired(rounds, {"framesPerSecond"}).ours;
    const double alone = number(phases["encoder"], {"framesPerSecond"});
    goals.push_back(
        goal("frame rate >= 0.95x the encoder alone", fps, alone, ratio(fps, alone), 0.95, false));
  }
  if (has("orinlink")) {
    const double first = paired(rounds, {"firstFrameMs"}).ours;
    if (run.value("size", std::string()) == "1920x1080") {
      goals.push_back(goal("first frame after acceptance (ms) <= 300", first, 300,
                           ratio(first, 300), 1.0, true));
    }
  }
  if (has("orinlink") && has("stalled")) {
    const double alone = paired(rounds, {"framesPerSecond"}).ours;
    const double beside = number(phases["stalled"], {"framesPerSecond"});
    goals.push_back(goal("beside a stalled client: frame rate >= 0.9x", beside, alone,
                         ratio(beside, alone), 0.9, false));
    const auto keyframesPerSecond = [](const ordered_json& phase) {
      const double seconds = number(phase, {"seconds"});
      return seconds > 0 ? number(phase, {"keyframes"}) / seconds : 0;
    };
    std::vector<double> usual;
    for (const auto& round : rounds) {
      if (round.contains("orinlink")) usual.push_back(keyframesPerSecond(round["orinlink"]));
    }
    const double extra = keyframesPerSecond(phases["stalled"]) - median(usual);
    goals.push_back(
        goal("beside a stalled client: extra keyframes/s <= 1", extra, 1.0, extra, 1.0, true));
  }
  for (const char* name : {"orinlink", "wayland", "ffmpeg"}) {
    if (!has(name)) continue;
    const double first = number(phases[name], {"firstWindowP50Ms"});
    const double last = number(phases[name], {"lastWindowP50Ms"});
    goals.push_back(goal(std::string(name) + ": delay p50 last window / first window", last, first,
                         ratio(last, first), growthAllowance, true));
  }
  if (has("stalled") && phases["stalled"].contains("rssKiB")) {
    const double start = number(phases["stalled"], {"rssKiB", "start"});
    const double end = number(phases["stalled"], {"rssKiB", "end"});
    goals.push_back(goal("RSS growth with a stalled client (KiB, end - start)", end - start, start,
                         (end - start) / rssGrowthAllowanceKiB, 1.0, true));
  }
  return goals;
}

// Each round's figures side by side, with the ratios the goals take the median of.
void printRounds(const ordered_json& run) {
  const auto& rounds = run.value("rounds", ordered_json::array());
  if (rounds.size() < 2) return;
  std::printf("\n%-8s %22s %22s %22s %22s\n", "round", "frames/s (ratio)", "delay p50 (ratio)",
              "delay p99 (ratio)", "CPU ms/frame (ratio)");
  int index = 0;
  for (const auto& round : rounds) {
    if (!round.contains("orinlink") || !round.contains("ffmpeg")) continue;
    std::printf("%-8d", ++index);
    for (const auto& path : std::vector<std::vector<std::string>>{
             {"framesPerSecond"}, {"delayMs", "p50"}, {"delayMs", "p99"}, {"cpuMsPerFrame"}}) {
      const auto at = [&](const ordered_json& phase) {
        const ordered_json* node = &phase;
        for (const auto& key : path)
          node = &(*node)[key];
        return node->is_number() ? node->get<double>() : 0.0;
      };
      const double a = at(round["orinlink"]);
      const double b = at(round["ffmpeg"]);
      std::printf("   %6.1f/%6.1f (%4.2f)", a, b, b > 0 ? a / b : 0);
    }
    std::printf("\n");
  }
}

// The pipeline on Wayland beside the same on X11 and beside ffmpeg. The desktop's CPU counts as
// well: on Wayland the compositor copies every frame into the stream.
ordered_json compareWayland(const ordered_json& phases) {
  ordered_json rows = ordered_json::array();
  if (!phases.contains("wayland")) return rows;
  using Measure = std::function<double(const ordered_json&)>;
  const auto field = [](std::string_view a, std::string_view b = {}) -> Measure {
    return [a, b](const ordered_json& phase) {
      return b.empty() ? number(phase, {a}) : number(phase, {a, b});
    };
  };
  const std::vector<std::pair<const char*, Measure>> measures{
      {"frames/s received", field("framesPerSecond")},
      {"  new pictures/s", field("newPicturesPerSecond")},
      {"delay p50 (ms)", field("delayMs", "p50")},
      {"delay p99 (ms)", field("delayMs", "p99")},
      {"CPU per frame, process (ms)", field("cpuMsPerFrame")},
      {"CPU per frame, desktop (ms)", field("displayCpuMsPerFrame")},
      {"CPU per frame, both (ms)", [](const ordered_json& phase) {
         return number(phase, {"cpuMsPerFrame"}) + number(phase, {"displayCpuMsPerFrame"});
       }}};
  for (const auto& [label, measure] : measures) {
    const double ours = measure(phases["wayland"]);
    ordered_json row{{"measure", label}, {"wayland", ours}};
    for (const std::string other : {"orinlink", "ffmpeg"}) {
      if (!phases.contains(other)) continue;
      const double theirs = measure(phases[other]);
      row[other] = theirs;
      row["waylandOver" + other] = theirs > 0 ? ours / theirs : 0;
    }
    rows.push_back(std::move(row));
  }
  return rows;
}

void printComparison(const ordered_json& run) {
  if (run["waylandComparison"].empty()) return;
  std::printf("\n%-34s %10s %10s %8s %10s %8s\n",
              ("wayland, " + run["size"].get<std::string>()).c_str(), "wayland", "X11", "ratio",
              "ffmpeg", "ratio");
  for (const auto& row : run["waylandComparison"]) {
    std::printf("%-34s %10.1f", row["measure"].get<std::string>().c_str(),
                row["wayland"].get<double>());
    for (const std::string other : {"orinlink", "ffmpeg"}) {
      if (row.contains(other)) {
        std::printf(" %10.1f %8.2f", row[other].get<double>(),
                    row["waylandOver" + other].get<double>());
      } else {
        std::printf(" %10s %8s", "-", "-");
      }
    }
    std::printf("\n");
  }
}

void printPhases(const ordered_json& run) {
  const auto& phases = run["phases"];
  std::printf("\n%s at %d fps requested, %.1f Mbit/s, %.0f s measured after %.0f s warm-up\n",
              run["size"].get<std::string>().c_str(), run["fps"].get<int>(),
              run["bitrate"].get<double>() / 1e6, run["seconds"].get<double>(),
              run["warmup"].get<double>());
  std::vector<std::string> columns;
  std::printf("%-34s", "");
  for (const auto& [name, label] : {std::pair{"wayland", "wayland"},
                                    {"orinlink", "orinlink"},
                                    {"stalled", "stalled+1"},
                                    {"ffmpeg", "ffmpeg"}}) {
    if (!phases.contains(name)) continue;
    columns.emplace_back(name);
    std::printf("%12s", label);
  }
  std::printf("\n");
  const auto row = [&](const std::string& label, std::initializer_list<std::string_view> path,
                       const char* format) {
    std::printf("%-34s", label.c_str());
    for (const auto& name : columns) {
      const ordered_json* at = &phases[name];
      for (auto key : path) {
        if (at && at->contains(std::string(key))) {
          at = &(*at)[std::string(key)];
        } else {
          at = nullptr;
        }
      }
      if (at && at->is_number()) {
        std::printf(format, at->get<double>());
      } else {
        std::printf("%12s", "-");
      }
    }
    std::printf("\n");
  };
  row("frames/s received", {"framesPerSecond"}, "%12.1f");
  row("  new pictures/s", {"newPicturesPerSecond"}, "%12.1f");
  row("delay p50 (ms)", {"delayMs", "p50"}, "%12.1f");
  row("delay p90 (ms)", {"delayMs", "p90"}, "%12.1f");
  row("delay p99 (ms)", {"delayMs", "p99"}, "%12.1f");
  row("delay p50 first window (ms)", {"firstWindowP50Ms"}, "%12.1f");
  row("delay p50 last window (ms)", {"lastWindowP50Ms"}, "%12.1f");
  row("delay slope (ms/min)", {"slopeMsPerMinute"}, "%12.2f");
  row("  stamp to grab p50 (ms)", {"breakdownP50Ms", "stampToGrab"}, "%12.1f");
  row("  grab to receipt p50 (ms)", {"breakdownP50Ms", "grabToReceipt"}, "%12.1f");
  row("  receipt to decoded p50 (ms)", {"breakdownP50Ms", "receiptToDecoded"}, "%12.1f");
  row("Mbit/s received", {"megabitsPerSecond"}, "%12.2f");
  row("keyframes received", {"keyframes"}, "%12.0f");
  row("first frame after acceptance (ms)", {"firstFrameMs"}, "%12.0f");
  row("CPU (cores)", {"cpuCores"}, "%12.2f");
  row("CPU per frame (ms)", {"cpuMsPerFrame"}, "%12.1f");
  std::vector<std::string> desktop;
  for (const auto& name : columns) {
    if (!phases[name].contains("displayCpu")) continue;
    for (const auto& [process, figures] : phases[name]["displayCpu"].items()) {
      if (std::find(desktop.begin(), desktop.end(), process) == desktop.end())
        desktop.push_back(process);
    }
  }
  for (const auto& process : desktop) {
    row(process + " CPU (cores)", {"displayCpu", process, "cores"}, "%12.2f");
    row(process + " CPU per frame (ms)", {"displayCpu", process, "msPerFrame"}, "%12.1f");
  }
  row("desktop CPU per frame (ms)", {"displayCpuMsPerFrame"}, "%12.1f");
  row("client CPU (cores)", {"clientCpuCores"}, "%12.2f");
  row("RSS start (KiB)", {"rssKiB", "start"}, "%12.0f");
  row("RSS end (KiB)", {"rssKiB", "end"}, "%12.0f");
  row("RSS max (KiB)", {"rssKiB", "max"}, "%12.0f");
  row("unreadable stamps", {"unreadableStamps"}, "%12.0f");
  if (phases.contains("encoder")) {
    const auto& e = phases["encoder"];
    std::printf("encoder alone: %.1f frames/s (%.0f frames; encode p50 %.1f ms, p99 %.1f ms)\n",
                number(e, {"framesPerSecond"}), number(e, {"frames"}),
                number(e, {"encodeMs", "p50"}), number(e, {"encodeMs", "p99"}));
  }
  for (const auto& name : columns) {
    std::printf("threads (%s):", name.c_str());
    for (const auto& [thread, cores] : phases[name]["threadCores"].items()) {
      if (cores.get<double>() >= 0.005)
        std::printf(" %s %.2f", thread.c_str(), cores.get<double>());
    }
    std::printf("\n");
    std::printf("  per %.0f s (frames/s, keyframes, delay p50 ms):",
                number(phases[name], {"windowSeconds"}));
    for (const auto& slice : phases[name]["timeline"]) {
      std::printf(" %.0f/%.0f/%.0f", number(slice, {"framesPerSecond"}),
                  number(slice, {"keyframes"}), number(slice, {"delayP50Ms"}));
    }
    std::printf("\n");
    if (phases[name].contains("host"))
      std::printf("  host: %s\n", phases[name]["host"].dump().c_str());
  }
}

void printGoals(const ordered_json& run) {
  std::printf("\n%-56s %10s %10s %7s %7s %4s\n",
              ("goals, " + run["size"].get<std::string>()).c_str(), "measured", "reference",
              "ratio", "target", "met");
  for (const auto& g : run["goals"]) {
    std::printf("%-56s %10.1f %10.1f %7.2f %7.2f %4s\n", g["goal"].get<std::string>().c_str(),
                g["measured"].get<double>(), g["reference"].get<double>(), g["ratio"].get<double>(),
                g["target"].get<double>(), g["met"].get<bool>() ? "yes" : "NO");
  }
  std::printf("load average: %s at start, %s at end\n",
              run["loadAtStart"].get<std::string>().c_str(),
              run["loadAtEnd"].get<std::string>().c_str());
  for (const auto& [name, phase] : run["phases"].items()) {
    if (phase.contains("load")) {
      std::printf("  %s: %s at start, %s at end\n", name.c_str(),
                  phase["load"]["atStart"].get<std::string>().c_str(),
                  phase["load"]["atEnd"].get<std::string>().c_str());
    }
  }
}

// Runs of one size on different desktops (X11 phases on Xvfb, the wayland phase in a GNOME
// session) become one run with all their phases.
int summarize(const Options& options) {
  ordered_json merged{{"runs", ordered_json::array()}};
  auto& runs = merged["runs"];
  for (const auto& file : options.summarize) {
    std::ifstream in(file);
    if (!in) fail("cannot read " + file);
    ordered_json run = ordered_json::parse(in);
    const auto same = std::find_if(runs.begin(), runs.end(),
                                   [&](const ordered_json& r) { return r["size"] == run["size"]; });
    if (same == runs.end()) {
      runs.push_back(std::move(run));
      continue;
    }
    for (const auto& [name, phase] : run["phases"].items())
      (*same)["phases"][name] = phase;
    (*same)["loadAtEnd"] = run["loadAtEnd"];
  }
  for (auto& run : runs) {
    run["goals"] = evaluate(run);
    printRounds(run);
    run["waylandComparison"] = compareWayland(run["phases"]);
    printComparison(run);
    printGoals(run);
  }
  if (!options.out.empty()) std::ofstream(options.out) << merged.dump(2) << "\n";
  return 0;
}

int runBenchmark(const Options& options) {
  ordered_json run{{"size", options.size},
                   {"fps", options.fps},
                   {"patternFps", options.patternFps},
                   {"bitrate", options.bitrate},
                   {"seconds", options.seconds},
                   {"warmup", options.warmup},
                   {"display", options.display},
                   {"date", utcNow()},
                   {"machine", machineDescription()},
                   {"loadAtStart", loadAverages()}};
  ordered_json phases = ordered_json::object();
  const auto measure = [&](const char* name, const char* what, double seconds,
                           const std::function<ordered_json()>& phase) {
    if (!wants(options, name)) return;
    const std::string load = loadAverages();
    std::cout << options.size << ": " << what << " for " << options.warmup + seconds << " s (load "
              << load << ")…" << std::endl;
    phases[name] = phase();
    phases[name]["load"] = {{"atStart", load}, {"atEnd", loadAverages()}};
  };
  measure("encoder", "the encoder alone", options.encoderSeconds,
          [&] { return measureEncoderAlone(options); });
  // Alternated, so that a change in the machine's load between the two falls on both alike.
  ordered_json rounds = ordered_json::array();
  for (int round = 1; round <= options.rounds; ++round) {
    const std::string suffix = options.rounds > 1 ? " (round " + std::to_string(round) + ")" : "";
    measure("orinlink", ("orinlink, one reading client" + suffix).c_str(), options.seconds,
            [&] { return measureOrinLink(options, false, "x11"); });
    measure("ffmpeg", ("ffmpeg" + suffix).c_str(), options.seconds,
            [&] { return measureFfmpeg(options); });
    ordered_json pair = ordered_json::object();
    for (const char* name : {"orinlink", "ffmpeg"}) {
      if (phases.contains(name)) pair[name] = phases[name];
    }
    rounds.push_back(std::move(pair));
  }
  // The tables show the round whose frame-rate ratio is the median one.
  if (rounds.size() > 1) {
    const double middle = paired(rounds, {"framesPerSecond"}).ratio;
    double nearest = std::numeric_limits<double>::max();
    for (const auto& round : rounds) {
      if (!round.contains("orinlink") || !round.contains("ffmpeg")) continue;
      const double peer = number(round["ffmpeg"], {"framesPerSecond"});
      const double r = peer > 0 ? number(round["orinlink"], {"framesPerSecond"}) / peer : 0;
      if (std::abs(r - middle) < nearest) {
        nearest = std::abs(r - middle);
        phases["orinlink"] = round["orinlink"];
        phases["ffmpeg"] = round["ffmpeg"];
      }
    }
  }
  measure("stalled", "orinlink, a reading and a stalled client", options.seconds,
          [&] { return measureOrinLink(options, true, "x11"); });
  measure("wayland", "orinlink through the Wayland screen cast, one reading client",
          options.seconds, [&] { return measureOrinLink(options, false, "wayland"); });
  run["phases"] = phases;
  run["rounds"] = rounds;
  run["loadAtEnd"] = loadAverages();
  run["goals"] = evaluate(run);
  run["waylandComparison"] = compareWayland(phases);
  printPhases(run);
  printRounds(run);
  printComparison(run);
  printGoals(run);
  if (!options.out.empty()) std::ofstream(options.out) << run.dump(2) << "\n";
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  Options o;
  CLI::App app{"The screen pipeline against ffmpeg on one X display with the test pattern"};
  app.add_option("--size", o.size, "picture size WxH; the X screen must have it")
      ->capture_default_str();
  app.add_option("--fps", o.fps, "requested frame rate")->capture_default_str();
  app.add_option("--pattern-fps", o.patternFps, "the test pattern's rate, for the record");
  app.add_option("--bitrate", o.bitrate, "bits per second (default by height: 12M, 20M)");
  app.add_option("--seconds", o.seconds, "measured seconds per phase")->capture_default_str();
  app.add_option("--rounds", o.rounds, "times orinlink and ffmpeg alternate")
      ->check(CLI::Range(1, 20))
      ->capture_default_str();
  app.add_option("--warmup", o.warmup, "seconds left out at the start of each phase")
      ->capture_default_str();
  app.add_option("--encoder-seconds", o.encoderSeconds, "measured seconds of the encoder alone")
      ->capture_default_str();
  app.add_flag("--quick", o.quick, "10 s per phase, for trying it out");
  app.add_option("--display", o.display, "X display (default $DISPLAY)");
  app.add_option("--ffmpeg", o.ffmpeg, "ffmpeg executable")->capture_default_str();
  // The last --phases counts, so that a script can narrow the phases it was given.
  std::vector<std::vector<std::string>> phaseLists;
  app.add_option("--phases", phaseLists,
                 "encoder orinlink stalled ffmpeg wayland (the last needs a GNOME session; "
                 "default: the other four)");
  app.add_option("--out", o.out, "JSON results file");
  app.add_option("--summarize", o.summarize,
                 "print the goals of these result files and merge them");
  app.add_flag("--host", o.host)->group("");
  app.add_option("--capture", o.capture)->check(CLI::IsMember({"x11", "wayland"}))->group("");
  CLI11_PARSE(app, argc, argv);
  if (!phaseLists.empty()) o.phases = phaseLists.back();

  if (!o.summarize.empty()) return summarize(o);
  const std::regex sizePattern(R"((\d+)x(\d+))");
  std::smatch match;
  if (!std::regex_match(o.size, match, sizePattern)) fail("--size must look like 1920x1080");
  o.width = std::stoi(match[1]);
  o.height = std::stoi(match[2]);
  if (o.bitrate <= 0) o.bitrate = defaultBitrate(o.height);
  if (o.quick) {
    o.seconds = 10;
    o.encoderSeconds = 10;
    o.warmup = 2;
    o.rounds = 1;
  }
  o.encoderSeconds = std::min(o.encoderSeconds, o.seconds);
  if (o.host) return runHost(o);
  if (o.display.empty()) {
    const char* display = std::getenv("DISPLAY");
    if (!display || !*display) fail("no X display: set DISPLAY or pass --display");
    o.display = display;
  }
  // The pipeline's process captures through $DISPLAY.
  ::setenv("DISPLAY", o.display.c_str(), 1);
  return runBenchmark(o);
}
