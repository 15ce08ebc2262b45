#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <map>
#include <mutex>
#include <netinet/in.h>
#include <optional>
#include <string>
#include <string_view>
#include <sys/types.h>
#include <thread>
#include <vector>

#include <nlohmann/json.hpp>

#include "DeviceClient.h"

// What the AI-service benchmark and the fault check share: child processes, loopback sockets, the
// measuring stream client and the token tap.
namespace orin::aibench {

using Clock = std::chrono::steady_clock;
namespace fs = std::filesystem;

[[noreturn]] void fail(const std::string& message);

// --- Processes ----------------------------------------------------------------------------------

// Variables a child gets on top of this process's environment; nothing removes one.
using EnvironmentChanges = std::map<std::string, std::optional<std::string>>;

// A child process with its output in files. It gets SIGTERM if this process dies first, so a
// crashed benchmark leaves nothing running.
class ChildProcess {
 public:
  ChildProcess() = default;
  ChildProcess(const std::vector<std::string>& argv, const fs::path& out, const fs::path& err,
               const EnvironmentChanges& environment = {});
  ~ChildProcess();
  ChildProcess(ChildProcess&& other) noexcept;
  ChildProcess& operator=(ChildProcess&& other) noexcept;
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  pid_t pid() const { return pid_; }
  bool running();
  // SIGTERM, then SIGKILL after the grace time; the exit status as waitpid reports it.
  int stop(std::chrono::milliseconds grace = std::chrono::seconds(5));
  void signal(int number) const;
  // Waits for the exit by itself; nothing when it is still running at the bound.
  std::optional<int> wait(std::chrono::milliseconds bound);

 private:
  pid_t pid_ = -1;
  std::optional<int> status_;
};

// Runs a command to its end (at most the bound) and returns what it printed on stdout.
std::string runAndCapture(const std::vector<std::string>& argv, std::chrono::milliseconds bound,
                          const EnvironmentChanges& environment = {});

struct Memory {
  long rssKiB = 0;
  long hwmKiB = 0;
};
Memory readMemory(pid_t pid);
int openFileCount(pid_t pid);
int threadCount(pid_t pid);
// The three load averages as /proc/loadavg has them.
std::string loadAverages();
double loadAverage1();
nlohmann::json machineDescription();
std::string today();

// --- Loopback sockets ---------------------------------------------------------------------------

class Socket {
 public:
  Socket() = default;
  explicit Socket(int fd) : fd_(fd) {}
  ~Socket();
  Socket(Socket&& other) noexcept;
  Socket& operator=(Socket&& other) noexcept;
  Socket(const Socket&) = delete;
  Socket& operator=(const Socket&) = delete;

  int fd() const { return fd_; }
  bool valid() const { return fd_ >= 0; }
  void close();
  // Closes with an RST instead of a FIN.
  void reset();

 private:
  int fd_ = -1;
};

// A blocking connection to 127.0.0.1 with TCP_NODELAY and send/receive time-outs; invalid when
// refused.
Socket connectLoopback(std::uint16_t port, std::chrono::milliseconds timeout);
bool sendAll(int fd, std::string_view bytes);
sockaddr_in loopback(std::uint16_t port);
void setNoDelay(int fd);
// Reads until the peer closes, at most `limit` bytes and the time-out per read.
std::string readToEnd(int fd, std::size_t limit = 16 * 1024 * 1024);
// Binds port 0 on loopback and lets it go again.
std::uint16_t freeLoopbackPort();

// One whole exchange: the status (0 when nothing came back) and the body.
struct PlainReply {
  int status = 0;
  std::string body;
};
PlainReply httpGet(std::uint16_t port, const std::string& target,
                   std::chrono::milliseconds timeout = std::chrono::seconds(10));
PlainReply httpPost(std::uint16_t port, const std::string& target, const std::string& body,
                    std::chrono::milliseconds timeout = std::chrono::seconds(10));

// --- The measuring stream client ----------------------------------------------------------------

enum class Framing {
  ndjson,       // the daemon's POST /api/generate, chunked NDJSON
  eventStream,  // orinlink's POST /v1/generate/stream, server-sent events until close
};

struct TokenArrival {
  Clock::time_point at;
  std::string text;
};

struct StreamRecord {
  Clock::time_point started;  // just before connect()
  int status = 0;
  bool done = false;
  std::string failure;
  std::vector<TokenArrival> tokens;
};

// Takes the bytes of one reply in whatever pieces they come and hands out its tokens. Each token
// is stamped with the time of the read that completed it.
class StreamDecoder {
 public:
  explicit StreamDecoder(Framing framing) : framing_(framing) {}
  void feed(std::string_view bytes, Clock::time_point at, StreamRecord& record);
  // The reply is over: end event, error, or the end of a chunked body.
  bool finished() const { return finished_; }

 private:
  void body(std::string_view bytes, Clock::time_point at, StreamRecord& record);
  void line(std::string_view text, Clock::time_point at, StreamRecord& record);

  Framing framing_;
  bool headDone_ = false;
  bool chunked_ = false;
  bool finished_ = false;
  std::string head_;
  // Chunked transfer state.
  std::string sizeLine_;
  std::size_t chunkLeft_ = 0;
  enum class ChunkState { size, data, dataEnd } chunkState_ = ChunkState::size;
  std::string line_;
  device::GenerationStreamDecoder events_;
};

std::string daemonStreamRequest(std::uint16_t port, const std::string& model,
                                const std::string& prompt);
// Built ahead of time: the request's fresh id is costly to draw.
std::string orinlinkStreamRequest(std::uint16_t port, const std::string& token,
                                  const std::string& model, const std::string& prompt);

// Sends the request on a new connection and reads the reply to its end.
StreamRecord fetchStream(std::uint16_t port, const std::string& request, Framing framing,
                         std::chrono::milliseconds idleTimeout = std::chrono::seconds(30));

// " w0001 w0002 …": words the stand-in sends one per token and that can be told apart.
std::vector<std::string> numberedWords(std::size_t count);
// The number in a token " wNNNN"; 0 when it is not one.
std::size_t tokenNumber(std::string_view token);

// --- The token tap ------------------------------------------------------------------------------

// A loopback TCP relay in front of the stand-in that notes when each numbered token leaves it
// towards the client, so a token's delay can be measured from there to its arrival. Both paths
// under comparison pass through it once.
class TokenTap {
 public:
  TokenTap(std::uint16_t upstreamPort, std::size_t maxToken);
  ~TokenTap();
  TokenTap(const TokenTap&) = delete;
  TokenTap& operator=(const TokenTap&) = delete;

  std::uint16_t port() const { return port_; }
  // Forgets earlier marks; the next request's tokens are noted afresh.
  void arm();
  // Index n: when token n was passed on; the epoch when it was not seen.
  std::vector<Clock::time_point> marks() const;

 private:
  void acceptLoop();
  void pump(int client);
  void note(std::string_view bytes, std::string& carry, Clock::time_point at);

  std::uint16_t upstreamPort_;
  std::uint16_t port_ = 0;
  Socket listener_;
  std::atomic<bool> stopping_{false};
  mutable std::mutex mutex_;
  std::vector<Clock::time_point> marks_;
  std::thread acceptor_;
};

// --- orinlink -----------------------------------------------------------------------------------

// orinlink on ports of its own choosing, with its config and data under one work directory and
// its output in files there. Its desktop is a private one under the work directory too: it
// neither finds the user's running copy (which would turn the start into a reopen) nor touches
// the user's session bus, autostart entry or browser.
class OrinLinkProcess {
 public:
  OrinLinkProcess(fs::path binary, fs::path workDirectory, const nlohmann::json& settings);

  // How to start it serving the AI service on `port` (0: any free port).
  std::vector<std::string> command(std::uint16_t port) const;
  EnvironmentChanges environment() const;

  // Starts it and waits until both its servers are listening.
  void start(std::chrono::milliseconds bound = std::chrono::seconds(30));
  int stop();

  pid_t pid() const { return process_.pid(); }
  bool running() { return process_.running(); }
  std::uint16_t port() const { return port_; }
  std::uint16_t controlPort() const { return controlPort_; }
  const fs::path& configDirectory() const { return config_; }
  const fs::path& dataDirectory() const { return data_; }
  fs::path outputFile() const { return work_ / "orinlink.out"; }
  fs::path errorFile() const { return work_ / "orinlink.err"; }

  // Asks the running app through its own command line, as a person would.
  std::string pairingCode() const;
  // Pairs a device with the current code; its token.
  std::string pairDevice(const std::string& deviceId, const std::string& name) const;

 private:
  fs::path binary_;
  fs::path work_;
  fs::path config_;
  fs::path data_;
  ChildProcess process_;
  std::uint16_t port_ = 0;
  std::uint16_t controlPort_ = 0;
};

std::string readTextFile(const fs::path& path);

// orin_relay_floor forwarding to a loopback port: the cost of one more process on a token's way,
// with nothing else done.
class RelayFloor {
 public:
  RelayFloor(const fs::path& binary, std::uint16_t targetPort, const fs::path& workDirectory);
  std::uint16_t port() const { return port_; }

 private:
  ChildProcess process_;
  std::uint16_t port_ = 0;
};

// --- Statistics ---------------------------------------------------------------------------------

struct Percentiles {
  std::size_t count = 0;
  double p50 = 0, p90 = 0, p99 = 0, max = 0, mean = 0;
  nlohmann::json toJSON() const;
};
// Nearest-rank percentiles; sorts the values.
Percentiles percentiles(std::vector<double>& values);
double median(std::vector<double> values);

double microseconds(Clock::duration duration);

}  // namespace orin::aibench
