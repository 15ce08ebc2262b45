#include "OrinLink/ui/ControlClient.h"

#include <boost/asio/connect.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http.hpp>

namespace orin {

namespace asio = boost::asio;
namespace http = boost::beast::http;

ControlClient::ControlClient(std::uint16_t port, std::string secret)
    : port_(port), secret_(std::move(secret)) {}

nlohmann::json ControlClient::get(const std::string& path) const {
  return exchange("GET", path, "");
}

nlohmann::json ControlClient::post(const std::string& path, const nlohmann::json& body) const {
  return exchange("POST", path, body.is_null() ? "" : body.dump());
}

nlohmann::json ControlClient::exchange(const std::string& method, const std::string& path,
                                       const std::string& body) const {
  asio::io_context context;
  asio::ip::tcp::socket socket(context);
  boost::system::error_code ec;
  socket.connect({asio::ip::address_v4::loopback(), port_}, ec);
  if (ec) {
    throw Error("Orin Link is not running (nothing answers on 127.0.0.1:" + std::to_string(port_) +
                "). Start it with: orinlink");
  }
  http::request<http::string_body> request(http::string_to_verb(method), path, 11);
  request.set(http::field::host, "127.0.0.1:" + std::to_string(port_));
  request.set(http::field::authorization, "Bearer " + secret_);
  if (!body.empty()) request.set(http::field::content_type, "application/json");
  request.body() = body;
  request.prepare_payload();
  http::write(socket, request, ec);
  boost::beast::flat_buffer buffer;
  http::response<http::string_body> response;
  if (!ec) http::read(socket, buffer, response, ec);
  if (ec) throw Error("Orin Link did not answer: " + ec.message());
  nlohmann::json reply = nlohmann::json::parse(response.body(), nullptr, false);
  if (response.result_int() != 200) {
    if (reply.is_object() && reply.contains("error") && reply["error"].contains("message")) {
      throw Error(reply["error"]["message"].get<std::string>());
    }
    throw Error("Orin Link answered HTTP " + std::to_string(response.result_int()) + ".");
  }
  if (reply.is_discarded()) throw Error("Orin Link sent a reply this command does not understand.");
  return reply;
}

}  // namespace orin
