#pragma once

#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

#include "OrinLink/concurrency/AsyncStream.h"
#include "OrinLinkShared/JSONCoding.h"

namespace orin {

using HTTPHeaders = std::map<std::string, std::string, std::less<>>;

struct HTTPRequest {
  std::string method;
  std::string path;
  // Names lower-cased and trimmed, values trimmed; a later duplicate replaces an earlier one.
  HTTPHeaders headers;
  // Every byte after the head, even beyond the announced length.
  std::string body;

  // Present when "authorization" starts with "bearer " in any case; the rest as received.
  std::optional<std::string> bearerToken() const;

  bool operator==(const HTTPRequest&) const = default;
};

namespace HTTPStatus {
inline constexpr int ok = 200;
inline constexpr int badRequest = 400;
inline constexpr int unauthorized = 401;
inline constexpr int forbidden = 403;
inline constexpr int notFound = 404;
inline constexpr int payloadTooLarge = 413;
inline constexpr int internalServerError = 500;
}  // namespace HTTPStatus

// The reason phrase every reply of the service uses for its status code.
std::string_view reasonPhrase(int statusCode);

struct HTTPResponse {
  int statusCode = HTTPStatus::ok;
  std::string reason;
  // Fields other than Content-Length and Connection, which serialisation sets.
  HTTPHeaders headers;
  std::string body;

  std::string serialized() const;

  // The value encoded as JSON; an encoding failure leaves the body empty and keeps the status.
  template <class T>
  static HTTPResponse json(const T& value, int statusCode, std::string reason) {
    HTTPResponse response{statusCode, std::move(reason), jsonHeaders(), {}};
    try {
      response.body = encodeJSON(value);
    } catch (const EncodingError&) {
    }
    return response;
  }

  // The service's error body, {"error":{"code","message"}}, with the status's own reason phrase.
  static HTTPResponse error(int statusCode, std::string code, std::string message);

  static HTTPHeaders jsonHeaders();
  static HTTPHeaders plainTextHeaders();

  bool operator==(const HTTPResponse&) const = default;
};

// Written instead of a serialised response in front of a server-sent event stream.
inline constexpr std::string_view eventStreamHead =
    "HTTP/1.1 200 OK\r\n"
    "Content-Type: text/event-stream; charset=utf-8\r\n"
    "Cache-Control: no-cache\r\n"
    "Connection: close\r\n\r\n";

// The text chunks of a server-sent event reply, produced on the main loop and consumed by the
// server's own executor; it ends normally or with an error whose description the client sees.
using TextChunkStream = AsyncStream<std::string>;

struct HTTPHandlerResult {
  std::variant<HTTPResponse, TextChunkStream> value;

  static HTTPHandlerResult response(HTTPResponse r) { return {std::move(r)}; }
  static HTTPHandlerResult eventStream(TextChunkStream s) { return {std::move(s)}; }
};

// An answer given on the server's own loop: a whole reply already serialized, or an event stream.
using HTTPImmediateAnswer = std::variant<std::string, TextChunkStream>;

}  // namespace orin
