#include "tests/support/StandInProcess.h"

#include <chrono>
#include <fstream>
#include <stdexcept>

#include <boost/algorithm/string/case_conv.hpp>
#include <boost/asio/connect.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http.hpp>

#include "tests/support/ChildProcess.h"

namespace orin::testing_support {

StandInProcess::StandInProcess(std::vector<std::string> arguments) {
  arguments.insert(arguments.begin(), {STANDIN_PATH, "--port", "0", "--exit-with-parent"});
  process_ = std::make_unique<test::ChildProcess>(std::move(arguments));
  const std::string prefix = "listening on 127.0.0.1:";
  const auto line = process_->waitForLine("listening on ", std::chrono::seconds(20));
  if (!line || !line->starts_with(prefix))
    throw std::runtime_error("the stand-in did not start: " + process_->output());
  port_ = static_cast<std::uint16_t>(std::stoi(line->substr(prefix.size())));
}

StandInProcess StandInProcess::withConfig(const nlohmann::json& config) {
  auto folder = std::make_unique<test::TemporaryDirectory>();
  const auto file = folder->path() / "standin.json";
  std::ofstream(file) << config.dump();
  StandInProcess process({"--config", file.string()});
  process.configFolder_ = std::move(folder);
  return process;
}

StandInProcess::StandInProcess(StandInProcess&& other) noexcept = default;
StandInProcess::~StandInProcess() = default;

void StandInProcess::kill() {
  process_.reset();
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
                       const std::vector<std::pair<std::string, std::string>>& headers,
                       bool defaultHost) {
  namespace asio = boost::asio;
  namespace http = boost::beast::http;
  asio::io_context context;
  asio::ip::tcp::socket socket(context);
  socket.connect({asio::ip::address_v4::loopback(), port});
  http::request<http::string_body> request(http::string_to_verb(method), target, 11);
  if (defaultHost) request.set(http::field::host, "127.0.0.1:" + std::to_string(port));
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
  if (ec) return {};
  HTTPReply reply{static_cast<int>(response.result_int()), response.body()};
  for (const auto& field : response)
    reply.fields[boost::algorithm::to_lower_copy(std::string(field.name_string()))] = field.value();
  return reply;
}

}  // namespace orin::testing_support
