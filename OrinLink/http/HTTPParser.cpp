#include "OrinLink/http/HTTPParser.h"

#include <algorithm>
#include <charconv>
#include <cstring>

#include "OrinLinkShared/Assert.h"
#include "OrinLinkShared/Text.h"

namespace orin {
namespace {

constexpr std::string_view separator = "\r\n\r\n";

struct ParsedHead {
  std::string method;
  std::string path;
  HTTPHeaders headers;
};

std::size_t findSeparator(std::string_view data, std::size_t from) {
  if (from >= data.size()) return std::string_view::npos;
  const void* hit =
      ::memmem(data.data() + from, data.size() - from, separator.data(), separator.size());
  if (hit == nullptr) return std::string_view::npos;
  return static_cast<std::size_t>(static_cast<const char*>(hit) - data.data());
}

// Up to three pieces split at single blanks, empty pieces dropped.
std::optional<ParsedHead> parseHead(std::string_view head) {
  if (!text::isValidUTF8(head)) return std::nullopt;
  const std::size_t requestLineEnd = head.find("\r\n");
  const std::string_view requestLine = head.substr(0, requestLineEnd);

  std::string_view pieces[2];
  std::size_t found = 0;
  std::size_t pos = 0;
  while (found < 2 && pos < requestLine.size()) {
    if (requestLine[pos] == ' ') {
      ++pos;
      continue;
    }
    const std::size_t end = std::min(requestLine.find(' ', pos), requestLine.size());
    pieces[found++] = requestLine.substr(pos, end - pos);
    pos = end + 1;
  }
  if (found < 2) return std::nullopt;

  ParsedHead parsed{std::string(pieces[0]), std::string(pieces[1]), {}};
  std::size_t lineStart =
      requestLineEnd == std::string_view::npos ? head.size() : requestLineEnd + 2;
  while (lineStart <= head.size() && requestLineEnd != std::string_view::npos) {
    const std::size_t lineEnd = std::min(head.find("\r\n", lineStart), head.size());
    const std::string_view line = head.substr(lineStart, lineEnd - lineStart);
    const std::size_t colon = line.find(':');
    if (colon != std::string_view::npos) {
      std::string name = text::asciiLowercased(text::trimmed(line.substr(0, colon)));
      parsed.headers.insert_or_assign(std::move(name),
                                      std::string(text::trimmed(line.substr(colon + 1))));
    }
    if (lineEnd == head.size()) break;
    lineStart = lineEnd + 2;
  }
  return parsed;
}

// The body length a request asks for; nothing when no usable Content-Length makes it wait.
std::optional<std::int64_t> announcedLength(const HTTPHeaders& headers) {
  const auto it = headers.find("content-length");
  if (it == headers.end() || it->second.empty()) return std::nullopt;
  std::string_view digits = it->second;
  bool negative = false;
  if (digits.front() == '+' || digits.front() == '-') {
    negative = digits.front() == '-';
    digits.remove_prefix(1);
  }
  if (digits.empty() || digits.front() == '+' || digits.front() == '-') return std::nullopt;
  std::int64_t magnitude = 0;
  const auto [end, error] =
      std::from_chars(digits.data(), digits.data() + digits.size(), magnitude);
  if (error != std::errc() || end != digits.data() + digits.size()) {
    // INT64_MIN has no positive twin; it is still a valid (negative, so complete) length.
    if (negative && digits == "9223372036854775808") return INT64_MIN;
    return std::nullopt;
  }
  return negative ? -magnitude : magnitude;
}

std::uint64_t requiredBodyBytes(const HTTPHeaders& headers) {
  const auto length = announcedLength(headers);
  return length && *length > 0 ? static_cast<std::uint64_t>(*length) : 0;
}

}  // namespace

std::optional<HTTPRequest> HTTPParser::parse(std::string_view data) {
  const std::size_t headEnd = findSeparator(data, 0);
  if (headEnd == std::string_view::npos) return std::nullopt;
  auto head = parseHead(data.substr(0, headEnd));
  if (!head) return std::nullopt;
  return HTTPRequest{std::move(head->method), std::move(head->path), std::move(head->headers),
                     std::string(data.substr(headEnd + separator.size()))};
}

bool hasCompleteBody(const HTTPRequest& request, std::string_view /*rawData*/) {
  return request.body.size() >= requiredBodyBytes(request.headers);
}

HTTPRequestReader::Status HTTPRequestReader::append(std::string_view bytes) {
  if (status_ == Status::tooLarge) return status_;
  buffered_ += bytes.size();
  if (buffered_ > maxBufferedBytes) {
    status_ = Status::tooLarge;
    return status_;
  }
  if (headComplete_) {
    body_.append(bytes);
  } else {
    receiveHead(bytes);
  }
  updateStatus();
  return status_;
}

void HTTPRequestReader::receiveHead(std::string_view bytes) {
  // A separator either straddles the old tail and the first new bytes, or lies in the new bytes.
  const std::size_t before = head_.size();
  const std::size_t tail = std::min<std::size_t>(before, separator.size() - 1);
  std::string seam = head_.substr(before - tail);
  seam.append(bytes.substr(0, separator.size() - 1));
  std::size_t at = seam.find(separator);
  if (at != std::string::npos) {
    at += before - tail;
  } else if (const std::size_t inBytes = findSeparator(bytes, 0);
             inBytes != std::string_view::npos) {
    at = before + inBytes;
  } else {
    head_.append(bytes);
    return;
  }

  // Only the head joins head_; whatever follows the separator goes straight to the body.
  const std::size_t headBytesInAppend = at + separator.size() - before;
  head_.append(bytes.substr(0, headBytesInAppend));
  headComplete_ = true;
  if (auto head = parseHead(std::string_view(head_).substr(0, at))) {
    requiredBodyBytes_ = requiredBodyBytes(head->headers);
    parsedHead_ = Head{std::move(head->method), std::move(head->path), std::move(head->headers)};
    body_.reserve(static_cast<std::size_t>(
        std::min<std::uint64_t>(requiredBodyBytes_, maxBufferedBytes - head_.size() + 1)));
  }
  body_.append(bytes.substr(headBytesInAppend));
}

void HTTPRequestReader::updateStatus() {
  if (parsedHead_ && body_.size() >= requiredBodyBytes_) status_ = Status::complete;
}

HTTPRequest HTTPRequestReader::take() {
  ORIN_ASSERT(status_ == Status::complete && parsedHead_, "take() before the request is complete");
  HTTPRequest request{std::move(parsedHead_->method), std::move(parsedHead_->path),
                      std::move(parsedHead_->headers), std::move(body_)};
  parsedHead_.reset();
  return request;
}

}  // namespace orin
