#include <optional>
#include <ostream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "OrinLink/http/HTTPParser.h"

#include "tests/shared/EverySplit.h"

namespace orin {

static void PrintTo(const HTTPRequest& r, std::ostream* os) {
  *os << testing::PrintToString(r.method) << ' ' << testing::PrintToString(r.path) << ' '
      << testing::PrintToString(r.headers) << ' ' << testing::PrintToString(r.body);
}

namespace {

using namespace std::string_literals;
using Status = HTTPRequestReader::Status;

// What the server would conclude from re-parsing everything buffered so far.
Status oracle(std::string_view buffered) {
  if (buffered.size() > HTTPRequestReader::maxBufferedBytes) return Status::tooLarge;
  const auto request = HTTPParser::parse(buffered);
  return request && hasCompleteBody(*request, buffered) ? Status::complete : Status::needMore;
}

// Feeds `input` in `pieces` and checks the reader against the oracle after every piece, then
// checks the finished request against a parse of the whole input.
void expectReaderMatchesOracle(std::string_view input,
                               const std::vector<std::string_view>& pieces) {
  SCOPED_TRACE(testing::Message() << pieces[0].size() << " of " << pieces.size());
  HTTPRequestReader reader;
  std::size_t received = 0;
  for (const std::string_view piece : pieces) {
    const Status got = reader.append(piece);
    received += piece.size();
    ASSERT_EQ(got, oracle(input.substr(0, received))) << "after " << received;
    ASSERT_EQ(reader.status(), got);
  }
  if (reader.status() == Status::complete) {
    EXPECT_EQ(reader.take(), HTTPParser::parse(input));
  }
}

struct ParseCase {
  const char* name;
  std::string input;
  std::optional<HTTPRequest> expected;
  bool complete = false;
};

HTTPRequest request(std::string method, std::string path, HTTPHeaders headers = {},
                    std::string body = {}) {
  return {std::move(method), std::move(path), std::move(headers), std::move(body)};
}

const std::vector<ParseCase> parseCases = {
    {"Minimal", "GET /health HTTP/1.1\r\n\r\n", request("GET", "/health"), true},
    {"NoVersion", "GET /health\r\n\r\n", request("GET", "/health"), true},
    {"MethodOnly", "GET\r\n\r\n", std::nullopt},
    {"EmptyRequestLine", "\r\n\r\n", std::nullopt},
    {"TabIsNotASeparator", "GET\t/x\r\n\r\n", std::nullopt},
    {"NoSeparatorYet", "GET /health HTTP/1.1\r\nHost: x\r\n", std::nullopt},
    {"BlankRunsAndRawPath", "  get   /a%20b?q=1#f   HTTP/1.1 extra\r\n\r\n",
     request("get", "/a%20b?q=1#f"), true},
    {"BodyWithoutHeaders", "GET / HTTP/1.1\r\n\r\nxyz", request("GET", "/", {}, "xyz"), true},
    {"ShortBody", "POST /v HTTP/1.1\r\nContent-Length: 10\r\n\r\nabcd",
     request("POST", "/v", {{"content-length", "10"}}, "abcd"), false},
    {"BodyBeyondLengthKept", "POST /v HTTP/1.1\r\nContent-Length: 10\r\n\r\nabcdefghijkl",
     request("POST", "/v", {{"content-length", "10"}}, "abcdefghijkl"), true},
    {"SeparatorInsideBody", "POST / HTTP/1.1\r\nCONTENT-LENGTH: 8\r\n\r\nab\r\n\r\ncd",
     request("POST", "/", {{"content-length", "8"}}, "ab\r\n\r\ncd"), true},
    {"LengthZero", "POST / HTTP/1.1\r\nContent-Length: 0\r\n\r\n",
     request("POST", "/", {{"content-length", "0"}}), true},
    {"LengthWithPlus", "POST / HTTP/1.1\r\nContent-Length: +5\r\n\r\nabcd",
     request("POST", "/", {{"content-length", "+5"}}, "abcd"), false},
    {"LengthTrimmedBeforeReading", "POST / HTTP/1.1\r\nContent-Length:  5 \t\r\n\r\nabcd",
     request("POST", "/", {{"content-length", "5"}}, "abcd"), false},
    {"LargestLengthWaits", "POST / HTTP/1.1\r\nContent-Length: 9223372036854775807\r\n\r\n",
     request("POST", "/", {{"content-length", "9223372036854775807"}}), false},
    {"LengthNotANumber", "POST / HTTP/1.1\r\nContent-Length: abc\r\n\r\n",
     request("POST", "/", {{"content-length", "abc"}}), true},
    {"LengthNegative", "POST / HTTP/1.1\r\nContent-Length: -5\r\n\r\n",
     request("POST", "/", {{"content-length", "-5"}}), true},
    {"LengthEmpty", "POST / HTTP/1.1\r\nContent-Length:\r\n\r\n",
     request("POST", "/", {{"content-length", ""}}), true},
    {"LengthTwoSigns", "POST / HTTP/1.1\r\nContent-Length: +-5\r\n\r\n",
     request("POST", "/", {{"content-length", "+-5"}}), true},
    {"LengthOverflows", "POST / HTTP/1.1\r\nContent-Length: 99999999999999999999\r\n\r\n",
     request("POST", "/", {{"content-length", "99999999999999999999"}}), true},
    {"LengthInnerBlank", "POST / HTTP/1.1\r\nContent-Length: 1 0\r\n\r\n",
     request("POST", "/", {{"content-length", "1 0"}}), true},
    {"DuplicateNamesDifferingInCase", "GET / HTTP/1.1\r\nAccept: a\r\naCCEPT: b\r\n\r\n",
     request("GET", "/", {{"accept", "b"}}), true},
    {"FirstColonSplits", "GET / HTTP/1.1\r\nHost: a:b\r\n\r\n",
     request("GET", "/", {{"host", "a:b"}}), true},
    {"NamesAndValuesTrimmed", "GET / HTTP/1.1\r\n X-Name \t:\xC2\xA0 v w \xC2\xA0\r\n\r\n",
     request("GET", "/", {{"x-name", "v w"}}), true},
    {"LinesWithoutColonSkipped", "GET / HTTP/1.1\r\nnocolon\r\n \r\nA: 1\r\n\r\n",
     request("GET", "/", {{"a", "1"}}), true},
    {"LoneLineFeedDoesNotEndALine", "GET / HTTP/1.1\r\nA: 1\nB: 2\r\n\r\n",
     request("GET", "/", {{"a", "1\nB: 2"}}), true},
    {"Utf8Head", "GET /caf\xC3\xA9 HTTP/1.1\r\nX: \xE2\x82\xAC\r\n\r\n",
     request("GET", "/caf\xC3\xA9", {{"x", "\xE2\x82\xAC"}}), true},
    {"InvalidUtf8Path", "GET /\xFF HTTP/1.1\r\n\r\n", std::nullopt},
    {"InvalidUtf8Header", "GET / HTTP/1.1\r\nX: \xC3\x28\r\n\r\nbody", std::nullopt},
    {"SurrogateInHead", "GET /\xED\xA0\x80 HTTP/1.1\r\n\r\n", std::nullopt},
    {"BodyBytesAreOpaque", "POST / HTTP/1.1\r\nContent-Length: 5\r\n\r\n\xFF\0\xFE\0\xC3"s,
     request("POST", "/", {{"content-length", "5"}}, "\xFF\0\xFE\0\xC3"s), true},
};

TEST(HTTPParser, ParsesWholeBuffersAndTheReaderAgreesAtEverySplit) {
  for (const ParseCase& c : parseCases) {
    SCOPED_TRACE(c.name);
    const auto parsed = HTTPParser::parse(c.input);
    EXPECT_EQ(parsed, c.expected);
    if (parsed) {
      EXPECT_EQ(hasCompleteBody(*parsed, c.input), c.complete);
    }
    for (const auto& pieces : test::everySplit(std::string_view(c.input))) {
      expectReaderMatchesOracle(c.input, pieces);
      if (testing::Test::HasFatalFailure()) return;
    }
  }
}

TEST(HasCompleteBody, ReadsAnUntrimmedValueAsMalformed) {
  // Only a hand-built request can carry blanks here; they make the length unreadable.
  EXPECT_TRUE(hasCompleteBody(request("POST", "/", {{"content-length", "5 "}})));
  EXPECT_FALSE(hasCompleteBody(request("POST", "/", {{"content-length", "5"}})));
}

// Complete requests at and just over the limit go through the server's own tests.
TEST(HTTPRequestReader, RefusesMoreThanTheLimitEvenUnfinishedAndForGood) {
  HTTPRequestReader reader;
  EXPECT_EQ(reader.append(std::string(HTTPRequestReader::maxBufferedBytes, 'x')), Status::needMore);
  EXPECT_EQ(reader.append("x"), Status::tooLarge);
  EXPECT_EQ(reader.append(""), Status::tooLarge);
  EXPECT_EQ(reader.status(), Status::tooLarge);
}

}  // namespace
}  // namespace orin
