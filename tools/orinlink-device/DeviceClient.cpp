#include "DeviceClient.h"

#include <array>
#include <future>
#include <utility>

#include <boost/asio/any_io_executor.hpp>
#include <boost/asio/as_tuple.hpp>
#include <boost/asio/awaitable.hpp>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <boost/asio/use_future.hpp>
#include <boost/beast/core/error.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/core/tcp_stream.hpp>
#include <boost/beast/http/buffer_body.hpp>
#include <boost/beast/http/error.hpp>
#include <boost/beast/http/parser.hpp>
#include <boost/beast/http/read.hpp>
#include <boost/beast/http/string_body.hpp>
#include <boost/beast/http/write.hpp>

#include "OrinLinkShared/Text.h"

namespace orin::device {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
using asio::ip::tcp;
using boost::system::error_code;
using Kind = DeviceError::Kind;

namespace {

// Bounds what one reply or one event may hold, so a runaway answer cannot exhaust memory.
constexpr std::size_t maxWholeBodyBytes = 64 * 1024 * 1024;
constexpr std::size_t maxEventBytes = 16 * 1024 * 1024;

constexpr std::string_view unauthorizedText =
    "This device is not paired with Orin Link (or its pairing was replaced). Pair again with the "
    "code shown on the host.";
constexpr std::string_view notUnderstoodText =
    "Orin Link sent a reply this client does not understand.";
constexpr std::string_view requestFailedPrefix = "Orin Link could not complete the request: ";
constexpr std::string_view closedEarlyText = "The connection closed before the reply was complete";

DeviceError badReply(std::string body = {}) {
  return DeviceError(Kind::badReply, std::string(notUnderstoodText), std::move(body));
}

template <class T>
T decodeReply(const std::string& body) {
  try {
    return decodeJSON<T>(body);
  } catch (const DecodingError&) {
    throw badReply(body);
  }
}

std::string hostAndPort(const DeviceClient::Options& options) {
  const bool ipv6 = options.host.find(':') != std::string::npos;
  return (ipv6 ? "[" + options.host + "]" : options.host) + ":" + std::to_string(options.port);
}

// Transport failures travel as system errors until the host and port are at hand.
DeviceError transportError(const DeviceClient::Options& options, error_code ec) {
  const bool fromParser =
      ec.category() == http::make_error_code(http::error::bad_version).category();
  const bool cutOff = ec == http::error::end_of_stream || ec == http::error::partial_message;
  if (fromParser && !cutOff) return badReply();
  const std::string reason = cutOff ? std::string(closedEarlyText) : ec.message();
  return DeviceError(Kind::unreachable,
                     "Cannot reach Orin Link at " + hostAndPort(options) + ": " + reason);
}

struct Reply {
  unsigned status = 0;
  std::string contentType;
  std::string body;
};

bool hasMediaType(std::string_view contentType, std::string_view mediaType) {
  const std::string lowered = text::asciiLowercased(contentType);
  if (!lowered.starts_with(mediaType)) return false;
  const std::string_view rest = std::string_view(lowered).substr(mediaType.size());
  return rest.empty() || rest.front() == ';' || rest.front() == ' ';
}

DeviceError errorReply(Reply reply) {
  switch (reply.status) {
    case 401:
      return DeviceError(Kind::unauthorized, std::string(unauthorizedText), std::move(reply.body));
    case 404:
    case 400:
    case 413: {
      const auto decoded = decodeReply<OrinLinkErrorResponse>(reply.body);
      return DeviceError(reply.status == 404 ? Kind::notFound : Kind::badRequest,
                         decoded.error.message, std::move(reply.body));
    }
    case 500: {
      // The router answers with a failed OrinLinkResponse; the transport itself with plain text.
      if (hasMediaType(reply.contentType, "text/plain")) {
        const std::string_view text = text::trimmed(reply.body);
        if (text.empty() || !text::isValidUTF8(text)) return badReply(std::move(reply.body));
        std::string message = std::string(requestFailedPrefix) + std::string(text);
        return DeviceError(Kind::requestFailed, std::move(message), std::move(reply.body));
      }
      const auto decoded = decodeReply<OrinLinkResponse>(reply.body);
      if (!decoded.error) return badReply(std::move(reply.body));
      return DeviceError(Kind::requestFailed,
                         std::string(requestFailedPrefix) + decoded.error->message,
                         std::move(reply.body));
    }
    default:
      return badReply(std::move(reply.body));
  }
}

// One request on a connection of its own. Every step waits at most the idle time-out.
class Exchange {
 public:
  Exchange(asio::any_io_executor executor, DeviceClient::Options options)
      : options_(std::move(options)), resolver_(executor), stream_(executor) {
    // Streams may run as long as the model talks; only the idle time-out bounds them.
    parser_.body_limit(boost::none);
  }

  asio::awaitable<void> begin(http::verb method, std::string target,
                              std::optional<std::string> body) {
    const auto addresses = co_await resolver_.async_resolve(
        options_.host, std::to_string(options_.port), asio::use_awaitable);
    stream_.expires_after(options_.idleTimeout);
    const auto connected = co_await stream_.async_connect(addresses, asio::use_awaitable);
    (void)connected;

    http::request<http::string_body> request{method, target, 11};
    request.set(http::field::host, hostAndPort(options_));
    request.set(http::field::user_agent, "orinlink-device");
    request.keep_alive(false);
    if (options_.token) request.set(http::field::authorization, "Bearer " + *options_.token);
    if (body) {
      request.set(http::field::content_type, "application/json");
      request.body() = std::move(*body);
    }
    request.prepare_payload();

    stream_.expires_after(options_.idleTimeout);
    const std::size_t written = co_await http::async_write(stream_, request, asio::use_awaitable);
    (void)written;

    stream_.expires_after(options_.idleTimeout);
    const std::size_t headRead =
        co_await http::async_read_header(stream_, buffer_, parser_, asio::use_awaitable);
    (void)headRead;
  }

  unsigned status() const { return parser_.get().result_int(); }
  std::string contentType() const { return std::string(parser_.get()[http::field::content_type]); }

  // The next body bytes as they arrive, valid until the next call; nothing at the body's end.
  asio::awaitable<std::optional<std::string_view>> readSome() {
    while (!parser_.is_done()) {
      auto& body = parser_.get().body();
      body.data = chunk_.data();
      body.size = chunk_.size();
      stream_.expires_after(options_.idleTimeout);
      const auto result = co_await http::async_read_some(stream_, buffer_, parser_,
                                                         asio::as_tuple(asio::use_awaitable));
      const error_code ec = std::get<0>(result);
      if (ec && ec != http::error::need_buffer) throw boost::system::system_error(ec);
      const std::size_t produced = chunk_.size() - parser_.get().body().size;
      if (produced > 0) co_return std::string_view(chunk_.data(), produced);
    }
    co_return std::nullopt;
  }

  asio::awaitable<std::string> readAll() {
    std::string whole;
    while (true) {
      auto reading = readSome();
      const std::optional<std::string_view> bytes = co_await std::move(reading);
      if (!bytes) break;
      if (whole.size() + bytes->size() > maxWholeBodyBytes) throw badReply();
      whole.append(*bytes);
    }
    co_return whole;
  }

 private:
  DeviceClient::Options options_;
  tcp::resolver resolver_;
  beast::tcp_stream stream_;
  beast::flat_buffer buffer_;
  http::response_parser<http::buffer_body> parser_;
  std::array<char, 16 * 1024> chunk_{};
};

asio::awaitable<Reply> fetchReply(asio::any_io_executor executor, DeviceClient::Options options,
                                  http::verb method, std::string target,
                                  std::optional<std::string> body) {
  Exchange exchange(executor, std::move(options));
  // Bound first: GCC 12 destroys by-value temporaries of a co_await expression twice.
  auto beginning = exchange.begin(method, std::move(target), std::move(body));
  co_await std::move(beginning);
  Reply reply{exchange.status(), exchange.contentType(), {}};
  auto reading = exchange.readAll();
  reply.body = co_await std::move(reading);
  co_return reply;
}

// Gives the reply back only when it is not an event stream; otherwise feeds its tokens to
// onToken and returns nothing once the stream is done.
asio::awaitable<std::optional<Reply>> streamReply(asio::any_io_executor executor,
                                                  DeviceClient::Options options, std::string body,
                                                  std::function<void(std::string_view)> onToken) {
  Exchange exchange(executor, std::move(options));
  auto beginning = exchange.begin(http::verb::post, "/v1/generate/stream", std::move(body));
  co_await std::move(beginning);
  if (exchange.status() != 200 || !hasMediaType(exchange.contentType(), "text/event-stream")) {
    Reply reply{exchange.status(), exchange.contentType(), {}};
    auto reading = exchange.readAll();
    reply.body = co_await std::move(reading);
    co_return reply;
  }
  GenerationStreamDecoder decoder;
  while (true) {
    auto reading = exchange.readSome();
    const std::optional<std::string_view> bytes = co_await std::move(reading);
    if (!bytes) break;
    for (StreamEvent& event : decoder.feed(*bytes)) {
      switch (event.kind) {
        case StreamEvent::Kind::token:
          onToken(event.text);
          break;
        case StreamEvent::Kind::done:
          co_return std::nullopt;
        case StreamEvent::Kind::error:
          throw DeviceError(Kind::streamFailed, std::move(event.text));
      }
    }
  }
  // The host always ends a stream with an event; without one it went away mid-reply.
  throw boost::system::system_error(http::error::partial_message);
}

template <class T, class MakeOperation>
T run(const DeviceClient::Options& options, MakeOperation makeOperation) {
  asio::io_context context;
  std::future<T> result =
      asio::co_spawn(context, makeOperation(context.get_executor()), asio::use_future);
  context.run();
  try {
    return result.get();
  } catch (const boost::system::system_error& error) {
    throw transportError(options, error.code());
  }
}

}  // namespace

int DeviceError::exitCode() const {
  switch (kind_) {
    case Kind::unauthorized:
      return 3;
    case Kind::notFound:
      return 4;
    case Kind::requestFailed:
      return 5;
    case Kind::badRequest:
      return 6;
    case Kind::unreachable:
      return 7;
    case Kind::badReply:
      return 8;
    case Kind::streamFailed:
      return 1;
  }
  return 1;
}

ModelList ModelList::decode(const json::Value& value, const json::CodingPath& path) {
  const json::ObjectReader r(value, path);
  return {r.required<std::vector<std::string>>("models")};
}

json::Ordered ModelList::encode() const {
  return json::ObjectWriter().set("models", models).take();
}

std::vector<StreamEvent> GenerationStreamDecoder::feed(std::string_view bytes) {
  std::vector<StreamEvent> out;
  while (!bytes.empty()) {
    const std::size_t newline = bytes.find('\n');
    const std::string_view piece = bytes.substr(0, newline);
    if (line_.size() + piece.size() > maxEventBytes) throw badReply();
    line_.append(piece);
    if (newline == std::string_view::npos) break;
    bytes.remove_prefix(newline + 1);
    std::string_view line = line_;
    if (line.ends_with('\r')) line.remove_suffix(1);
    takeLine(line, out);
    line_.clear();
  }
  return out;
}

void GenerationStreamDecoder::takeLine(std::string_view line, std::vector<StreamEvent>& out) {
  if (line.empty()) {
    if (hasField_) {
      if (type_.empty() || type_ == "message") {
        // The host writes line feeds inside a token as a backslash and n.
        std::string token;
        token.reserve(data_.size());
        for (std::size_t i = 0; i < data_.size(); ++i) {
          if (data_[i] == '\\' && i + 1 < data_.size() && data_[i + 1] == 'n') {
            token.push_back('\n');
            ++i;
          } else {
            token.push_back(data_[i]);
          }
        }
        out.push_back({StreamEvent::Kind::token, std::move(token)});
      } else if (type_ == "done") {
        out.push_back({StreamEvent::Kind::done, {}});
      } else if (type_ == "error") {
        out.push_back({StreamEvent::Kind::error, data_});
      }
    }
    type_.clear();
    data_.clear();
    hasData_ = false;
    hasField_ = false;
    return;
  }
  if (line.front() == ':') return;
  const std::size_t colon = line.find(':');
  const std::string_view field = line.substr(0, colon);
  std::string_view value =
      colon == std::string_view::npos ? std::string_view() : line.substr(colon + 1);
  if (value.starts_with(' ')) value.remove_prefix(1);
  if (field == "event") {
    type_ = value;
    hasField_ = true;
  } else if (field == "data") {
    if (data_.size() + value.size() > maxEventBytes) throw badReply();
    // Several data lines make one value joined by line feeds.
    if (hasData_) data_.push_back('\n');
    data_.append(value);
    hasData_ = true;
    hasField_ = true;
  }
}

OrinLinkGenerateRequest makeGenerateRequest(std::string prompt, std::optional<std::string> model,
                                            std::optional<double> temperature,
                                            std::optional<bool> think) {
  return {Uuid::random(), std::nullopt,     std::move(prompt), std::move(model),
          temperature,    std::move(think), Date::now()};
}

template <class T>
Answer<T> DeviceClient::fetch(bool post, std::string target,
                              std::optional<std::string> body) const {
  const http::verb method = post ? http::verb::post : http::verb::get;
  Reply reply = run<Reply>(options_, [&](asio::any_io_executor executor) {
    return fetchReply(executor, options_, method, target, body);
  });
  if (reply.status != 200) throw errorReply(std::move(reply));
  T value = decodeReply<T>(reply.body);
  return {std::move(value), std::move(reply.body)};
}

Answer<OrinLinkHealth> DeviceClient::health() const {
  return fetch<OrinLinkHealth>(false, "/health", std::nullopt);
}

Answer<OrinLinkStatusPayload> DeviceClient::status() const {
  return fetch<OrinLinkStatusPayload>(false, "/status", std::nullopt);
}

Answer<ModelList> DeviceClient::models() const {
  return fetch<ModelList>(false, "/models", std::nullopt);
}

Answer<PairResponse> DeviceClient::pair(const PairRequest& request) const {
  return fetch<PairResponse>(true, "/v1/pair", encodeJSON(request));
}

Answer<OrinLinkResponse> DeviceClient::generate(const OrinLinkGenerateRequest& request) const {
  auto answer = fetch<OrinLinkResponse>(true, "/v1/generate", encodeJSON(request));
  const auto& error = answer.value.error;
  if (answer.value.status == OrinLinkStatus::failed && error) {
    throw DeviceError(Kind::requestFailed, std::string(requestFailedPrefix) + error->message,
                      answer.body);
  }
  return answer;
}

void DeviceClient::generateStream(const OrinLinkGenerateRequest& request,
                                  const std::function<void(std::string_view)>& onToken) const {
  std::optional<Reply> reply =
      run<std::optional<Reply>>(options_, [&](asio::any_io_executor executor) {
        return streamReply(executor, options_, encodeJSON(request), onToken);
      });
  if (!reply) return;
  if (reply->status == 200) throw badReply(std::move(reply->body));
  throw errorReply(std::move(*reply));
}

}  // namespace orin::device
