#include "BenchSupport.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <fstream>
#include <list>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sstream>
#include <stdexcept>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/utsname.h>
#include <sys/wait.h>
#include <unistd.h>

#include "OrinLinkShared/JSONCoding.h"
#include "OrinLinkShared/Pairing.h"

namespace orin::aibench {

void fail(const std::string& message) {
  throw std::runtime_error(message);
}

// --- Processes ----------------------------------------------------------------------------------

namespace {

void pause(std::chrono::milliseconds time) {
  std::this_thread::sleep_for(time);
}

// The arguments and environment as exec takes them, made before fork: from there to exec the
// child may only make async-signal-safe calls.
class ExecArguments {
 public:
  ExecArguments(const std::vector<std::string>& argv, const EnvironmentChanges& changes)
      : words_(argv) {
    if (words_.empty()) fail("nothing to run");
    for (char** variable = environ; *variable != nullptr; ++variable) {
      const std::string_view entry(*variable);
      if (!changes.contains(std::string(entry.substr(0, entry.find('='))))) {
        variables_.emplace_back(entry);
      }
    }
    for (const auto& [name, value] : changes) {
      if (value) variables_.push_back(name + "=" + *value);
    }
    for (std::string& word : words_)
      argv_.push_back(word.data());
    argv_.push_back(nullptr);
    for (std::string& variable : variables_)
      envp_.push_back(variable.data());
    envp_.push_back(nullptr);
  }

  [[noreturn]] void exec() {
    ::execvpe(argv_[0], argv_.data(), envp_.data());
    ::_exit(127);
  }

 private:
  std::vector<std::string> words_;
  std::vector<std::string> variables_;
  std::vector<char*> argv_;
  std::vector<char*> envp_;
};

}  // namespace

ChildProcess::ChildProcess(const std::vector<std::string>& argv, const fs::path& out,
                           const fs::path& err, const EnvironmentChanges& environment) {
  ExecArguments arguments(argv, environment);
  const std::string outPath = out.string();
  const std::string errPath = err.string();
  const pid_t parent = ::getpid();
  const pid_t pid = ::fork();
  if (pid < 0) fail("fork failed: " + std::string(std::strerror(errno)));
  if (pid == 0) {
    // Only async-signal-safe calls from here to exec.
    if (::prctl(PR_SET_PDEATHSIG, SIGTERM) != 0 || ::getppid() != parent) ::_exit(126);
    const int in = ::open("/dev/null", O_RDONLY);
    const int o = ::open(outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    const int e = ::open(errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    if (in < 0 || o < 0 || e < 0) ::_exit(126);
    ::dup2(in, STDIN_FILENO);
    ::dup2(o, STDOUT_FILENO);
    ::dup2(e, STDERR_FILENO);
    // Sockets of this process must not stay open in the child.
    ::close_range(3, ~0U, 0);
    arguments.exec();
  }
  pid_ = pid;
}

ChildProcess::~ChildProcess() {
  if (pid_ > 0) stop(std::chrono::seconds(2));
}

ChildProcess::ChildProcess(ChildProcess&& other) noexcept
    : pid_(std::exchange(other.pid_, -1)), status_(other.status_) {}

ChildProcess& ChildProcess::operator=(ChildProcess&& other) noexcept {
  if (this != &other) {
    if (pid_ > 0) stop(std::chrono::seconds(2));
    pid_ = std::exchange(other.pid_, -1);
    status_ = other.status_;
  }
  return *this;
}

bool ChildProcess::running() {
  if (pid_ <= 0 || status_) return false;
  int status = 0;
  if (::waitpid(pid_, &status, WNOHANG) == pid_) {
    status_ = status;
    return false;
  }
  return true;
}

void ChildProcess::signal(int number) const {
  if (pid_ > 0 && !status_) ::kill(pid_, number);
}

std::optional<int> ChildProcess::wait(std::chrono::milliseconds bound) {
  const auto deadline = Clock::now() + bound;
  auto step = std::chrono::milliseconds(1);
  while (running()) {
    if (Clock::now() >= deadline) return std::nullopt;
    pause(step);
    step = std::min(step * 2, std::chrono::milliseconds(20));
  }
  return status_;
}

int ChildProcess::stop(std::chrono::milliseconds grace) {
  if (pid_ <= 0) return -1;
  if (running()) {
    ::kill(pid_, SIGTERM);
    if (!wait(grace)) {
      ::kill(pid_, SIGKILL);
      int status = 0;
      ::waitpid(pid_, &status, 0);
      status_ = status;
    }
  }
  pid_ = -1;
  return status_.value_or(-1);
}

std::string runAndCapture(const std::vector<std::string>& argv, std::chrono::milliseconds bound,
                          const EnvironmentChanges& environment) {
  ExecArguments arguments(argv, environment);
  int ends[2];
  if (::pipe2(ends, O_CLOEXEC) != 0) fail("pipe failed");
  const pid_t pid = ::fork();
  if (pid < 0) fail("fork failed");
  if (pid == 0) {
    const int in = ::open("/dev/null", O_RDWR);
    if (in < 0) ::_exit(126);
    ::dup2(in, STDIN_FILENO);
    ::dup2(ends[1], STDOUT_FILENO);
    ::dup2(in, STDERR_FILENO);
    ::close_range(3, ~0U, 0);
    arguments.exec();
  }
  ::close(ends[1]);
  std::string out;
  const auto deadline = Clock::now() + bound;
  while (true) {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
    pollfd ready{ends[0], POLLIN, 0};
    if (left <= 0 || ::poll(&ready, 1, static_cast<int>(left)) <= 0) break;
    char buffer[4096];
    const ssize_t n = ::read(ends[0], buffer, sizeof buffer);
    if (n <= 0) break;
    out.append(buffer, static_cast<std::size_t>(n));
  }
  ::close(ends[0]);
  int status = 0;
  if (::waitpid(pid, &status, WNOHANG) == 0) {
    ::kill(pid, SIGKILL);
    ::waitpid(pid, &status, 0);
  }
  return out;
}

namespace {

// The number after "Name:" in /proc/PID/status; -1 when absent.
long statusField(pid_t pid, std::string_view name) {
  std::ifstream file("/proc/" + std::to_string(pid) + "/status");
  std::string line;
  while (std::getline(file, line)) {
    if (line.starts_with(name) && line.size() > name.size() && line[name.size()] == ':') {
      return std::stol(line.substr(name.size() + 1));
    }
  }
  return -1;
}

}  // namespace

Memory readMemory(pid_t pid) {
  return {statusField(pid, "VmRSS"), statusField(pid, "VmHWM")};
}

int openFileCount(pid_t pid) {
  int count = 0;
  std::error_code ec;
  for (auto it = fs::directory_iterator("/proc/" + std::to_string(pid) + "/fd", ec);
       !ec && it != fs::directory_iterator(); it.increment(ec))
    ++count;
  return count;
}

int threadCount(pid_t pid) {
  return static_cast<int>(statusField(pid, "Threads"));
}

std::string loadAverages() {
  std::ifstream file("/proc/loadavg");
  std::string one, five, fifteen;
  file >> one >> five >> fifteen;
  return one + " " + five + " " + fifteen;
}

double loadAverage1() {
  std::ifstream file("/proc/loadavg");
  double one = 0;
  file >> one;
  return one;
}

nlohmann::json machineDescription() {
  nlohmann::json machine;
  machine["cores"] = std::thread::hardware_concurrency();
  std::ifstream cpu("/proc/cpuinfo");
  std::string line;
  while (std::getline(cpu, line)) {
    if (line.starts_with("model name")) {
      machine["cpu"] = line.substr(line.find(':') + 2);
      break;
    }
  }
  std::ifstream memory("/proc/meminfo");
  while (std::getline(memory, line)) {
    if (line.starts_with("MemTotal:")) {
      machine["memoryKiB"] = std::stol(line.substr(9));
      break;
    }
  }
  utsname name{};
  if (::uname(&name) == 0) machine["kernel"] = std::string(name.release);
  return machine;
}

std::string today() {
  const std::time_t now = std::time(nullptr);
  std::tm parts{};
  ::gmtime_r(&now, &parts);
  char text[32];
  std::strftime(text, sizeof text, "%Y-%m-%d %H:%M UTC", &parts);
  return text;
}

// --- Loopback sockets ---------------------------------------------------------------------------

Socket::~Socket() {
  close();
}

Socket::Socket(Socket&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}

Socket& Socket::operator=(Socket&& other) noexcept {
  if (this != &other) {
    close();
    fd_ = std::exchange(other.fd_, -1);
  }
  return *this;
}

void Socket::close() {
  if (fd_ >= 0) ::close(fd_);
  fd_ = -1;
}

void Socket::reset() {
  if (fd_ < 0) return;
  const linger abrupt{1, 0};
  ::setsockopt(fd_, SOL_SOCKET, SO_LINGER, &abrupt, sizeof abrupt);
  close();
}

sockaddr_in loopback(std::uint16_t port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

void setNoDelay(int fd) {
  const int on = 1;
  ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

namespace {

void setTimeouts(int fd, std::chrono::milliseconds timeout) {
  const auto ms = timeout.count();
  timeval tv{static_cast<time_t>(ms / 1000), static_cast<suseconds_t>((ms % 1000) * 1000)};
  ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
  ::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
}

}  // namespace

Socket connectLoopback(std::uint16_t port, std::chrono::milliseconds timeout) {
  Socket socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (!socket.valid()) return socket;
  setNoDelay(socket.fd());
  setTimeouts(socket.fd(), timeout);
  const sockaddr_in address = loopback(port);
  if (::connect(socket.fd(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    socket.close();
  }
  return socket;
}

bool sendAll(int fd, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t n = ::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    bytes.remove_prefix(static_cast<std::size_t>(n));
  }
  return true;
}

std::string readToEnd(int fd, std::size_t limit) {
  std::string out;
  std::array<char, 16384> buffer{};
  while (out.size() < limit) {
    const ssize_t n = ::recv(fd, buffer.data(), buffer.size(), 0);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    out.append(buffer.data(), static_cast<std::size_t>(n));
  }
  return out;
}

std::uint16_t freeLoopbackPort() {
  Socket socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_in address = loopback(0);
  if (::bind(socket.fd(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    fail("cannot bind a loopback port");
  }
  socklen_t length = sizeof address;
  ::getsockname(socket.fd(), reinterpret_cast<sockaddr*>(&address), &length);
  return ntohs(address.sin_port);
}

namespace {

std::string dechunked(std::string_view body) {
  std::string out;
  while (!body.empty()) {
    const std::size_t lineEnd = body.find("\r\n");
    if (lineEnd == std::string_view::npos) break;
    const std::size_t size = std::stoul(std::string(body.substr(0, lineEnd)), nullptr, 16);
    body.remove_prefix(lineEnd + 2);
    if (size == 0 || size > body.size()) break;
    out.append(body.substr(0, size));
    body.remove_prefix(std::min(body.size(), size + 2));
  }
  return out;
}

PlainReply exchange(std::uint16_t port, const std::string& request,
                    std::chrono::milliseconds timeout) {
  Socket socket = connectLoopback(port, timeout);
  if (!socket.valid() || !sendAll(socket.fd(), request)) return {};
  const std::string raw = readToEnd(socket.fd());
  const std::size_t headEnd = raw.find("\r\n\r\n");
  if (!raw.starts_with("HTTP/1.1 ") || raw.size() < 12 || headEnd == std::string::npos) return {};
  PlainReply reply;
  reply.status = std::stoi(raw.substr(9, 3));
  std::string head = raw.substr(0, headEnd);
  std::transform(head.begin(), head.end(), head.begin(), [](char c) {
    return static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  });
  const std::string_view body = std::string_view(raw).substr(headEnd + 4);
  reply.body = head.find("transfer-encoding: chunked") != std::string::npos ? dechunked(body)
                                                                            : std::string(body);
  return reply;
}

std::string requestHead(std::string_view method, std::uint16_t port, const std::string& target) {
  return std::string(method) + " " + target +
         " HTTP/1.1\r\nHost: 127.0.0.1:" + std::to_string(port) + "\r\nConnection: close\r\n";
}

}  // namespace

PlainReply httpGet(std::uint16_t port, const std::string& target,
                   std::chrono::milliseconds timeout) {
  return exchange(port, requestHead("GET", port, target) + "\r\n", timeout);
}

PlainReply httpPost(std::uint16_t port, const std::string& target, const std::string& body,
                    std::chrono::milliseconds timeout) {
  return exchange(port,
                  requestHead("POST", port, target) +
                      "Content-Type: application/json\r\nContent-Length: " +
                      std::to_string(body.size()) + "\r\n\r\n" + body,
                  timeout);
}

// --- The measuring stream client ----------------------------------------------------------------

void StreamDecoder::feed(std::string_view bytes, Clock::time_point at, StreamRecord& record) {
  if (headDone_) {
    body(bytes, at, record);
    return;
  }
  head_.append(bytes);
  const std::size_t end = head_.find("\r\n\r\n");
  if (end == std::string::npos) {
    if (head_.size() > 65536) {
      record.failure = "reply head too long";
      finished_ = true;
    }
    return;
  }
  headDone_ = true;
  if (head_.starts_with("HTTP/1.1 ") && head_.size() >= 12) {
    record.status = std::atoi(head_.c_str() + 9);
  }
  std::string lowered = head_.substr(0, end);
  std::transform(lowered.begin(), lowered.end(), lowered.begin(), [](char c) {
    return static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  });
  chunked_ = lowered.find("transfer-encoding: chunked") != std::string::npos;
  if (record.status != 200) record.failure = "status " + std::to_string(record.status);
  const std::string rest = head_.substr(end + 4);
  head_.clear();
  body(rest, at, record);
}

void StreamDecoder::body(std::string_view bytes, Clock::time_point at, StreamRecord& record) {
  const auto lines = [&](std::string_view piece) {
    if (framing_ == Framing::eventStream) {
      for (device::StreamEvent& event : events_.feed(piece)) {
        if (finished_) break;
        switch (event.kind) {
          case device::StreamEvent::Kind::token:
            record.tokens.push_back({at, std::move(event.text)});
            break;
          case device::StreamEvent::Kind::done:
            record.done = true;
            finished_ = true;
            break;
          case device::StreamEvent::Kind::error:
            record.failure = "error event: " + event.text;
            finished_ = true;
            break;
        }
      }
      return;
    }
    while (!piece.empty() && !finished_) {
      const std::size_t newline = piece.find('\n');
      line_.append(piece.substr(0, newline));
      if (newline == std::string_view::npos) return;
      piece.remove_prefix(newline + 1);
      line(line_, at, record);
      line_.clear();
    }
  };
  if (!chunked_) {
    lines(bytes);
    return;
  }
  while (!bytes.empty() && !finished_) {
    switch (chunkState_) {
      case ChunkState::size: {
        const std::size_t newline = bytes.find('\n');
        sizeLine_.append(bytes.substr(0, newline));
        if (newline == std::string_view::npos) return;
        bytes.remove_prefix(newline + 1);
        const std::size_t size = std::strtoul(sizeLine_.c_str(), nullptr, 16);
        sizeLine_.clear();
        if (size == 0) {
          finished_ = true;
          return;
        }
        chunkLeft_ = size;
        chunkState_ = ChunkState::data;
        break;
      }
      case ChunkState::data: {
        const std::size_t n = std::min(chunkLeft_, bytes.size());
        lines(bytes.substr(0, n));
        bytes.remove_prefix(n);
        chunkLeft_ -= n;
        if (chunkLeft_ == 0) chunkState_ = ChunkState::dataEnd;
        break;
      }
      case ChunkState::dataEnd: {
        const std::size_t newline = bytes.find('\n');
        if (newline == std::string_view::npos) return;
        bytes.remove_prefix(newline + 1);
        chunkState_ = ChunkState::size;
        break;
      }
    }
  }
}

void StreamDecoder::line(std::string_view text, Clock::time_point at, StreamRecord& record) {
  if (text.empty() || text == "\r") return;
  // The daemon's lines are flat; a scan for the two keys does what a JSON parse would, at a
  // fraction of the cost, unless escapes appear.
  constexpr std::string_view responseKey = "\"response\":\"";
  std::string token;
  bool done = false;
  const std::size_t at0 = text.find(responseKey);
  const bool escaped = text.find('\\') != std::string_view::npos;
  if (escaped || at0 == std::string_view::npos) {
    const auto value = nlohmann::json::parse(text, nullptr, false);
    if (value.is_discarded() || !value.is_object()) {
      record.failure = "unreadable line";
      finished_ = true;
      return;
    }
    if (value.contains("error")) {
      record.failure = "error line: " + value["error"].dump();
      finished_ = true;
      return;
    }
    token = value.value("response", std::string());
    done = value.value("done", false);
  } else {
    const std::size_t start = at0 + responseKey.size();
    const std::size_t end = text.find('"', start);
    token = std::string(text.substr(start, end - start));
    done = text.find("\"done\":true") != std::string_view::npos;
  }
  if (!token.empty()) record.tokens.push_back({at, std::move(token)});
  if (done) {
    record.done = true;
    finished_ = true;
  }
}

std::string daemonStreamRequest(std::uint16_t port, const std::string& model,
                                const std::string& prompt) {
  const std::string body =
      nlohmann::json{{"model", model}, {"prompt", prompt}, {"stream", true}}.dump();
  return "POST /api/generate HTTP/1.1\r\nHost: 127.0.0.1:" + std::to_string(port) +
         "\r\nContent-Type: application/json\r\nContent-Length: " + std::to_string(body.size()) +
         "\r\nConnection: close\r\n\r\n" + body;
}

std::string orinlinkStreamRequest(std::uint16_t port, const std::string& token,
                                  const std::string& model, const std::string& prompt) {
  const std::string body =
      encodeJSON(device::makeGenerateRequest(prompt, model, std::nullopt, std::nullopt));
  return "POST /v1/generate/stream HTTP/1.1\r\nHost: 127.0.0.1:" + std::to_string(port) +
         "\r\nContent-Type: application/json\r\nContent-Length: " + std::to_string(body.size()) +
         "\r\nAuthorization: Bearer " + token + "\r\nConnection: close\r\n\r\n" + body;
}

StreamRecord fetchStream(std::uint16_t port, const std::string& request, Framing framing,
                         std::chrono::milliseconds idleTimeout) {
  StreamRecord record;
  record.started = Clock::now();
  Socket socket = connectLoopback(port, idleTimeout);
  if (!socket.valid()) {
    record.failure = "connection refused";
    return record;
  }
  if (!sendAll(socket.fd(), request)) {
    record.failure = "send failed";
    return record;
  }
  StreamDecoder decoder(framing);
  std::array<char, 65536> buffer;
  while (!decoder.finished()) {
    const ssize_t n = ::recv(socket.fd(), buffer.data(), buffer.size(), 0);
    const Clock::time_point at = Clock::now();
    if (n > 0) {
      decoder.feed({buffer.data(), static_cast<std::size_t>(n)}, at, record);
      continue;
    }
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) record.failure = std::string("read failed: ") + std::strerror(errno);
    break;
  }
  if (!record.done && record.failure.empty()) record.failure = "closed before the end";
  return record;
}

std::vector<std::string> numberedWords(std::size_t count) {
  std::vector<std::string> words;
  words.reserve(count);
  for (std::size_t i = 1; i <= count; ++i) {
    char word[32];
    std::snprintf(word, sizeof word, " w%04zu", i);
    words.emplace_back(word);
  }
  return words;
}

std::size_t tokenNumber(std::string_view token) {
  if (token.size() != 6 || !token.starts_with(" w")) return 0;
  std::size_t n = 0;
  for (const char c : token.substr(2)) {
    if (c < '0' || c > '9') return 0;
    n = n * 10 + static_cast<std::size_t>(c - '0');
  }
  return n;
}

// --- The token tap ------------------------------------------------------------------------------

TokenTap::TokenTap(std::uint16_t upstreamPort, std::size_t maxToken)
    : upstreamPort_(upstreamPort), marks_(maxToken + 1) {
  listener_ = Socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const int on = 1;
  ::setsockopt(listener_.fd(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  sockaddr_in address = loopback(0);
  if (::bind(listener_.fd(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
      ::listen(listener_.fd(), 128) != 0) {
    fail("the tap cannot listen");
  }
  socklen_t length = sizeof address;
  ::getsockname(listener_.fd(), reinterpret_cast<sockaddr*>(&address), &length);
  port_ = ntohs(address.sin_port);
  acceptor_ = std::thread([this] { acceptLoop(); });
}

TokenTap::~TokenTap() {
  stopping_ = true;
  if (acceptor_.joinable()) acceptor_.join();
}

void TokenTap::arm() {
  std::lock_guard lock(mutex_);
  std::fill(marks_.begin(), marks_.end(), Clock::time_point{});
}

std::vector<Clock::time_point> TokenTap::marks() const {
  std::lock_guard lock(mutex_);
  return marks_;
}

void TokenTap::acceptLoop() {
  std::list<std::pair<std::thread, std::shared_ptr<std::atomic<bool>>>> running;
  while (!stopping_) {
    // Finished pumps are joined as we go, so a long run does not pile up threads.
    for (auto it = running.begin(); it != running.end();) {
      if (*it->second) {
        it->first.join();
        it = running.erase(it);
      } else {
        ++it;
      }
    }
    pollfd ready{listener_.fd(), POLLIN, 0};
    if (::poll(&ready, 1, 100) <= 0) continue;
    const int client = ::accept4(listener_.fd(), nullptr, nullptr, SOCK_CLOEXEC);
    if (client < 0) continue;
    auto finished = std::make_shared<std::atomic<bool>>(false);
    running.emplace_back(std::thread([this, client, finished] {
                           pump(client);
                           *finished = true;
                         }),
                         finished);
  }
  for (auto& [thread, finished] : running)
    thread.join();
}

void TokenTap::note(std::string_view bytes, std::string& carry, Clock::time_point at) {
  // A token is a JSON string value " wNNNN"; it may straddle two reads, hence the carry.
  std::string scan = carry;
  scan.append(bytes);
  std::vector<std::size_t> seen;
  for (std::size_t i = scan.find(" w"); i != std::string::npos; i = scan.find(" w", i + 1)) {
    if (i + 6 >= scan.size() || scan[i + 6] != '"') continue;
    const std::size_t n = tokenNumber(std::string_view(scan).substr(i, 6));
    if (n > 0) seen.push_back(n);
  }
  carry = scan.size() > 7 ? scan.substr(scan.size() - 7) : scan;
  if (seen.empty()) return;
  std::lock_guard lock(mutex_);
  for (const std::size_t n : seen) {
    if (n < marks_.size() && marks_[n] == Clock::time_point{}) marks_[n] = at;
  }
}

void TokenTap::pump(int clientFd) {
  Socket client(clientFd);
  setNoDelay(client.fd());
  setTimeouts(client.fd(), std::chrono::seconds(30));
  Socket upstream = connectLoopback(upstreamPort_, std::chrono::seconds(30));
  if (!upstream.valid()) return;
  std::string carry;
  std::array<char, 65536> buffer;
  bool fromClient = true;
  bool fromUpstream = true;
  while (!stopping_ && (fromClient || fromUpstream)) {
    pollfd fds[2] = {{fromClient ? client.fd() : -1, POLLIN, 0},
                     {fromUpstream ? upstream.fd() : -1, POLLIN, 0}};
    const int ready = ::poll(fds, 2, 200);
    if (ready < 0 && errno != EINTR) return;
    if (ready <= 0) continue;
    if (fds[0].revents != 0) {
      const ssize_t n = ::recv(client.fd(), buffer.data(), buffer.size(), 0);
      if (n <= 0) {
        if (n < 0) return;
        fromClient = false;
        ::shutdown(upstream.fd(), SHUT_WR);
      } else if (!sendAll(upstream.fd(), {buffer.data(), static_cast<std::size_t>(n)})) {
        return;
      }
    }
    if (fds[1].revents != 0) {
      const ssize_t n = ::recv(upstream.fd(), buffer.data(), buffer.size(), 0);
      if (n <= 0) {
        if (n < 0) return;
        fromUpstream = false;
        ::shutdown(client.fd(), SHUT_WR);
      } else {
        // Stamped before the send: on loopback the reader may run before send() returns.
        const std::string_view bytes(buffer.data(), static_cast<std::size_t>(n));
        note(bytes, carry, Clock::now());
        if (!sendAll(client.fd(), bytes)) return;
      }
    }
  }
}

// --- orinlink -----------------------------------------------------------------------------------

std::string readTextFile(const fs::path& path) {
  std::ifstream file(path, std::ios::binary);
  std::ostringstream text;
  text << file.rdbuf();
  return text.str();
}

OrinLinkProcess::OrinLinkProcess(fs::path binary, fs::path workDirectory,
                                 const nlohmann::json& settings)
    : binary_(std::move(binary)),
      work_(std::move(workDirectory)),
      config_(work_ / "config"),
      data_(work_ / "data") {
  fs::remove_all(work_);
  fs::create_directories(config_);
  fs::create_directories(data_);
  fs::create_directories(work_ / "run");
  fs::permissions(work_ / "run", fs::perms::owner_all);
  std::ofstream(config_ / "settings.json") << settings.dump(2) << '\n';
}

std::vector<std::string> OrinLinkProcess::command(std::uint16_t port) const {
  std::vector<std::string> words{binary_.string(), "--config-dir", config_.string(), "--data-dir",
                                 data_.string()};
  words.insert(words.end(), {"--port", std::to_string(port), "--control-port", "0", "--stream-port",
                             "0", "--no-advertise", "--no-open"});
  return words;
}

EnvironmentChanges OrinLinkProcess::environment() const {
  const fs::path run = work_ / "run";
  return {{"XDG_RUNTIME_DIR", run.string()},
          {"XDG_CONFIG_HOME", (work_ / "xdg-config").string()},
          {"XDG_DATA_HOME", (work_ / "xdg-data").string()},
          {"DBUS_SESSION_BUS_ADDRESS", "unix:path=" + (run / "no-bus").string()},
          {"DISPLAY", std::nullopt},
          {"WAYLAND_DISPLAY", std::nullopt}};
}

namespace {

// The number that follows the marker in the text, if the marker is there.
std::optional<std::uint16_t> numberAfter(const std::string& text, std::string_view marker) {
  const std::size_t at = text.find(marker);
  if (at == std::string::npos) return std::nullopt;
  const std::size_t start = at + marker.size();
  std::size_t end = start;
  while (end < text.size() && std::isdigit(static_cast<unsigned char>(text[end])))
    ++end;
  if (end == start) return std::nullopt;
  return static_cast<std::uint16_t>(std::stoul(text.substr(start, end - start)));
}

}  // namespace

void OrinLinkProcess::start(std::chrono::milliseconds bound) {
  process_ = ChildProcess(command(0), outputFile(), errorFile(), environment());
  const auto deadline = Clock::now() + bound;
  while (Clock::now() < deadline) {
    const std::string out = readTextFile(outputFile());
    const auto port = numberAfter(out, "Server started on port ");
    const auto control = numberAfter(out, "Control API on 127.0.0.1:");
    if (port && control) {
      port_ = *port;
      controlPort_ = *control;
      return;
    }
    if (!process_.running()) {
      fail("orinlink stopped at start-up: " + readTextFile(errorFile()) + out);
    }
    pause(std::chrono::milliseconds(5));
  }
  fail("orinlink did not start within the bound: " + readTextFile(outputFile()));
}

int OrinLinkProcess::stop() {
  return process_.stop();
}

std::string OrinLinkProcess::pairingCode() const {
  std::string code =
      runAndCapture({binary_.string(), "--config-dir", config_.string(), "--control-port",
                     std::to_string(controlPort_), "pair", "--code-only"},
                    std::chrono::seconds(10), environment());
  while (!code.empty() && (code.back() == '\n' || code.back() == '\r'))
    code.pop_back();
  if (code.empty()) fail("orinlink pair --code-only printed nothing");
  return code;
}

std::string OrinLinkProcess::pairDevice(const std::string& deviceId,
                                        const std::string& name) const {
  device::DeviceClient::Options options;
  options.port = port_;
  options.idleTimeout = std::chrono::seconds(10);
  const device::DeviceClient client(options);
  return client.pair(PairRequest{pairingCode(), deviceId, name}).value.token;
}

RelayFloor::RelayFloor(const fs::path& binary, std::uint16_t targetPort,
                       const fs::path& workDirectory) {
  fs::create_directories(workDirectory);
  const fs::path out = workDirectory / "relay-floor.out";
  process_ = ChildProcess({binary.string(), std::to_string(targetPort)}, out,
                          workDirectory / "relay-floor.err");
  const auto deadline = Clock::now() + std::chrono::seconds(10);
  while (Clock::now() < deadline) {
    if (const auto port = numberAfter(readTextFile(out), "listening on ")) {
      port_ = *port;
      return;
    }
    if (!process_.running()) fail("orin_relay_floor stopped at start-up");
    pause(std::chrono::milliseconds(5));
  }
  fail("orin_relay_floor did not start within 10 s");
}

// --- Statistics ---------------------------------------------------------------------------------

nlohmann::json Percentiles::toJSON() const {
  return {{"count", count}, {"p50", p50}, {"p90", p90}, {"p99", p99}, {"max", max}, {"mean", mean}};
}

Percentiles percentiles(std::vector<double>& values) {
  Percentiles out;
  out.count = values.size();
  if (values.empty()) return out;
  std::sort(values.begin(), values.end());
  const auto rank = [&](double p) {
    const auto index = static_cast<std::size_t>(std::ceil(p * static_cast<double>(values.size())));
    return values[std::clamp<std::size_t>(index, 1, values.size()) - 1];
  };
  out.p50 = rank(0.50);
  out.p90 = rank(0.90);
  out.p99 = rank(0.99);
  out.max = values.back();
  double sum = 0;
  for (const double v : values)
    sum += v;
  out.mean = sum / static_cast<double>(values.size());
  return out;
}

double median(std::vector<double> values) {
  if (values.empty()) return 0;
  std::sort(values.begin(), values.end());
  const std::size_t middle = values.size() / 2;
  return values.size() % 2 == 1 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
}

double microseconds(Clock::duration duration) {
  return std::chrono::duration<double, std::micro>(duration).count();
}

}  // namespace orin::aibench
