#pragma once

// What the screen pipeline benchmark needs besides the pipelines themselves: a decoder that
// reads the test pattern's stamp back, the AVI chunk reader for ffmpeg's output, child processes,
// figures from /proc and the statistics over the samples.

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <sys/types.h>
#include <vector>

#include <nlohmann/json.hpp>

struct AVCodecContext;
struct AVFrame;
struct AVPacket;

namespace orin::screenbench {

[[noreturn]] void fail(const std::string& message);

// CLOCK_MONOTONIC, the clock of the stamps, the capture times and every receipt time here.
std::uint64_t nowMicroseconds();

// One HEVC Annex-B access unit in, the stamp of the decoded picture out. Single-threaded and
// low-delay, so that a picture comes out of the call that fed it, for either stream alike.
class StampDecoder {
 public:
  struct Picture {
    std::uint64_t decodedAtMicroseconds = 0;
    std::optional<std::uint64_t> stampMicroseconds;
  };

  StampDecoder();
  ~StampDecoder();
  StampDecoder(const StampDecoder&) = delete;
  StampDecoder& operator=(const StampDecoder&) = delete;

  // Nothing when the unit gave no picture (or did not decode).
  std::optional<Picture> decode(std::span<const std::uint8_t> accessUnit);
  std::uint64_t errors() const { return errors_; }

 private:
  AVCodecContext* context_ = nullptr;
  AVFrame* frame_ = nullptr;
  AVPacket* packet_ = nullptr;
  std::uint64_t errors_ = 0;
};

// The chunks of an AVI stream as it is written to a pipe: the RIFF and movi lists are entered,
// other lists (the headers) skipped, and every other chunk comes out whole with its
// four-character code. A muxer writes each packet as one chunk, so a chunk is one coded picture.
class AviChunkReader {
 public:
  struct Chunk {
    std::string code;
    std::vector<std::uint8_t> data;
  };

  void append(std::span<const std::uint8_t> bytes);
  // False when no whole chunk is buffered. Throws (via fail) on a stream that is not AVI.
  bool next(Chunk& out);

 private:
  std::vector<std::uint8_t> buffer_;
  std::size_t consumed_ = 0;
  bool sawRiff_ = false;
};

// A child process with optional pipes to its stdin and from its stdout. It gets SIGTERM when
// this process dies, and SIGTERM (then SIGKILL) when the object goes.
class ChildProcess {
 public:
  ChildProcess(const std::vector<std::string>& argv, bool pipeStdin, bool pipeStdout);
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  pid_t pid() const { return pid_; }
  int stdinFd() const { return in_; }
  int stdoutFd() const { return out_; }
  void closeStdin();
  void closeStdout();
  void signal(int number) const;
  // One line from its stdout, without the line feed; nothing at the end or after the bound.
  std::optional<std::string> readLine(int timeoutMilliseconds);
  // Closes stdin, waits up to the grace time for an exit by itself, then signals. The status as
  // waitpid reports it.
  int stop(int graceMilliseconds = 5000);

 private:
  pid_t pid_ = -1;
  int in_ = -1;
  int out_ = -1;
  std::string pending_;
  std::optional<int> status_;
};

// Bounded wait for readable data on a descriptor.
bool waitReadable(int fd, int timeoutMilliseconds);

// --- /proc ------------------------------------------------------------------------------------

// User plus system time of a process (all its threads) in seconds.
double processCpuSeconds(pid_t pid);
long residentKiB(pid_t pid);
// CPU seconds per thread id, with the thread's name.
struct ThreadTimes {
  std::map<pid_t, std::pair<std::string, double>> byThread;
};
ThreadTimes threadTimes(pid_t pid);
// CPU share (1.0 = one core) per thread name between two snapshots over `wallSeconds`.
std::map<std::string, double> threadShares(const ThreadTimes& before, const ThreadTimes& after,
                                           double wallSeconds);

// The process holding the Unix socket at `path` (or its abstract twin); where several hold it,
// as mutter and Xwayland share Xwayland's, the one of that name (/proc/PID/comm).
std::optional<pid_t> socketHolder(const std::string& path, std::string_view name = {});
// The X server behind a local display name (":N").
std::optional<pid_t> xServerPid(const std::string& display, std::string_view name = {});

std::string loadAverages();
nlohmann::ordered_json machineDescription();
std::string utcNow();

// --- Statistics -------------------------------------------------------------------------------

struct Percentiles {
  std::size_t count = 0;
  double p50 = 0, p90 = 0, p99 = 0, max = 0, mean = 0;
  nlohmann::ordered_json toJSON() const;
};
// Nearest rank.
Percentiles percentiles(std::vector<double> values);

// Least-squares slope of y over x; 0 with fewer than two distinct x.
double slope(std::span<const double> x, std::span<const double> y);

}  // namespace orin::screenbench
