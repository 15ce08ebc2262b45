#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <boost/asio/any_io_executor.hpp>
#include <boost/asio/awaitable.hpp>

#include "OrinLink/concurrency/AsyncStream.h"
#include "OrinLinkShared/Error.h"

namespace boost::asio::ssl {
class context;
}

namespace orin {

class SpareConnection;

class OllamaError : public Error {
 public:
  enum class Kind { httpStatus, pullFailed, badResponse };

  static OllamaError httpStatus(int statusCode);
  static OllamaError pullFailed(const std::string& daemonText);
  static OllamaError badResponse();

  Kind kind() const { return kind_; }
  int statusCode() const { return statusCode_; }

 private:
  OllamaError(Kind kind, std::string text, int statusCode);
  Kind kind_;
  int statusCode_;
};

struct OllamaModel {
  std::string name;
  bool operator==(const OllamaModel&) const = default;
};

struct PullProgress {
  std::string status;
  std::optional<double> fraction;
  std::int64_t completedBytes = 0;
  std::int64_t totalBytes = 0;
  bool operator==(const PullProgress&) const = default;
};

struct ModelGenerateRequest {
  std::string prompt;
  std::string model;
  double temperature = 0.7;
  std::optional<bool> think;
};

// Where the daemon listens: an http or https URL with an optional path prefix, to which
// "api/tags", "api/pull" and "api/generate" are appended.
struct OllamaEndpoint {
  bool tls = false;
  std::string host;
  std::uint16_t port = 0;
  std::string pathPrefix;  // ends with "/"

  static constexpr std::string_view defaultBaseURL = "http://localhost:11434";
  // Nothing when the text is not an http(s) URL with a host.
  static std::optional<OllamaEndpoint> parse(std::string_view baseURL);
  static OllamaEndpoint defaultEndpoint();
};

// The client of the local Ollama daemon. Holds nothing but where the daemon is; every call is
// independent. Its I/O runs on the executor given at construction (the main loop), never blocking
// it. Time-outs are idle time-outs: the longest wait for the next bytes, not for the exchange.
class OllamaRuntime {
 public:
  struct Timeouts {
    std::chrono::steady_clock::duration request = std::chrono::seconds(60);
    std::chrono::steady_clock::duration pull = std::chrono::seconds(3600);
    std::chrono::steady_clock::duration warm = std::chrono::seconds(300);
  };

  OllamaRuntime(OllamaEndpoint endpoint, boost::asio::any_io_executor executor, Timeouts timeouts);
  OllamaRuntime(OllamaEndpoint endpoint, boost::asio::any_io_executor executor);

  const OllamaEndpoint& endpoint() const { return endpoint_; }

  // The installed models in the daemon's order. Throws OllamaError, DecodingError or the
  // transport's boost::system::system_error.
  boost::asio::awaitable<std::vector<OllamaModel>> listModels();

  // Progress as each NDJSON line arrives; ends normally on success. Ending the consumer closes
  // the request's socket.
  AsyncStream<PullProgress> pull(std::string model);

  // True when the daemon accepted the warm-up with a 2xx status; never throws.
  boost::asio::awaitable<bool> warmModel(std::string model);

  // The whole reply text. No retry here: the caller retries without `think` on HTTP 400.
  boost::asio::awaitable<std::string> generateOnce(ModelGenerateRequest request,
                                                   std::optional<bool> think);

  // The reply piece by piece; retries once without `think` when the first attempt is refused
  // with HTTP 400 while `think` was present. Ending the consumer closes the socket upstream.
  AsyncStream<std::string> stream(ModelGenerateRequest request);

  // Streams take their connection from `spare` when it has one ready, and leave it one for the
  // next. The spare must belong to this client's executor.
  void useSpareConnection(std::shared_ptr<SpareConnection> spare) { spare_ = std::move(spare); }

 private:
  OllamaEndpoint endpoint_;
  boost::asio::any_io_executor executor_;
  Timeouts timeouts_;
  // Shared by every https exchange of this client; null for http.
  std::shared_ptr<boost::asio::ssl::context> tls_;
  std::shared_ptr<SpareConnection> spare_;
};

// The user's own words inside a chat-formatted prompt, for display only.
std::string displayPrompt(std::string_view prompt);

}  // namespace orin
