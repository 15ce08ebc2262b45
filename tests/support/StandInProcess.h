#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace orin::test {
class ChildProcess;
class TemporaryDirectory;
}  // namespace orin::test

namespace orin::testing_support {

// The Ollama stand-in as a child process on a free loopback port; stopped when this goes.
class StandInProcess {
 public:
  explicit StandInProcess(std::vector<std::string> arguments);
  // Writes the config to a file beside the test's temporary files and starts with it.
  static StandInProcess withConfig(const nlohmann::json& config);
  ~StandInProcess();
  StandInProcess(StandInProcess&& other) noexcept;
  StandInProcess(const StandInProcess&) = delete;
  StandInProcess& operator=(const StandInProcess&) = delete;

  std::uint16_t port() const { return port_; }
  std::string baseURL() const { return "http://127.0.0.1:" + std::to_string(port_); }
  // Kills it at once, as a crashing daemon would die.
  void kill();

  // The stand-in's own test endpoints.
  nlohmann::json stats() const;
  // Waits until every named stats field equals its value; false at the time-out.
  bool waitFor(const nlohmann::json& until, int timeoutMilliseconds = 20000) const;

 private:
  std::unique_ptr<test::TemporaryDirectory> configFolder_;
  std::unique_ptr<test::ChildProcess> process_;
  std::uint16_t port_ = 0;
};

// One HTTP/1.1 exchange with a loopback port: the status, the fields and the body; status 0
// when the connection closed without a reply. Without `defaultHost` only the given fields go.
struct HTTPReply {
  int status = 0;
  std::string body;
  std::map<std::string, std::string> fields{};  // names lower-cased

  std::string field(const std::string& name) const {
    const auto it = fields.find(name);
    return it == fields.end() ? std::string() : it->second;
  }
};
HTTPReply httpExchange(std::uint16_t port, const std::string& method, const std::string& target,
                       const std::string& body = {},
                       const std::vector<std::pair<std::string, std::string>>& headers = {},
                       bool defaultHost = true);

}  // namespace orin::testing_support
