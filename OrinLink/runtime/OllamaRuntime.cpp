#include "OrinLink/runtime/OllamaRuntime.h"

#include <exception>
#include <utility>

#include <boost/asio/co_spawn.hpp>
#include <boost/asio/detached.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/ssl/context.hpp>
#include <boost/asio/strand.hpp>
#include <boost/asio/this_coro.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <boost/system/system_error.hpp>
#include <boost/url/parse.hpp>
#include <boost/url/scheme.hpp>

#include "OrinLink/runtime/OllamaExchange.h"
#include "OrinLinkShared/JSONCoding.h"
#include "OrinLinkShared/Text.h"

namespace orin {

namespace asio = boost::asio;
namespace http = boost::beast::http;
using Duration = std::chrono::steady_clock::duration;

// ---- Errors ----

OllamaError::OllamaError(Kind kind, std::string text, int statusCode)
    : Error(std::move(text)), kind_(kind), statusCode_(statusCode) {}

OllamaError OllamaError::httpStatus(int statusCode) {
  return {Kind::httpStatus, "Ollama returned HTTP " + std::to_string(statusCode), statusCode};
}

OllamaError OllamaError::pullFailed(const std::string& daemonText) {
  return {Kind::pullFailed, "Download failed: " + daemonText, 0};
}

OllamaError OllamaError::badResponse() {
  return {Kind::badResponse, "Ollama returned an unexpected response.", 0};
}

namespace {

// ---- The daemon's wire records ----

struct TagModel {
  std::string name;
  static TagModel decode(const json::Value& value, const json::CodingPath& path) {
    const json::ObjectReader reader(value, path);
    return {reader.required<std::string>("name")};
  }
};

struct TagsResponse {
  std::vector<TagModel> models;
  static TagsResponse decode(const json::Value& value, const json::CodingPath& path) {
    const json::ObjectReader reader(value, path);
    return {reader.required<std::vector<TagModel>>("models")};
  }
};

struct PullRequest {
  std::string model;
  json::Ordered encode() const {
    return json::ObjectWriter().set("model", model).set("stream", true).take();
  }
};

struct PullStreamResponse {
  std::optional<std::string> status;
  std::optional<std::string> digest;
  std::optional<std::int64_t> total;
  std::optional<std::int64_t> completed;
  std::optional<std::string> error;
  static PullStreamResponse decode(const json::Value& value, const json::CodingPath& path) {
    const json::ObjectReader reader(value, path);
    return {reader.optional<std::string>("status"), reader.optional<std::string>("digest"),
            reader.optional<std::int64_t>("total"), reader.optional<std::int64_t>("completed"),
            reader.optional<std::string>("error")};
  }
};

struct GenerateOptions {
  double temperature = 0.7;
  json::Ordered encode() const {
    return json::ObjectWriter().set("temperature", temperature).take();
  }
};

struct GenerateRequest {
  std::string model;
  std::string prompt;
  bool stream = false;
  GenerateOptions options;
  std::optional<bool> think;
  std::string keepAlive = "2h";
  json::Ordered encode() const {
    return json::ObjectWriter()
        .set("model", model)
        .set("prompt", prompt)
        .set("stream", stream)
        .set("options", options)
        .set("think", think)
        .set("keep_alive", keepAlive)
        .take();
  }
};

struct GenerateResponse {
  std::string response;
  static GenerateResponse decode(const json::Value& value, const json::CodingPath& path) {
    const json::ObjectReader reader(value, path);
    return {reader.required<std::string>("response")};
  }
};

struct GenerateStreamResponse {
  std::optional<std::string> response;
  std::optional<bool> done;
  static GenerateStreamResponse decode(const json::Value& value, const json::CodingPath& path) {
    const json::ObjectReader reader(value, path);
    return {reader.optional<std::string>("response"), reader.optional<bool>("done")};
  }
};

std::string generateBody(const ModelGenerateRequest& request, bool stream,
                         std::optional<bool> think) {
  return encodeJSON(GenerateRequest{request.model, request.prompt, stream,
                                    GenerateOptions{request.temperature}, think});
}

// ---- Exchanges ----

// What every exchange needs to reach the daemon; copied into each task so that none of them
// depends on the runtime object staying alive.
struct Daemon {
  OllamaEndpoint endpoint;
  std::shared_ptr<asio::ssl::context> tls;
  Duration idleTimeout;
  std::shared_ptr<SpareConnection> spare = nullptr;
};

void checkStatus(unsigned status) {
  if (status < 200 || status > 299) throw OllamaError::httpStatus(static_cast<int>(status));
}

// Every awaited call below is made in a statement of its own: GCC 12 destroys the by-value
// temporaries of a full-expression containing co_await twice.

[[noreturn]] void throwAborted() {
  throw boost::system::system_error(asio::error::operation_aborted);
}

asio::awaitable<std::vector<OllamaModel>> fetchModels(Daemon daemon) {
  const auto executor = co_await asio::this_coro::executor;
  OllamaExchange exchange(executor, daemon.tls, daemon.idleTimeout);
  auto beginning = exchange.begin(daemon.endpoint, http::verb::get, "api/tags", std::nullopt);
  const unsigned status = co_await std::move(beginning);
  checkStatus(status);
  const std::string body = co_await exchange.readWholeBody();
  auto tags = decodeJSON<TagsResponse>(body);
  std::vector<OllamaModel> models;
  for (auto& tag : tags.models)
    models.push_back({std::move(tag.name)});
  co_return models;
}

asio::awaitable<bool> warm(Daemon daemon, std::string model) {
  const auto executor = co_await asio::this_coro::executor;
  OllamaExchange exchange(executor, daemon.tls, daemon.idleTimeout);
  const ModelGenerateRequest request{"", std::move(model), 0.7, std::nullopt};
  auto beginning = exchange.begin(daemon.endpoint, http::verb::post, "api/generate",
                                  generateBody(request, false, std::nullopt));
  const unsigned status = co_await std::move(beginning);
  co_return status >= 200 && status <= 299;
}

asio::awaitable<std::string> generateWhole(Daemon daemon, ModelGenerateRequest request,
                                           std::optional<bool> think) {
  const auto executor = co_await asio::this_coro::executor;
  OllamaExchange exchange(executor, daemon.tls, daemon.idleTimeout);
  auto beginning = exchange.begin(daemon.endpoint, http::verb::post, "api/generate",
                                  generateBody(request, false, think));
  const unsigned status = co_await std::move(beginning);
  checkStatus(status);
  const std::string body = co_await exchange.readWholeBody();
  co_return decodeJSON<GenerateResponse>(body).response;
}

// ---- Streaming producers ----

// Shared by a streaming producer and its consumer's departure; touched on the producer's strand
// only.
struct ProducerControl {
  bool cancelled = false;
  OllamaExchange* exchange = nullptr;

  void cancel() {
    cancelled = true;
    if (exchange != nullptr) exchange->close();
  }
};

// Makes the attempt's exchange the one a departing consumer closes, for as long as it lives.
class CurrentExchange {
 public:
  CurrentExchange(ProducerControl& control, OllamaExchange& exchange) : control_(control) {
    if (control_.cancelled) throwAborted();
    control_.exchange = &exchange;
  }
  ~CurrentExchange() { control_.exchange = nullptr; }
  CurrentExchange(const CurrentExchange&) = delete;
  CurrentExchange& operator=(const CurrentExchange&) = delete;

 private:
  ProducerControl& control_;
};

template <class T>
using Continuation = typename AsyncStream<T>::Continuation;

// The producer's hold on its stream. Finishing lets go at once, so the consumer's side is the last
// to hold the stream and its error. Dropped unfinished (its loop shut down), it still ends the
// stream, so a consumer never waits forever.
template <class T>
class FinalContinuation {
 public:
  explicit FinalContinuation(Continuation<T> into) : into_(std::move(into)) {}
  FinalContinuation(const FinalContinuation&) = delete;
  FinalContinuation& operator=(const FinalContinuation&) = delete;
  ~FinalContinuation() {
    if (into_)
      finish(std::make_exception_ptr(boost::system::system_error(asio::error::operation_aborted)));
  }

  void finish(std::exception_ptr failure) {
    const Continuation<T> last = std::move(*into_);
    into_.reset();
    last.finish(std::move(failure));
  }

 private:
  std::optional<Continuation<T>> into_;
};

template <class T>
asio::awaitable<void> produce(asio::awaitable<void> work, Continuation<T> into) {
  FinalContinuation<T> end(std::move(into));
  std::exception_ptr failure;
  try {
    co_await std::move(work);
  } catch (...) {
    failure = std::current_exception();
  }
  end.finish(std::move(failure));
}

// Runs the work on a strand of its own; a consumer that goes away, on whatever thread, closes the
// work's connection there.
template <class T, class Work>
AsyncStream<T> startProducer(const asio::any_io_executor& executor, Work work) {
  auto made = AsyncStream<T>::make();
  auto strand = asio::make_strand(executor);
  auto control = std::make_shared<ProducerControl>();
  made.second.onTermination([strand, control](typename AsyncStream<T>::Termination why) {
    if (why != AsyncStream<T>::Termination::cancelled) return;
    asio::post(strand, [control] { control->cancel(); });
  });
  asio::co_spawn(strand, produce<T>(work(made.second, control), made.second), asio::detached);
  return std::move(made.first);
}

asio::awaitable<void> pullLines(Daemon daemon, std::string model, Continuation<PullProgress> into,
                                std::shared_ptr<ProducerControl> control) {
  const auto executor = co_await asio::this_coro::executor;
  OllamaExchange exchange(executor, daemon.tls, daemon.idleTimeout);
  const CurrentExchange current(*control, exchange);
  auto beginning = exchange.begin(daemon.endpoint, http::verb::post, "api/pull",
                                  encodeJSON(PullRequest{std::move(model)}));
  const unsigned status = co_await std::move(beginning);
  checkStatus(status);
  while (true) {
    const std::optional<std::string> line = co_await exchange.readLine();
    if (!line) co_return;
    const auto step = decodeJSON<PullStreamResponse>(*line);
    if (step.error) throw OllamaError::pullFailed(*step.error);
    PullProgress progress;
    progress.status = step.status.value_or("");
    progress.completedBytes = step.completed.value_or(0);
    progress.totalBytes = step.total.value_or(0);
    if (progress.totalBytes >= 1) {
      progress.fraction =
          static_cast<double>(progress.completedBytes) / static_cast<double>(progress.totalBytes);
    }
    if (!into.yield(std::move(progress))) throwAborted();
  }
}

asio::awaitable<void> streamOnce(Daemon daemon, ModelGenerateRequest request,
                                 std::optional<bool> think, Continuation<std::string> into,
                                 std::shared_ptr<ProducerControl> control) {
  const auto executor = co_await asio::this_coro::executor;
  OllamaExchange exchange(executor, daemon.tls, daemon.idleTimeout, daemon.spare);
  const CurrentExchange current(*control, exchange);
  auto beginning = exchange.begin(daemon.endpoint, http::verb::post, "api/generate",
                                  generateBody(request, true, think));
  const unsigned status = co_await std::move(beginning);
  checkStatus(status);
  while (true) {
    const std::optional<std::string> line = co_await exchange.readLine();
    if (!line) break;
    auto piece = decodeJSON<GenerateStreamResponse>(*line);
    if (piece.response && !piece.response->empty() && !into.yield(std::move(*piece.response))) {
      throwAborted();
    }
    if (piece.done.value_or(false)) break;
  }
  exchange.prepareNext();
}

asio::awaitable<void> streamWithRetry(Daemon daemon, ModelGenerateRequest request,
                                      Continuation<std::string> into,
                                      std::shared_ptr<ProducerControl> control) {
  // Some models refuse the thinking switch with 400; they get exactly one more try without it.
  try {
    auto first = streamOnce(daemon, request, request.think, into, control);
    co_await std::move(first);
    co_return;
  } catch (const OllamaError& e) {
    const bool refusedThink =
        request.think && e.kind() == OllamaError::Kind::httpStatus && e.statusCode() == 400;
    if (!refusedThink) throw;
  }
  auto second = streamOnce(std::move(daemon), std::move(request), std::nullopt, std::move(into),
                           std::move(control));
  co_await std::move(second);
}

std::string firstScalars(std::string_view text, std::size_t count) {
  std::size_t seen = 0;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const bool startsScalar = (static_cast<unsigned char>(text[i]) & 0xC0) != 0x80;
    if (startsScalar && seen++ == count) return std::string(text.substr(0, i));
  }
  return std::string(text);
}

}  // namespace

// ---- Endpoint ----

std::optional<OllamaEndpoint> OllamaEndpoint::parse(std::string_view baseURL) {
  const auto parsed = boost::urls::parse_absolute_uri(baseURL);
  if (!parsed) return std::nullopt;
  const boost::urls::url_view& url = *parsed;
  OllamaEndpoint endpoint;
  switch (url.scheme_id()) {
    case boost::urls::scheme::http:
      endpoint.tls = false;
      break;
    case boost::urls::scheme::https:
      endpoint.tls = true;
      break;
    default:
      return std::nullopt;
  }
  if (!url.has_authority() || url.has_userinfo() || url.has_query()) return std::nullopt;
  const auto hostType = url.host_type();
  if (hostType != boost::urls::host_type::name && hostType != boost::urls::host_type::ipv4 &&
      hostType != boost::urls::host_type::ipv6) {
    return std::nullopt;
  }
  // Percent-encoded hosts are refused, so the name sent on the wire is the one typed.
  const auto host = url.encoded_host_address();
  if (host.empty() || host.find('%') != std::string_view::npos) return std::nullopt;
  endpoint.host = std::string(host);
  if (url.has_port() && !url.port().empty()) {
    if (url.port_number() == 0) return std::nullopt;
    endpoint.port = url.port_number();
  } else {
    endpoint.port = endpoint.tls ? 443 : 80;
  }
  endpoint.pathPrefix = std::string(url.encoded_path());
  // This parser reads "h:12x" as port 12 and path "x"; a real path after an authority has a "/".
  if (!endpoint.pathPrefix.empty() && endpoint.pathPrefix.front() != '/') return std::nullopt;
  if (endpoint.pathPrefix.empty() || endpoint.pathPrefix.back() != '/') endpoint.pathPrefix += '/';
  return endpoint;
}

OllamaEndpoint OllamaEndpoint::defaultEndpoint() {
  return {false, "localhost", 11434, "/"};
}

// ---- Runtime ----

OllamaRuntime::OllamaRuntime(OllamaEndpoint endpoint, asio::any_io_executor executor,
                             Timeouts timeouts)
    : endpoint_(std::move(endpoint)), executor_(std::move(executor)), timeouts_(timeouts) {
  if (endpoint_.tls) {
    tls_ = std::make_shared<asio::ssl::context>(asio::ssl::context::tls_client);
    // Without a system store every handshake fails verification, which is the safe outcome.
    boost::system::error_code ignored;
    tls_->set_default_verify_paths(ignored);
  }
}

OllamaRuntime::OllamaRuntime(OllamaEndpoint endpoint, asio::any_io_executor executor)
    : OllamaRuntime(std::move(endpoint), std::move(executor), Timeouts{}) {}

asio::awaitable<std::vector<OllamaModel>> OllamaRuntime::listModels() {
  auto spawned =
      asio::co_spawn(asio::make_strand(executor_),
                     fetchModels(Daemon{endpoint_, tls_, timeouts_.request}), asio::use_awaitable);
  auto models = co_await std::move(spawned);
  co_return models;
}

AsyncStream<PullProgress> OllamaRuntime::pull(std::string model) {
  return startProducer<PullProgress>(
      executor_, [daemon = Daemon{endpoint_, tls_, timeouts_.pull}, model = std::move(model)](
                     Continuation<PullProgress> into, std::shared_ptr<ProducerControl> control) {
        return pullLines(daemon, model, std::move(into), std::move(control));
      });
}

asio::awaitable<bool> OllamaRuntime::warmModel(std::string model) {
  bool accepted = false;
  try {
    auto spawned = asio::co_spawn(asio::make_strand(executor_),
                                  warm(Daemon{endpoint_, tls_, timeouts_.warm}, std::move(model)),
                                  asio::use_awaitable);
    accepted = co_await std::move(spawned);
  } catch (...) {
    accepted = false;
  }
  co_return accepted;
}

asio::awaitable<std::string> OllamaRuntime::generateOnce(ModelGenerateRequest request,
                                                         std::optional<bool> think) {
  auto spawned = asio::co_spawn(
      asio::make_strand(executor_),
      generateWhole(Daemon{endpoint_, tls_, timeouts_.request}, std::move(request), think),
      asio::use_awaitable);
  auto reply = co_await std::move(spawned);
  co_return reply;
}

AsyncStream<std::string> OllamaRuntime::stream(ModelGenerateRequest request) {
  return startProducer<std::string>(
      executor_,
      [daemon = Daemon{endpoint_, tls_, timeouts_.request, spare_}, request = std::move(request)](
          Continuation<std::string> into, std::shared_ptr<ProducerControl> control) {
        return streamWithRetry(daemon, request, std::move(into), std::move(control));
      });
}

// ---- Display ----

std::string displayPrompt(std::string_view prompt) {
  constexpr std::string_view open = "<user_message>";
  constexpr std::string_view close = "</user_message>";
  if (const auto at = prompt.rfind(open); at != std::string_view::npos) {
    const std::string_view after = prompt.substr(at + open.size());
    if (const auto end = after.find(close); end != std::string_view::npos) {
      return std::string(text::trimmed(after.substr(0, end)));
    }
  }
  constexpr std::string_view turn = "<start_of_turn>user";
  constexpr std::string_view endOfTurn = "<end_of_turn>";
  if (const auto at = prompt.rfind(turn); at != std::string_view::npos) {
    const std::string_view after = prompt.substr(at + turn.size());
    return std::string(text::trimmed(after.substr(0, after.find(endOfTurn))));
  }
  return firstScalars(prompt, 300);
}

}  // namespace orin
