#include <algorithm>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "OrinLink/http/HTTPMessage.h"
#include "OrinLinkShared/AIRecords.h"

namespace orin {
namespace {

using namespace std::string_literals;

struct BearerCase {
  std::optional<std::string> authorization;
  std::optional<std::string> expected;
};

TEST(HTTPRequest, BearerToken) {
  const BearerCase cases[] = {
      {"Bearer abc", "abc"},
      {"BEARER abc", "abc"},
      {"bEaReR AbC", "AbC"},
      {"Bearer  abc", " abc"},
      {"Bearer ", ""},
      {"Bearer", std::nullopt},
      {"Bearerabc", std::nullopt},
      {"Basic abc", std::nullopt},
      {" Bearer abc", std::nullopt},
      {std::nullopt, std::nullopt},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.authorization.value_or("<no header>"));
    HTTPRequest request{"GET", "/status", {{"x-authorization", "Bearer other"}}, {}};
    if (c.authorization) request.headers["authorization"] = *c.authorization;
    EXPECT_EQ(request.bearerToken(), c.expected);
  }
}

// The head of a serialised response as its status line and its header lines, sorted because
// clients may not rely on their order, then the body.
struct Serialized {
  std::string statusLine;
  std::vector<std::string> headerLines;
  std::string body;
};

Serialized split(const std::string& bytes) {
  const std::size_t headEnd = bytes.find("\r\n\r\n");
  EXPECT_NE(headEnd, std::string::npos);
  if (headEnd == std::string::npos) return {};
  std::vector<std::string> lines;
  for (std::size_t at = 0; at <= headEnd; at = bytes.find("\r\n", at) + 2)
    lines.push_back(bytes.substr(at, bytes.find("\r\n", at) - at));
  std::sort(lines.begin() + 1, lines.end());
  return {lines.front(), {lines.begin() + 1, lines.end()}, bytes.substr(headEnd + 4)};
}

struct SerializeCase {
  const char* name;
  HTTPResponse response;
  std::string statusLine;
  std::vector<std::string> headerLines;  // sorted
};

TEST(HTTPResponse, Serialized) {
  const SerializeCase cases[] = {
      {"plain text",
       {200, "OK", HTTPResponse::plainTextHeaders(), "hi"},
       "HTTP/1.1 200 OK",
       {"Connection: close", "Content-Length: 2", "Content-Type: text/plain; charset=utf-8"}},
      {"caller's own length and connection replaced",
       {404,
        "Not Found",
        {{"Content-Length", "99"}, {"Connection", "keep-alive"}, {"X-A", "b"}},
        "nope"},
       "HTTP/1.1 404 Not Found",
       {"Connection: close", "Content-Length: 4", "X-A: b"}},
      {"empty body",
       {500, "Internal Server Error", {}, ""},
       "HTTP/1.1 500 Internal Server Error",
       {"Connection: close", "Content-Length: 0"}},
      {"binary body counted in bytes",
       {200, "OK", {}, "\0\xFF\r\n\r\n"s},
       "HTTP/1.1 200 OK",
       {"Connection: close", "Content-Length: 6"}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const Serialized got = split(c.response.serialized());
    EXPECT_EQ(got.statusLine, c.statusLine);
    EXPECT_EQ(got.headerLines, c.headerLines);
    EXPECT_EQ(got.body, c.response.body);
  }
}

// Encodable error replies go through the server's own tests. Text that is not UTF-8 cannot be
// encoded; the reply keeps its status with no body.
TEST(HTTPResponse, JsonThatCannotBeEncodedKeepsItsStatus) {
  const HTTPResponse response = HTTPResponse::json(
      OrinLinkErrorResponse::make("bad_request", "\xFF"), 413, "Payload Too Large");
  EXPECT_EQ(response.statusCode, 413);
  EXPECT_EQ(response.reason, "Payload Too Large");
  EXPECT_EQ(response.headers, (HTTPHeaders{{"Content-Type", "application/json; charset=utf-8"}}));
  EXPECT_EQ(response.body, "");
}

TEST(HTTPStatus, ReasonPhrase) {
  const std::pair<int, std::string_view> cases[] = {
      {200, "OK"},        {400, "Bad Request"},       {401, "Unauthorized"},
      {404, "Not Found"}, {413, "Payload Too Large"}, {500, "Internal Server Error"},
  };
  for (const auto& [code, phrase] : cases)
    EXPECT_EQ(reasonPhrase(code), phrase) << code;
}

}  // namespace
}  // namespace orin
