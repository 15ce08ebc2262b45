#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "OrinLink/http/HTTPMessage.h"

namespace orin {

namespace HTTPParser {

// A request from all bytes received so far, or nothing while none can be formed. A request that
// is incomplete and one that will never parse look the same here.
std::optional<HTTPRequest> parse(std::string_view data);

}  // namespace HTTPParser

// Whether the body has arrived in full: true unless a well-formed Content-Length asks for more
// bytes than the body holds. `rawData` is accepted for the server's call shape and not used.
bool hasCompleteBody(const HTTPRequest& request, std::string_view rawData = {});

// The same rules applied incrementally, for a connection that reads in pieces: the separator
// search resumes where it stopped, the head is parsed once, and each body byte is copied once,
// so the work stays linear however the request is split.
class HTTPRequestReader {
 public:
  // Head and body together; one more buffered byte and the request is refused.
  static constexpr std::size_t maxBufferedBytes = 2'000'000;

  enum class Status { needMore, complete, tooLarge };

  Status append(std::string_view bytes);
  Status status() const { return status_; }
  std::size_t bufferedBytes() const { return buffered_; }
  // Bytes received past the declared body (pipelining, or a client that sent too much); only
  // meaningful once complete and before take().
  bool hasBytesPastBody() const { return body_.size() > requiredBodyBytes_; }

  // The finished request; only after append() reported `complete`.
  HTTPRequest take();

 private:
  struct Head {
    std::string method;
    std::string path;
    HTTPHeaders headers;
  };

  void receiveHead(std::string_view bytes);
  void updateStatus();

  Status status_ = Status::needMore;
  std::size_t buffered_ = 0;
  std::string head_;
  bool headComplete_ = false;
  std::optional<Head> parsedHead_;
  std::uint64_t requiredBodyBytes_ = 0;
  std::string body_;
};

}  // namespace orin
