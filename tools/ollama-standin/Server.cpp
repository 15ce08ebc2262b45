#include "Server.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <ctime>
#include <deque>
#include <iostream>
#include <map>
#include <memory>
#include <set>
#include <stdexcept>
#include <variant>

#include <boost/asio/as_tuple.hpp>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/detached.hpp>
#include <boost/asio/experimental/awaitable_operators.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <boost/asio/write.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http.hpp>

namespace standin {
namespace {

namespace asio = boost::asio;
namespace http = boost::beast::http;
using asio::awaitable;
using asio::ip::tcp;
using Json = nlohmann::ordered_json;  // keeps the daemon's key order on the wire and as received
using Request = http::request<http::string_body>;
using Clock = std::chrono::steady_clock;
using Nanoseconds = std::chrono::nanoseconds;

constexpr auto kAwait = asio::as_tuple(asio::use_awaitable);
constexpr std::size_t kRecordedRequests = 50;
constexpr std::uint64_t kBodyLimit = 64U << 20U;
constexpr const char* kJsonType = "application/json; charset=utf-8";

// Request bodies may carry invalid UTF-8; echoing them in stats must not throw.
std::string serialise(const Json& value) {
  return value.dump(-1, ' ', false, Json::error_handler_t::replace);
}

// Braced JSON literals inside co_await expressions trip GCC 12, so single keys go through here.
Json one(const char* key, Json value) {
  Json object = Json::object();
  object[key] = std::move(value);
  return object;
}

std::string formatUtc(std::chrono::system_clock::time_point at, const char* format) {
  std::time_t seconds = std::chrono::system_clock::to_time_t(at);
  std::tm utc{};
  gmtime_r(&seconds, &utc);
  char text[64];
  std::size_t length = std::strftime(text, sizeof text, format, &utc);
  return std::string(text, length);
}

// RFC 3339 with nanoseconds and trailing zeros trimmed, as Go prints a time.Time.
std::string timestamp() {
  auto now = std::chrono::system_clock::now();
  auto nanos = (now - std::chrono::floor<std::chrono::seconds>(now)) / Nanoseconds(1);
  std::string result = formatUtc(now, "%Y-%m-%dT%H:%M:%S");
  if (nanos != 0) {
    char fraction[16];
    std::snprintf(fraction, sizeof fraction, ".%09lld", static_cast<long long>(nanos));
    std::string_view digits(fraction);
    result += digits.substr(0, digits.find_last_not_of('0') + 1);
  }
  return result + "Z";
}

std::int64_t nanosBetween(Clock::time_point from, Clock::time_point to) {
  return std::chrono::duration_cast<Nanoseconds>(to - from).count();
}

std::size_t wordCount(std::string_view text) {
  std::size_t words = 0;
  bool inWord = false;
  for (char c : text) {
    bool space = std::isspace(static_cast<unsigned char>(c)) != 0;
    words += (!space && !inWord) ? 1 : 0;
    inWord = !space;
  }
  return words;
}

awaitable<bool> sendBody(tcp::socket& socket, const Request& request, http::status status,
                         std::string contentType, std::string body) {
  http::response<http::string_body> response{status, request.version()};
  response.set(http::field::date,
               formatUtc(std::chrono::system_clock::now(), "%a, %d %b %Y %H:%M:%S GMT"));
  response.set(http::field::content_type, contentType);
  response.keep_alive(request.keep_alive());
  response.body() = std::move(body);
  response.prepare_payload();
  auto [ec, written] = co_await http::async_write(socket, response, kAwait);
  co_return !ec && response.keep_alive();
}

awaitable<bool> sendJson(tcp::socket& socket, const Request& request, http::status status,
                         Json value) {
  co_return co_await sendBody(socket, request, status, kJsonType, serialise(value));
}

awaitable<bool> sendError(tcp::socket& socket, const Request& request, http::status status,
                          std::string message) {
  co_return co_await sendJson(socket, request, status, one("error", std::move(message)));
}

// Streams NDJSON lines as chunks, flushed one by one as the daemon does; with stream false only
// the final object goes out, whole.
class Answer {
 public:
  Answer(tcp::socket& socket, const Request& request, bool stream)
      : socket_(socket), request_(request), stream_(stream) {}

  bool streaming() const { return stream_; }

  // False when the client is gone.
  awaitable<bool> line(const Json& value) {
    if (!stream_) co_return true;
    if (!headerSent_) {
      http::response<http::empty_body> response{http::status::ok, request_.version()};
      response.set(http::field::date,
                   formatUtc(std::chrono::system_clock::now(), "%a, %d %b %Y %H:%M:%S GMT"));
      response.set(http::field::content_type, "application/x-ndjson");
      response.keep_alive(request_.keep_alive());
      response.chunked(true);
      http::response_serializer<http::empty_body> serializer{response};
      auto [ec, written] = co_await http::async_write_header(socket_, serializer, kAwait);
      if (ec) co_return false;
      headerSent_ = true;
    }
    text_ = serialise(value);
    text_.push_back('\n');
    auto [ec, written] =
        co_await asio::async_write(socket_, http::make_chunk(asio::buffer(text_)), kAwait);
    co_return !ec;
  }

  // Whether the connection can carry another request afterwards.
  awaitable<bool> finish(Json last, http::status status = http::status::ok) {
    if (!stream_) co_return co_await sendJson(socket_, request_, status, std::move(last));
    if (!co_await line(last)) co_return false;
    auto [ec, written] = co_await asio::async_write(socket_, http::make_chunk_last(), kAwait);
    co_return !ec && request_.keep_alive();
  }

 private:
  tcp::socket& socket_;
  const Request& request_;
  bool stream_;
  bool headerSent_ = false;
  std::string text_;
};

// Completes when the peer closes or resets; the only way to notice a vanished client while
// the next token is still waiting on the rate timer.
awaitable<void> watchForClose(tcp::socket& socket) {
  for (;;) {
    auto [ec] = co_await socket.async_wait(tcp::socket::wait_read, kAwait);
    if (ec) co_return;
    char byte = 0;
    std::size_t peeked = socket.receive(asio::buffer(&byte, 1), tcp::socket::message_peek, ec);
    if (ec == asio::error::would_block || ec == asio::error::try_again) continue;
    if (ec || peeked == 0) co_return;
    // A pipelined request: nothing more to learn here, a failed write will tell instead.
    asio::steady_timer never{socket.get_executor(), Clock::time_point::max()};
    co_await never.async_wait(kAwait);
    co_return;
  }
}

enum class Ending { completed, cancelled, cut };

struct Outcome {
  Ending ending = Ending::completed;
  bool keepAlive = false;
};

struct GenerateBody {
  std::string model;
  std::string prompt;
  bool stream = true;
  bool hasThink = false;
  bool think = false;
  bool unload = false;
};

struct PullBody {
  std::string model;
  bool stream = true;
};

const Json& member(const Json& body, const char* key) {
  static const Json absent;
  auto it = body.find(key);
  return it == body.end() ? absent : *it;
}

std::string textField(const Json& body, const char* key) {
  const Json& value = member(body, key);
  if (value.is_null()) return {};
  if (!value.is_string()) throw std::invalid_argument(std::string(key) + " must be a string");
  return value.get<std::string>();
}

bool boolField(const Json& body, const char* key, bool fallback) {
  const Json& value = member(body, key);
  if (value.is_null()) return fallback;
  if (!value.is_boolean()) throw std::invalid_argument(std::string(key) + " must be a boolean");
  return value.get<bool>();
}

GenerateBody parseGenerate(const Json& body) {
  GenerateBody result;
  result.model = textField(body, "model");
  result.prompt = textField(body, "prompt");
  result.stream = boolField(body, "stream", true);
  const Json& think = member(body, "think");
  result.hasThink = body.contains("think");
  if (think.is_string()) {
    result.think = true;  // effort levels ("high", …) switch thinking on
  } else if (!think.is_null()) {
    result.think = boolField(body, "think", false);
  }
  const Json& keepAlive = member(body, "keep_alive");
  result.unload = keepAlive == 0 || keepAlive == "0" || keepAlive == "0s";
  if (result.model.empty()) throw std::invalid_argument("model is required");
  return result;
}

PullBody parsePull(const Json& body) {
  PullBody result;
  result.model = textField(body, "model");
  if (result.model.empty()) result.model = textField(body, "name");
  result.stream = boolField(body, "stream", true);
  if (result.model.empty()) throw std::invalid_argument("model is required");
  return result;
}

struct Stats {
  std::uint64_t started = 0;
  std::uint64_t completed = 0;
  std::uint64_t cancelled = 0;
  std::uint64_t cut = 0;
  std::uint64_t active = 0;
  std::uint64_t pulls = 0;
  std::uint64_t activePulls = 0;
  std::deque<Json> requests;

  Json toJson() const {
    return Json{{"generations_started", started},     {"generations_completed", completed},
                {"generations_cancelled", cancelled}, {"generations_cut", cut},
                {"active_generations", active},       {"pull_requests", pulls},
                {"active_pulls", activePulls},        {"requests", Json(requests)}};
  }
};

class Server {
 public:
  Server(asio::io_context& io, const tcp::endpoint& at, Config config)
      : acceptor_(io, at), modifiedAt_(timestamp()) {
    install(std::make_shared<const Config>(std::move(config)));
  }

  tcp::endpoint endpoint() const { return acceptor_.local_endpoint(); }

  static awaitable<void> acceptLoop(std::shared_ptr<Server> self) {
    for (;;) {
      auto [ec, socket] = co_await self->acceptor_.async_accept(kAwait);
      if (ec == asio::error::operation_aborted) co_return;
      if (ec) continue;  // e.g. the peer reset before we got to it
      asio::co_spawn(self->acceptor_.get_executor(), session(self, std::move(socket)),
                     reportFailure);
    }
  }

 private:
  using ConfigPtr = std::shared_ptr<const Config>;

  static void reportFailure(const std::exception_ptr& failure) {
    if (!failure) return;
    try {
      std::rethrow_exception(failure);
    } catch (const std::exception& error) {
      std::cerr << "ollama-standin: connection failed: " << error.what() << '\n';
    }
  }

  static awaitable<void> session(std::shared_ptr<Server> self, tcp::socket socket) {
    boost::system::error_code ignored;
    socket.set_option(tcp::no_delay(true), ignored);
    // The close watcher peeks synchronously and must never block the only thread.
    socket.non_blocking(true, ignored);
    boost::beast::flat_buffer buffer;
    for (;;) {
      http::request_parser<http::string_body> parser;
      parser.body_limit(kBodyLimit);
      auto [ec, read] = co_await http::async_read(socket, buffer, parser, kAwait);
      if (ec) {
        if (ec != http::error::end_of_stream && ec != asio::error::eof &&
            ec != asio::error::connection_reset) {
          Request malformed{http::verb::get, "/", 11};
          malformed.keep_alive(false);
          co_await sendBody(socket, malformed, http::status::bad_request,
                            "text/plain; charset=utf-8", "400 Bad Request");
        }
        break;
      }
      Request request = parser.release();
      if (!co_await self->dispatch(socket, request)) break;
    }
    socket.shutdown(tcp::socket::shutdown_both, ignored);
    socket.close(ignored);
  }

  // Whether the connection stays open for another request.
  awaitable<bool> dispatch(tcp::socket& socket, const Request& request) {
    const auto target = request.target();
    const auto verb = request.method();
    if (request.version() >= 11 && request.find(http::field::host) == request.end()) {
      Request closing = request;
      closing.keep_alive(false);
      co_await sendBody(socket, closing, http::status::bad_request, "text/plain; charset=utf-8",
                        "400 Bad Request: missing required Host header");
      co_return false;
    }
    const bool get = verb == http::verb::get;
    const bool post = verb == http::verb::post;
    if (get && target == "/") {
      co_return co_await sendBody(socket, request, http::status::ok, "text/plain; charset=utf-8",
                                  "Ollama is running");
    }
    if (get && target == "/api/version") {
      co_return co_await sendJson(socket, request, http::status::ok, one("version", "0.0.0"));
    }
    if (get && target == "/api/tags") co_return co_await tags(socket, request);
    if (post && target == "/api/generate") co_return co_await generate(socket, request);
    if (post && target == "/api/pull") co_return co_await pull(socket, request);
    if (get && target == "/standin/stats") {
      co_return co_await sendJson(socket, request, http::status::ok, stats_.toJson());
    }
    if (post && target == "/standin/reset") {
      install(config_);
      co_return co_await sendJson(socket, request, http::status::ok, stats_.toJson());
    }
    if (post && target == "/standin/config") co_return co_await replaceConfig(socket, request);
    if (post && target == "/standin/wait") co_return co_await waitForStats(socket, request);
    co_return co_await sendBody(socket, request, http::status::not_found,
                                "text/plain; charset=utf-8", "404 page not found");
  }

  // Starts from scratch with `config`: stats, pull progress and installed models.
  void install(ConfigPtr config) {
    config_ = std::move(config);
    stats_ = Stats{};
    progress_.clear();
    installed_.clear();
    for (const Model& model : config_->models)
      installed_[model.name] = model.installed;
    changed();
  }

  void changed() {
    for (asio::steady_timer* waiter : waiters_)
      waiter->cancel();
  }

  const Model* find(const Config& config, const std::string& name) const {
    const auto byName = [&](const std::string& wanted) -> const Model* {
      for (const Model& model : config.models) {
        if (model.name == wanted) return &model;
      }
      return nullptr;
    };
    const Model* model = byName(name);
    // The daemon fills in the default tag.
    if (model == nullptr && name.find(':') == std::string::npos) model = byName(name + ":latest");
    return model;
  }

  bool isInstalled(const Model& model) const {
    auto it = installed_.find(model.name);
    return it != installed_.end() && it->second;
  }

  Json record(const Request& request) {
    Json body = Json::parse(request.body(), nullptr, false);
    if (body.is_discarded()) body = request.body();
    stats_.requests.push_back(body);
    if (stats_.requests.size() > kRecordedRequests) stats_.requests.pop_front();
    return body;
  }

  // Applies the header delay and the status fault; set (to the keep-alive verdict) when the
  // fault answered the request.
  awaitable<std::optional<bool>> injectFault(tcp::socket& socket, const Request& request,
                                             const Fault& fault) {
    if (fault.headerDelay.count() > 0) {
      asio::steady_timer timer{socket.get_executor(), fault.headerDelay};
      co_await timer.async_wait(kAwait);
    }
    if (!fault.status) co_return std::nullopt;
    co_return co_await sendError(socket, request, static_cast<http::status>(*fault.status),
                                 fault.error);
  }

  awaitable<bool> tags(tcp::socket& socket, const Request& request) {
    ConfigPtr config = config_;
    if (auto answered = co_await injectFault(socket, request, config->behaviour.fault)) {
      co_return *answered;
    }
    Json models = Json::array();
    for (const Model& model : config->models) {
      if (!isInstalled(model)) continue;
      models.push_back({{"name", model.name},
                        {"model", model.name},
                        {"modified_at", modifiedAt_},
                        {"size", model.size},
                        {"digest", model.digest},
                        {"details",
                         {{"parent_model", ""},
                          {"format", "gguf"},
                          {"family", model.family},
                          {"families", Json::array({model.family})},
                          {"parameter_size", model.parameterSize},
                          {"quantization_level", model.quantizationLevel}}}});
    }
    co_return co_await sendJson(socket, request, http::status::ok, one("models", models));
  }

  awaitable<bool> generate(tcp::socket& socket, const Request& request) {
    using namespace asio::experimental::awaitable_operators;
    ConfigPtr config = config_;
    Json received = record(request);
    changed();
    GenerateBody body;
    std::string problem;
    try {
      if (request.body().empty()) throw std::invalid_argument("missing request body");
      if (!received.is_object()) throw std::invalid_argument("invalid request body");
      body = parseGenerate(received);
    } catch (const std::invalid_argument& error) {
      problem = error.what();
    }
    if (!problem.empty()) {
      co_return co_await sendError(socket, request, http::status::bad_request, problem);
    }
    const Model* model = find(*config, body.model);
    const Behaviour& behaviour = model != nullptr ? model->behaviour : config->behaviour;
    if (auto answered = co_await injectFault(socket, request, behaviour.fault)) {
      co_return *answered;
    }
    if (model == nullptr || !isInstalled(*model)) {
      co_return co_await sendError(socket, request, http::status::not_found,
                                   "model \"" + body.model + "\" not found, try pulling it first");
    }
    const bool refused = (model->thinking == Thinking::refusesKey && body.hasThink) ||
                         (model->thinking == Thinking::unsupported && body.think);
    if (refused) {
      co_return co_await sendError(socket, request, http::status::bad_request,
                                   "\"" + body.model + "\" does not support thinking");
    }
    if (body.prompt.empty()) {
      if (!body.unload && behaviour.firstTokenDelay.count() > 0) {
        asio::steady_timer loading{socket.get_executor(), behaviour.firstTokenDelay};
        co_await loading.async_wait(kAwait);
      }
      Json loaded{{"model", body.model},
                  {"created_at", timestamp()},
                  {"response", ""},
                  {"done", true},
                  {"done_reason", body.unload ? "unload" : "load"}};
      co_return co_await sendJson(socket, request, http::status::ok, std::move(loaded));
    }

    ++stats_.started;
    ++stats_.active;
    changed();
    auto result = co_await (produceTokens(socket, request, *model, body,
                                          model->thinking == Thinking::supported && body.think) ||
                            watchForClose(socket));
    Outcome outcome = result.index() == 0 ? std::get<0>(result) : Outcome{Ending::cancelled};
    --stats_.active;
    ++(outcome.ending == Ending::completed   ? stats_.completed
       : outcome.ending == Ending::cancelled ? stats_.cancelled
                                             : stats_.cut);
    changed();
    co_return outcome.keepAlive;
  }

  awaitable<Outcome> produceTokens(tcp::socket& socket, const Request& request, const Model& model,
                                   const GenerateBody& body, bool thinking) {
    const Behaviour& behaviour = model.behaviour;
    const auto start = Clock::now();
    const auto interval = behaviour.tokenRate > 0
                              ? std::chrono::duration_cast<Clock::duration>(
                                    std::chrono::duration<double>(1.0 / behaviour.tokenRate))
                              : Clock::duration::zero();
    asio::steady_timer timer{socket.get_executor()};
    Answer answer{socket, request, body.stream};
    auto due = start + behaviour.firstTokenDelay;
    auto firstToken = due;
    std::size_t produced = 0;
    std::string response;
    std::string thought;
    struct Part {
      const std::vector<std::string>* pieces;
      bool thought;
    };
    const Part parts[] = {{&model.thinkingReply, true}, {&model.reply, false}};
    for (const Part& part : parts) {
      if (part.thought && !thinking) continue;
      for (const std::string& piece : *part.pieces) {
        if (behaviour.fault.cutAfter && produced == *behaviour.fault.cutAfter) {
          co_return Outcome{Ending::cut};
        }
        if (due > Clock::now()) {
          timer.expires_at(due);
          auto [ec] = co_await timer.async_wait(kAwait);
          if (ec) co_return Outcome{Ending::cancelled};
        }
        if (produced == 0) firstToken = Clock::now();
        due += interval;
        ++produced;
        if (!answer.streaming()) {
          (part.thought ? thought : response) += piece;
          continue;
        }
        Json line{{"model", body.model}, {"created_at", timestamp()}, {"response", ""}};
        if (part.thought) {
          line["thinking"] = piece;
        } else {
          line["response"] = piece;
        }
        line["done"] = false;
        if (!co_await answer.line(line)) co_return Outcome{Ending::cancelled};
      }
    }
    if (behaviour.fault.cutAfter && produced >= *behaviour.fault.cutAfter) {
      co_return Outcome{Ending::cut};
    }

    const auto end = Clock::now();
    const std::size_t promptCount = std::max<std::size_t>(1, wordCount(body.prompt));
    Json context = Json::array();
    for (std::size_t i = 0; i < promptCount + produced; ++i)
      context.push_back((i * 7919 + 13) % 128000);
    Json last{{"model", body.model}, {"created_at", timestamp()}, {"response", response}};
    if (!thought.empty()) last["thinking"] = thought;
    last["done"] = true;
    last["done_reason"] = "stop";
    last["context"] = std::move(context);
    last["total_duration"] = nanosBetween(start, end);
    last["load_duration"] = nanosBetween(start, firstToken);
    last["prompt_eval_count"] = promptCount;
    last["prompt_eval_duration"] = promptCount * 1000;
    last["eval_count"] = produced;
    last["eval_duration"] = nanosBetween(firstToken, end);
    bool keepAlive = co_await answer.finish(std::move(last));
    co_return Outcome{Ending::completed, keepAlive};
  }

  awaitable<bool> pull(tcp::socket& socket, const Request& request) {
    using namespace asio::experimental::awaitable_operators;
    ConfigPtr config = config_;
    Json received = record(request);
    ++stats_.pulls;
    changed();
    PullBody body;
    std::string problem;
    try {
      if (request.body().empty()) throw std::invalid_argument("missing request body");
      if (!received.is_object()) throw std::invalid_argument("invalid request body");
      body = parsePull(received);
    } catch (const std::invalid_argument& error) {
      problem = error.what();
    }
    if (!problem.empty()) {
      co_return co_await sendError(socket, request, http::status::bad_request, problem);
    }
    const Model* model = find(*config, body.model);
    if (auto answered = co_await injectFault(
            socket, request, model != nullptr ? model->behaviour.fault : config->behaviour.fault)) {
      co_return *answered;
    }
    if (model == nullptr) {
      Answer answer{socket, request, body.stream};
      if (!co_await answer.line(one("status", "pulling manifest"))) co_return false;
      co_return co_await answer.finish(one("error", "pull model manifest: file does not exist"),
                                       http::status::internal_server_error);
    }
    ++stats_.activePulls;
    changed();
    auto result = co_await (producePull(socket, request, config, *model, body.stream) ||
                            watchForClose(socket));
    --stats_.activePulls;
    changed();
    co_return result.index() == 0 && std::get<0>(result).keepAlive;
  }

  // Progress survives an interrupted pull, so the next pull of the model resumes from it.
  std::shared_ptr<std::vector<std::int64_t>> progressOf(const Model& model) {
    auto& progress = progress_[model.name];
    if (!progress) {
      std::vector<std::int64_t> completed;
      for (const Layer& layer : model.layers()) {
        completed.push_back(isInstalled(model) ? layer.total : 0);
      }
      progress = std::make_shared<std::vector<std::int64_t>>(std::move(completed));
    }
    return progress;
  }

  awaitable<Outcome> producePull(tcp::socket& socket, const Request& request, ConfigPtr config,
                                 const Model& model, bool stream) {
    const PullBehaviour& behaviour = model.behaviour.pull;
    const Fault& fault = model.behaviour.fault;
    Answer answer{socket, request, stream};
    auto progress = progressOf(model);
    asio::steady_timer timer{socket.get_executor()};
    std::size_t lines = 0;
    std::size_t steps = 0;
    // Counts lines for the cut fault; false ends the pull.
    auto send = [&](const Json& line) -> awaitable<std::optional<Ending>> {
      if (fault.cutAfter && lines == *fault.cutAfter) co_return Ending::cut;
      ++lines;
      if (!co_await answer.line(line)) co_return Ending::cancelled;
      co_return std::nullopt;
    };
    if (auto ended = co_await send(one("status", "pulling manifest"))) co_return Outcome{*ended};
    const std::vector<Layer> layers = model.layers();
    for (std::size_t i = 0; i < layers.size(); ++i) {
      const Layer& layer = layers[i];
      const std::int64_t step =
          behaviour.step > 0 ? behaviour.step : std::max<std::int64_t>(1, (layer.total + 9) / 10);
      std::int64_t& completed = (*progress)[i];
      for (bool first = true; first || completed < layer.total; first = false) {
        if (!first) {
          if (behaviour.failAfterSteps && steps == *behaviour.failAfterSteps) {
            bool keepAlive = co_await answer.finish(one("error", behaviour.error),
                                                    http::status::internal_server_error);
            co_return Outcome{Ending::completed, keepAlive};
          }
          if (behaviour.stepDelay.count() > 0) {
            timer.expires_after(behaviour.stepDelay);
            auto [ec] = co_await timer.async_wait(kAwait);
            if (ec) co_return Outcome{Ending::cancelled};
          }
          completed = std::min(completed + step, layer.total);
          ++steps;
        }
        Json line{{"status", "pulling " + layer.digest.substr(7, 12)},
                  {"digest", layer.digest},
                  {"total", layer.total}};
        if (completed > 0) line["completed"] = completed;  // the daemon omits zero
        if (auto ended = co_await send(line)) co_return Outcome{*ended};
      }
    }
    for (const char* status : {"verifying sha256 digest", "writing manifest"}) {
      if (auto ended = co_await send(one("status", status))) co_return Outcome{*ended};
    }
    if (config == config_) installed_[model.name] = true;
    if (fault.cutAfter && lines == *fault.cutAfter) co_return Outcome{Ending::cut};
    bool keepAlive = co_await answer.finish(one("status", "success"));
    co_return Outcome{Ending::completed, keepAlive};
  }

  awaitable<bool> replaceConfig(tcp::socket& socket, const Request& request) {
    std::string problem;
    try {
      install(std::make_shared<const Config>(parseConfig(nlohmann::json::parse(request.body()))));
    } catch (const std::exception& error) {
      problem = error.what();
    }
    if (!problem.empty()) {
      co_return co_await sendError(socket, request, http::status::bad_request, problem);
    }
    co_return co_await sendJson(socket, request, http::status::ok, stats_.toJson());
  }

  // Answers once every named stats field equals its value (200), or at the time-out (408), so
  // tests wait on the event rather than sleep.
  awaitable<bool> waitForStats(tcp::socket& socket, const Request& request) {
    Json until;
    Milliseconds timeout{10000};
    std::string problem;
    try {
      Json body = Json::parse(request.body());
      until = body.at("until");
      if (!until.is_object()) throw std::invalid_argument("until must be an object");
      const Json known = stats_.toJson();
      for (const auto& item : until.items()) {
        if (!known.contains(item.key())) throw std::invalid_argument("unknown field " + item.key());
      }
      timeout = Milliseconds(body.value("timeout_ms", std::int64_t{10000}));
    } catch (const std::exception& error) {
      problem = error.what();
    }
    if (!problem.empty()) {
      co_return co_await sendError(socket, request, http::status::bad_request, problem);
    }
    const auto matches = [&] {
      const Json now = stats_.toJson();
      for (const auto& item : until.items()) {
        if (now.at(item.key()) != item.value()) return false;
      }
      return true;
    };
    const auto deadline = Clock::now() + timeout;
    asio::steady_timer timer{socket.get_executor()};
    waiters_.insert(&timer);
    bool met = matches();
    while (!met && Clock::now() < deadline) {
      timer.expires_at(deadline);
      co_await timer.async_wait(kAwait);
      met = matches();
    }
    waiters_.erase(&timer);
    co_return co_await sendJson(
        socket, request, met ? http::status::ok : http::status::request_timeout, stats_.toJson());
  }

  tcp::acceptor acceptor_;
  std::string modifiedAt_;
  ConfigPtr config_;
  Stats stats_;
  std::map<std::string, bool> installed_;
  std::map<std::string, std::shared_ptr<std::vector<std::int64_t>>> progress_;
  std::set<asio::steady_timer*> waiters_;
};

}  // namespace

tcp::endpoint startServer(asio::io_context& io, const tcp::endpoint& at, Config config) {
  auto server = std::make_shared<Server>(io, at, std::move(config));
  asio::co_spawn(io, Server::acceptLoop(server), asio::detached);
  return server->endpoint();
}

}  // namespace standin
