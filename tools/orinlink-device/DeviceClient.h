#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "OrinLinkShared/AIRecords.h"
#include "OrinLinkShared/Error.h"
#include "OrinLinkShared/JSONCoding.h"
#include "OrinLinkShared/Pairing.h"

namespace orin::device {

// Every way a call can fail, with the exact text a person reads and the exit status that scripts
// test.
class DeviceError : public Error {
 public:
  enum class Kind {
    unauthorized,   // 401
    notFound,       // 404
    requestFailed,  // 500
    badRequest,     // 400 and 413
    unreachable,    // refused, unreachable, timed out, cut off
    badReply,       // anything the contract does not allow
    streamFailed,   // an "error" event ended a stream
  };

  DeviceError(Kind kind, std::string message, std::string replyBody = {})
      : Error(std::move(message)), kind_(kind), replyBody_(std::move(replyBody)) {}

  Kind kind() const { return kind_; }
  int exitCode() const;
  // The body of an error reply as received, for scripts that want the server's JSON.
  const std::string& replyBody() const { return replyBody_; }

 private:
  Kind kind_;
  std::string replyBody_;
};

// Body of GET /models.
struct ModelList {
  std::vector<std::string> models;

  static ModelList decode(const json::Value& value, const json::CodingPath& path);
  json::Ordered encode() const;
  bool operator==(const ModelList&) const = default;
};

// A decoded reply together with its body as received, so scripts can have the raw JSON.
template <class T>
struct Answer {
  T value;
  std::string body;
};

// One item of a generation stream, with escaped line feeds already restored.
struct StreamEvent {
  enum class Kind { token, done, error };
  Kind kind = Kind::token;
  std::string text;
  bool operator==(const StreamEvent&) const = default;
};

// Turns the bytes of /v1/generate/stream into events as they arrive, whatever the read
// boundaries. Events of other types and comments are skipped.
class GenerationStreamDecoder {
 public:
  // The events these bytes complete, in order. Throws DeviceError (badReply) when one line or
  // event grows past a sane bound.
  std::vector<StreamEvent> feed(std::string_view bytes);

 private:
  void takeLine(std::string_view line, std::vector<StreamEvent>& out);

  std::string line_;
  std::string type_;
  std::string data_;
  bool hasData_ = false;
  bool hasField_ = false;
};

// A new generation request: fresh id, requested now.
OrinLinkGenerateRequest makeGenerateRequest(std::string prompt, std::optional<std::string> model,
                                            std::optional<double> temperature,
                                            std::optional<bool> think);

// One HTTP/1.1 request per connection to the host's AI service. Each call blocks until the reply
// is complete and throws DeviceError for every failure.
class DeviceClient {
 public:
  struct Options {
    std::string host = "127.0.0.1";
    std::uint16_t port = 38141;
    // Sent as a bearer token when present.
    std::optional<std::string> token;
    // Longest wait for the connection or for any next bytes of the reply.
    std::chrono::milliseconds idleTimeout = std::chrono::seconds(120);
  };

  explicit DeviceClient(Options options) : options_(std::move(options)) {}

  Answer<OrinLinkHealth> health() const;
  Answer<OrinLinkStatusPayload> status() const;
  Answer<ModelList> models() const;
  Answer<PairResponse> pair(const PairRequest& request) const;
  Answer<OrinLinkResponse> generate(const OrinLinkGenerateRequest& request) const;
  // Calls onToken for each token as soon as its event is complete; returns at the "done" event.
  void generateStream(const OrinLinkGenerateRequest& request,
                      const std::function<void(std::string_view)>& onToken) const;

  const Options& options() const { return options_; }

 private:
  template <class T>
  Answer<T> fetch(bool post, std::string target, std::optional<std::string> body) const;

  Options options_;
};

}  // namespace orin::device
