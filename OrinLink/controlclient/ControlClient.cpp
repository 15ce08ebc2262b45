#include "OrinLink/controlclient/ControlClient.h"

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/beast/core/error.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/core/tcp_stream.hpp>
#include <boost/beast/http.hpp>

#include "OrinLink/common/AtomicFile.h"

namespace orin {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = boost::beast::http;
using Kind = ControlClientError::Kind;

ControlClient::ControlClient(std::uint16_t port, std::string secret,
                             std::chrono::milliseconds deadline)
    : port_(port), secret_(std::move(secret)), deadline_(deadline) {}

nlohmann::json ControlClient::get(const std::string& path) const {
  return exchange("GET", path, "");
}

nlohmann::json ControlClient::post(const std::string& path, const nlohmann::json& body) const {
  return exchange("POST", path, body.is_null() ? "" : body.dump());
}

nlohmann::json ControlClient::exchange(const std::string& method, const std::string& path,
                                       const std::string& body) const {
  const std::string address = "127.0.0.1:" + std::to_string(port_);
  http::request<http::string_body> request(http::string_to_verb(method), path, 11);
  request.set(http::field::host, address);
  request.set(http::field::authorization, "Bearer " + secret_);
  if (!body.empty()) request.set(http::field::content_type, "application/json");
  request.body() = body;
  request.prepare_payload();

  asio::io_context context;
  beast::tcp_stream stream(context);
  beast::flat_buffer buffer;
  http::response<http::string_body> response;
  bool connected = false;
  boost::system::error_code failure;
  // One expiry for the whole exchange: a copy that trickles bytes must not keep us either.
  stream.expires_after(deadline_);
  stream.async_connect({asio::ip::address_v4::loopback(), port_}, [&](beast::error_code ec) {
    connected = !ec;
    if (ec) {
      failure = ec;
      return;
    }
    http::async_write(stream, request, [&](beast::error_code written, std::size_t) {
      if (written) {
        failure = written;
        return;
      }
      http::async_read(stream, buffer, response,
                       [&](beast::error_code read, std::size_t) { failure = read; });
    });
  });
  context.run();

  if (failure == beast::error::timeout) {
    throw ControlClientError(Kind::timedOut, std::string(timedOutText));
  }
  if (failure && !connected) {
    throw ControlClientError(Kind::notRunning, "Orin Link is not running (nothing answers on " +
                                                   address + "). Start it with: orinlink");
  }
  if (failure) {
    throw ControlClientError(Kind::failed, "Orin Link did not answer: " + failure.message());
  }
  nlohmann::json reply = nlohmann::json::parse(response.body(), nullptr, false);
  if (response.result_int() != 200) {
    if (reply.is_object() && reply.contains("error") && reply["error"].contains("message")) {
      throw ControlClientError(Kind::refused, reply["error"]["message"].get<std::string>());
    }
    throw ControlClientError(
        Kind::refused, "Orin Link answered HTTP " + std::to_string(response.result_int()) + ".");
  }
  if (reply.is_discarded()) {
    throw ControlClientError(Kind::unreadable,
                             "Orin Link sent a reply this command does not understand.");
  }
  return reply;
}

std::optional<std::string> readControlSecret(const std::filesystem::path& file) {
  auto text = readFile(file);
  if (!text) return std::nullopt;
  while (!text->empty() && (text->back() == '\n' || text->back() == '\r'))
    text->pop_back();
  return text;
}

}  // namespace orin
