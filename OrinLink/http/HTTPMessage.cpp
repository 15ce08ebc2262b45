#include "OrinLink/http/HTTPMessage.h"

#include "OrinLinkShared/AIRecords.h"
#include "OrinLinkShared/Text.h"

namespace orin {

std::optional<std::string> HTTPRequest::bearerToken() const {
  const auto it = headers.find("authorization");
  if (it == headers.end()) return std::nullopt;
  constexpr std::string_view scheme = "bearer ";
  const std::string& value = it->second;
  if (value.size() < scheme.size() ||
      text::asciiLowercased(std::string_view(value).substr(0, scheme.size())) != scheme) {
    return std::nullopt;
  }
  return value.substr(scheme.size());
}

std::string_view reasonPhrase(int statusCode) {
  switch (statusCode) {
    case HTTPStatus::ok:
      return "OK";
    case HTTPStatus::badRequest:
      return "Bad Request";
    case HTTPStatus::unauthorized:
      return "Unauthorized";
    case HTTPStatus::forbidden:
      return "Forbidden";
    case HTTPStatus::notFound:
      return "Not Found";
    case HTTPStatus::payloadTooLarge:
      return "Payload Too Large";
    case HTTPStatus::internalServerError:
      return "Internal Server Error";
    default:
      return "";
  }
}

std::string HTTPResponse::serialized() const {
  HTTPHeaders fields = headers;
  fields["Content-Length"] = std::to_string(body.size());
  fields["Connection"] = "close";
  std::string out = "HTTP/1.1 " + std::to_string(statusCode) + " " + reason;
  for (const auto& [name, value] : fields) {
    out += "\r\n";
    out += name;
    out += ": ";
    out += value;
  }
  out += "\r\n\r\n";
  out += body;
  return out;
}

HTTPResponse HTTPResponse::error(int statusCode, std::string code, std::string message) {
  return json(OrinLinkErrorResponse::make(std::move(code), std::move(message)), statusCode,
              std::string(reasonPhrase(statusCode)));
}

HTTPHeaders HTTPResponse::jsonHeaders() {
  return {{"Content-Type", "application/json; charset=utf-8"}};
}

HTTPHeaders HTTPResponse::plainTextHeaders() {
  return {{"Content-Type", "text/plain; charset=utf-8"}};
}

}  // namespace orin
