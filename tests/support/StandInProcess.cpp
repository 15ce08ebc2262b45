#include "tests/support/StandInProcess.h"

#include <chrono>
#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <stdexcept>
#include <sys/wait.h>
#include <unistd.h>

#include <boost/asio/connect.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http.hpp>

extern char** environ;

namespace orin::testing_support {
namespace {

constexpr auto startBound = std::chrono::seconds(20);

std::string readLine(int fd) {
  std::string line;
  const auto deadline = std::chrono::steady_clock::now() + startBound;
  while (line.empty() || line.back() != '\n') {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    pollfd ready{fd, POLLIN, 0};
    char byte = 0;
    if (left.count() <= 0 || ::poll(&ready, 1, static_cast<int>(left.count())) <= 0) break;
    if (::read(fd, &byte, 1) != 1) break;
    line.push_back(byte);
  }
  return line;
}

}  // namespace

StandInProcess::StandInProcess(std::vector<std::string> arguments) {
  int pipeEnds[2];
  if (::pipe2(pipeEnds, O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, pipeEnds[1], STDOUT_FILENO);
  std::vector<std::string> words{STANDIN_PATH, "--port", "0", "--exit-with-parent"};
  words.insert(words.end(), arguments.begin(), arguments.end());
  std::vector<char*> argv;
  for (std::string& word : words)
    argv.push_back(word.data());
  argv.push_back(nullptr);
  const int failed = ::posix_spawn(&pid_, STANDIN_PATH, &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  ::close(pipeEnds[1]);
  output_ = pipeEnds[0];
  if (failed != 0) throw std::runtime_error("cannot start " STANDIN_PATH);
  const std::string line = readLine(output_);
  const std::string prefix = "listening on 127.0.0.1:";
  if (!line.starts_with(prefix)) {
    kill();
    ::close(output_);
    throw std::runtime_error("the stand-in did not start: " + line);
  }
  port_ = static_cast<std::uint16_t>(std::stoi(line.substr(prefix.size())));
}

StandInProcess StandInProcess::withConfig(const nlohmann::json& config) {
  char path[] = "/tmp/orin-standin-XXXXXX";
  const int fd = ::mkstemp(path);
  if (fd < 0) throw std::runtime_error("mkstemp failed");
  ::close(fd);
  std::ofstream(path) << config.dump();
  StandInProcess process({"--config", path});
  process.configFile_ = path;
  return process;
}

StandInProcess::StandInProcess(StandInProcess&& other) noexcept
    : pid_(std::exchange(other.pid_, -1)),
      output_(std::exchange(other.output_, -1)),
      port_(other.port_),
      configFile_(std::move(other.configFile_)) {
  other.configFile_.clear();
}

StandInProcess::~StandInProcess() {
  kill();
  if (output_ >= 0) ::close(output_);
  if (!configFile_.empty()) ::unlink(configFile_.c_str());
}

void StandInProcess::kill() {
  if (pid_ <= 0) return;
  ::kill(pid_, SIGKILL);
  int status = 0;
  ::waitpid(pid_, &status, 0);
  pid_ = -1;
}

nlohmann::json StandInProcess::stats() const {
  return nlohmann::json::parse(httpExchange(port_, "GET", "/standin/stats").body);
}

bool StandInProcess::waitFor(const nlohmann::json& until, int timeoutMilliseconds) const {
  const nlohmann::json body = {{"until", until}, {"timeout_ms", timeoutMilliseconds}};
  return httpExchange(port_, "POST", "/standin/wait", body.dump()).status == 200;
}

HTTPReply httpExchange(std::uint16_t port, const std::string& method, const std::string& target,
                       const std::string& body,
                       const std::vector<std::pair<std::string, std::string>>& headers) {
  namespace asio = boost::asio;
  namespace http = boost::beast::http;
  asio::io_context context;
  asio::ip::tcp::socket socket(context);
  socket.connect({asio::ip::address_v4::loopback(), port});
  http::request<http::string_body> request(http::string_to_verb(method), target, 11);
  request.set(http::field::host, "127.0.0.1:" + std::to_string(port));
  if (!body.empty()) request.set(http::field::content_type, "application/json");
  for (const auto& [name, value] : headers)
    request.set(name, value);
  request.body() = body;
  request.prepare_payload();
  http::write(socket, request);
  boost::beast::flat_buffer buffer;
  http::response<http::string_body> response;
  boost::system::error_code ec;
  http::read(socket, buffer, response, ec);
  if (ec) return {0, {}};
  return {static_cast<int>(response.result_int()), response.body()};
}

}  // namespace orin::testing_support
