#include "PipelineSupport.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <dirent.h>
#include <fcntl.h>
#include <fstream>
#include <iostream>
#include <numeric>
#include <poll.h>
#include <set>
#include <sstream>
#include <sys/prctl.h>
#include <sys/utsname.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "TestStamp.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/frame.h>
}

namespace orin::screenbench {

void fail(const std::string& message) {
  std::cerr << "orin_screen_bench: " << message << std::endl;
  std::exit(1);
}

std::uint64_t nowMicroseconds() {
  timespec now{};
  ::clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<std::uint64_t>(now.tv_sec) * 1'000'000u +
         static_cast<std::uint64_t>(now.tv_nsec) / 1000u;
}

// --- StampDecoder -----------------------------------------------------------------------------

StampDecoder::StampDecoder() {
  const AVCodec* codec = avcodec_find_decoder(AV_CODEC_ID_HEVC);
  if (!codec) fail("libavcodec has no HEVC decoder");
  context_ = avcodec_alloc_context3(codec);
  frame_ = av_frame_alloc();
  packet_ = av_packet_alloc();
  if (!context_ || !frame_ || !packet_) fail("out of memory for the decoder");
  // Frame threads would hold pictures back; one thread keeps decode-to-output immediate.
  context_->thread_count = 1;
  context_->flags |= AV_CODEC_FLAG_LOW_DELAY;
  if (avcodec_open2(context_, codec, nullptr) < 0) fail("cannot open the HEVC decoder");
}

StampDecoder::~StampDecoder() {
  av_packet_free(&packet_);
  av_frame_free(&frame_);
  avcodec_free_context(&context_);
}

std::optional<StampDecoder::Picture> StampDecoder::decode(std::span<const std::uint8_t> unit) {
  if (unit.empty()) return std::nullopt;
  av_packet_unref(packet_);
  if (av_new_packet(packet_, static_cast<int>(unit.size())) < 0) fail("out of memory");
  std::memcpy(packet_->data, unit.data(), unit.size());
  if (avcodec_send_packet(context_, packet_) < 0) {
    ++errors_;
    return std::nullopt;
  }
  std::optional<Picture> picture;
  while (avcodec_receive_frame(context_, frame_) == 0) {
    Picture p;
    p.decodedAtMicroseconds = nowMicroseconds();
    if (auto stamp =
            teststamp::readStampedTime(frame_->data[0], teststamp::PixelFormat::luma, frame_->width,
                                       frame_->height, frame_->linesize[0])) {
      p.stampMicroseconds = stamp->timeMicroseconds;
    }
    picture = p;
    av_frame_unref(frame_);
  }
  return picture;
}

// --- AviChunkReader ---------------------------------------------------------------------------

namespace {

std::uint32_t littleEndian32(const std::uint8_t* p) {
  return std::uint32_t{p[0]} | std::uint32_t{p[1]} << 8 | std::uint32_t{p[2]} << 16 |
         std::uint32_t{p[3]} << 24;
}

}  // namespace

void AviChunkReader::append(std::span<const std::uint8_t> bytes) {
  if (consumed_ > 0 && consumed_ >= buffer_.size() / 2) {
    buffer_.erase(buffer_.begin(), buffer_.begin() + static_cast<std::ptrdiff_t>(consumed_));
    consumed_ = 0;
  }
  buffer_.insert(buffer_.end(), bytes.begin(), bytes.end());
}

bool AviChunkReader::next(Chunk& out) {
  for (;;) {
    const std::size_t available = buffer_.size() - consumed_;
    if (available < 8) return false;
    const std::uint8_t* head = buffer_.data() + consumed_;
    std::string code(reinterpret_cast<const char*>(head), 4);
    const std::uint32_t size = littleEndian32(head + 4);
    if (!sawRiff_) {
      if (code != "RIFF") fail("ffmpeg's output is not AVI");
      sawRiff_ = true;
    }
    // The movi list is entered (a pipe cannot go back to write its size); the header list
    // describes nothing needed here and is skipped whole.
    bool skip = false;
    if (code == "RIFF" || code == "LIST") {
      if (available < 12) return false;
      const std::string type(reinterpret_cast<const char*>(head + 8), 4);
      if (code == "RIFF" || type == "movi") {
        consumed_ += 12;
        continue;
      }
      skip = true;
    }
    const std::size_t whole = 8 + std::size_t{size} + (size & 1u);
    if (available < whole) return false;
    if (skip) {
      consumed_ += whole;
      continue;
    }
    out.code = std::move(code);
    out.data.assign(head + 8, head + 8 + size);
    consumed_ += whole;
    return true;
  }
}

// --- ChildProcess -----------------------------------------------------------------------------

ChildProcess::ChildProcess(const std::vector<std::string>& argv, bool pipeStdin, bool pipeStdout) {
  int inPipe[2] = {-1, -1};
  int outPipe[2] = {-1, -1};
  if (pipeStdin && ::pipe2(inPipe, O_CLOEXEC) != 0) fail("pipe failed");
  if (pipeStdout && ::pipe2(outPipe, O_CLOEXEC) != 0) fail("pipe failed");
  std::vector<char*> args;
  for (const auto& arg : argv)
    args.push_back(const_cast<char*>(arg.c_str()));
  args.push_back(nullptr);
  const pid_t parent = ::getpid();
  pid_ = ::fork();
  if (pid_ < 0) fail("fork failed");
  if (pid_ == 0) {
    ::prctl(PR_SET_PDEATHSIG, SIGTERM);
    if (::getppid() != parent) ::_exit(127);
    if (pipeStdin) ::dup2(inPipe[0], STDIN_FILENO);
    if (pipeStdout) ::dup2(outPipe[1], STDOUT_FILENO);
    ::execvp(args[0], args.data());
    ::_exit(127);
  }
  if (pipeStdin) {
    ::close(inPipe[0]);
    in_ = inPipe[1];
  }
  if (pipeStdout) {
    ::close(outPipe[1]);
    out_ = outPipe[0];
  }
}

ChildProcess::~ChildProcess() {
  stop(2000);
  closeStdout();
}

void ChildProcess::closeStdin() {
  if (in_ >= 0) ::close(in_);
  in_ = -1;
}

void ChildProcess::signal(int number) const {
  if (pid_ > 0 && !status_) ::kill(pid_, number);
}

void ChildProcess::closeStdout() {
  if (out_ >= 0) ::close(out_);
  out_ = -1;
}

std::optional<std::string> ChildProcess::readLine(int timeoutMilliseconds) {
  const auto deadline =
      std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMilliseconds);
  for (;;) {
    if (const auto end = pending_.find('\n'); end != std::string::npos) {
      std::string line = pending_.substr(0, end);
      pending_.erase(0, end + 1);
      return line;
    }
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    if (out_ < 0 || left.count() <= 0 || !waitReadable(out_, static_cast<int>(left.count())))
      return std::nullopt;
    char chunk[4096];
    const ssize_t n = ::read(out_, chunk, sizeof chunk);
    if (n <= 0) return std::nullopt;
    pending_.append(chunk, static_cast<std::size_t>(n));
  }
}

int ChildProcess::stop(int graceMilliseconds) {
  if (status_) return *status_;
  if (pid_ <= 0) return 0;
  closeStdin();
  int status = 0;
  const auto waitFor = [&](int milliseconds) {
    for (int waited = 0; waited <= milliseconds; waited += 10) {
      if (::waitpid(pid_, &status, WNOHANG) == pid_) return true;
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
  };
  if (!waitFor(graceMilliseconds)) {
    ::kill(pid_, SIGTERM);
    if (!waitFor(3000)) {
      ::kill(pid_, SIGKILL);
      ::waitpid(pid_, &status, 0);
    }
  }
  status_ = status;
  return status;
}

bool waitReadable(int fd, int timeoutMilliseconds) {
  pollfd p{fd, POLLIN, 0};
  int result = 0;
  do {
    result = ::poll(&p, 1, timeoutMilliseconds);
  } while (result < 0 && errno == EINTR);
  return result > 0;
}

// --- /proc ------------------------------------------------------------------------------------

namespace {

std::string readFile(const std::string& path) {
  std::ifstream in(path);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

// utime + stime of a /proc stat line, and the name between its parentheses.
std::optional<std::pair<std::string, double>> parseStat(const std::string& stat) {
  const auto open = stat.find('(');
  const auto close = stat.rfind(')');
  if (open == std::string::npos || close == std::string::npos) return std::nullopt;
  std::istringstream rest(stat.substr(close + 2));
  std::vector<std::string> fields;
  for (std::string field; rest >> field;)
    fields.push_back(field);
  // After the name: state is field 3, utime 14 and stime 15 of the whole line.
  if (fields.size() < 13) return std::nullopt;
  const double ticks = std::stod(fields[11]) + std::stod(fields[12]);
  return std::pair{stat.substr(open + 1, close - open - 1),
                   ticks / static_cast<double>(::sysconf(_SC_CLK_TCK))};
}

}  // namespace

double processCpuSeconds(pid_t pid) {
  const auto parsed = parseStat(readFile("/proc/" + std::to_string(pid) + "/stat"));
  return parsed ? parsed->second : 0.0;
}

long residentKiB(pid_t pid) {
  std::istringstream status(readFile("/proc/" + std::to_string(pid) + "/status"));
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with("VmRSS:")) return std::stol(line.substr(6));
  }
  return 0;
}

ThreadTimes threadTimes(pid_t pid) {
  ThreadTimes times;
  const std::string base = "/proc/" + std::to_string(pid) + "/task";
  DIR* dir = ::opendir(base.c_str());
  if (!dir) return times;
  while (const dirent* entry = ::readdir(dir)) {
    if (entry->d_name[0] == '.') continue;
    const auto parsed = parseStat(readFile(base + "/" + entry->d_name + "/stat"));
    if (parsed) times.byThread[static_cast<pid_t>(std::atoi(entry->d_name))] = *parsed;
  }
  ::closedir(dir);
  return times;
}

std::map<std::string, double> threadShares(const ThreadTimes& before, const ThreadTimes& after,
                                           double wallSeconds) {
  std::map<std::string, double> shares;
  if (wallSeconds <= 0) return shares;
  for (const auto& [tid, entry] : after.byThread) {
    const auto earlier = before.byThread.find(tid);
    const double start = earlier == before.byThread.end() ? 0.0 : earlier->second.second;
    shares[entry.first] += (entry.second - start) / wallSeconds;
  }
  return shares;
}

std::optional<pid_t> socketHolder(const std::string& path, std::string_view name) {
  // Every socket bound to the path (the listening one and the accepted connections), then a
  // process that holds one of them.
  std::set<std::string> wanted;
  std::istringstream sockets(readFile("/proc/net/unix"));
  for (std::string line; std::getline(sockets, line);) {
    std::istringstream fields(line);
    std::string skip, node, bound;
    for (int i = 0; i < 6; ++i)
      fields >> skip;
    fields >> node >> bound;
    if (bound == path || bound == "@" + path) wanted.insert("socket:[" + node + "]");
  }
  if (wanted.empty()) return std::nullopt;
  DIR* processes = ::opendir("/proc");
  if (!processes) return std::nullopt;
  std::optional<pid_t> found;
  while (const dirent* process = ::readdir(processes)) {
    if (found || process->d_name[0] < '0' || process->d_name[0] > '9') continue;
    const std::string base = std::string("/proc/") + process->d_name;
    if (!name.empty()) {
      std::string comm = readFile(base + "/comm");
      if (!comm.empty() && comm.back() == '\n') comm.pop_back();
      if (comm != name) continue;
    }
    DIR* fds = ::opendir((base + "/fd").c_str());
    if (!fds) continue;
    while (const dirent* fd = ::readdir(fds)) {
      char target[64] = {};
      const std::string link = base + "/fd/" + fd->d_name;
      const ssize_t n = ::readlink(link.c_str(), target, sizeof target - 1);
      if (n > 0 && wanted.contains(std::string(target, static_cast<std::size_t>(n)))) {
        found = static_cast<pid_t>(std::atoi(process->d_name));
        break;
      }
    }
    ::closedir(fds);
  }
  ::closedir(processes);
  return found;
}

std::optional<pid_t> xServerPid(const std::string& display, std::string_view name) {
  if (!display.starts_with(':')) return std::nullopt;
  return socketHolder("/tmp/.X11-unix/X" + display.substr(1, display.find('.') - 1), name);
}

std::string loadAverages() {
  std::istringstream in(readFile("/proc/loadavg"));
  std::string a, b, c;
  in >> a >> b >> c;
  return a + " " + b + " " + c;
}

nlohmann::ordered_json machineDescription() {
  nlohmann::ordered_json machine;
  std::istringstream cpuinfo(readFile("/proc/cpuinfo"));
  for (std::string line; std::getline(cpuinfo, line);) {
    if (line.starts_with("model name")) {
      machine["cpu"] = line.substr(line.find(':') + 2);
      break;
    }
  }
  machine["cores"] = std::thread::hardware_concurrency();
  machine["memoryMiB"] = ::sysconf(_SC_PHYS_PAGES) / 1024 * ::sysconf(_SC_PAGE_SIZE) / 1024;
  utsname name{};
  if (::uname(&name) == 0) machine["kernel"] = std::string(name.sysname) + " " + name.release;
  machine["libavcodec"] = LIBAVCODEC_IDENT;
  return machine;
}

std::string utcNow() {
  const std::time_t now = std::time(nullptr);
  std::tm utc{};
  ::gmtime_r(&now, &utc);
  char text[32];
  std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &utc);
  return text;
}

// --- Statistics -------------------------------------------------------------------------------

nlohmann::ordered_json Percentiles::toJSON() const {
  return {{"count", count}, {"p50", p50}, {"p90", p90}, {"p99", p99}, {"max", max}, {"mean", mean}};
}

Percentiles percentiles(std::vector<double> values) {
  Percentiles result;
  result.count = values.size();
  if (values.empty()) return result;
  std::sort(values.begin(), values.end());
  const auto rank = [&](double p) {
    const auto index = static_cast<std::size_t>(std::ceil(p * static_cast<double>(values.size())));
    return values[std::clamp<std::size_t>(index, 1, values.size()) - 1];
  };
  result.p50 = rank(0.50);
  result.p90 = rank(0.90);
  result.p99 = rank(0.99);
  result.max = values.back();
  result.mean =
      std::accumulate(values.begin(), values.end(), 0.0) / static_cast<double>(values.size());
  return result;
}

double slope(std::span<const double> x, std::span<const double> y) {
  const std::size_t n = std::min(x.size(), y.size());
  if (n < 2) return 0;
  const double meanX = std::accumulate(x.begin(), x.begin() + static_cast<std::ptrdiff_t>(n), 0.0) /
                       static_cast<double>(n);
  const double meanY = std::accumulate(y.begin(), y.begin() + static_cast<std::ptrdiff_t>(n), 0.0) /
                       static_cast<double>(n);
  double covariance = 0;
  double variance = 0;
  for (std::size_t i = 0; i < n; ++i) {
    covariance += (x[i] - meanX) * (y[i] - meanY);
    variance += (x[i] - meanX) * (x[i] - meanX);
  }
  return variance > 0 ? covariance / variance : 0;
}

}  // namespace orin::screenbench
