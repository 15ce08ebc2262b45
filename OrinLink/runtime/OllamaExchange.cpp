#include "OrinLink/runtime/OllamaExchange.h"

#include <cerrno>
#include <sys/socket.h>

#include <boost/asio/as_tuple.hpp>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/detached.hpp>
#include <boost/asio/ip/address.hpp>
#include <boost/asio/ssl/error.hpp>
#include <boost/asio/ssl/host_name_verification.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <boost/beast/core/error.hpp>
#include <boost/beast/http/error.hpp>
#include <boost/beast/http/read.hpp>
#include <boost/beast/http/string_body.hpp>
#include <boost/beast/http/write.hpp>
#include <openssl/ssl.h>

#include "OrinLinkShared/Text.h"

namespace orin {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
using boost::system::error_code;

namespace {

// Bounds what a whole reply or a single line may hold, so a runaway answer cannot exhaust memory.
constexpr std::size_t maxWholeBodyBytes = 64 * 1024 * 1024;
constexpr std::size_t maxLineBytes = 16 * 1024 * 1024;
// Bytes asked of the socket per body read.
constexpr std::size_t readBytes = 16 * 1024;

[[noreturn]] void fail(error_code ec) {
  // A connection that ends early is the transport's failure; anything the parser rejected means
  // the answer was not HTTP.
  const bool parserRejected =
      ec.category() == http::make_error_code(http::error::bad_version).category() &&
      ec != http::error::end_of_stream && ec != http::error::partial_message;
  if (parserRejected) throw OllamaError::badResponse();
  throw boost::system::system_error(ec);
}

std::string hostHeader(const OllamaEndpoint& endpoint) {
  const bool ipv6 = endpoint.host.find(':') != std::string::npos;
  return (ipv6 ? "[" + endpoint.host + "]" : endpoint.host) + ":" + std::to_string(endpoint.port);
}

}  // namespace

SpareConnection::SpareConnection(asio::any_io_executor executor)
    : executor_(executor), socket_(std::move(executor)) {}

std::optional<asio::ip::tcp::socket> SpareConnection::take(const OllamaEndpoint& endpoint) {
  if (!ready_) return std::nullopt;
  ready_ = false;
  std::optional<asio::ip::tcp::socket> taken(std::move(socket_));
  socket_ = asio::ip::tcp::socket(taken->get_executor());
  if (host_ != endpoint.host || port_ != endpoint.port) return std::nullopt;
  // An idle daemon connection has nothing to read; end of stream or any byte means the daemon
  // closed it or answered it (a time-out reply), and it is of no use.
  char byte = 0;
  const ssize_t peeked = ::recv(taken->native_handle(), &byte, 1, MSG_PEEK | MSG_DONTWAIT);
  if (peeked < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return taken;
  return std::nullopt;
}

void SpareConnection::replenish(const OllamaEndpoint& endpoint,
                                std::chrono::steady_clock::duration idleTimeout) {
  if (ready_ || opening_) return;
  opening_ = true;
  host_ = endpoint.host;
  port_ = endpoint.port;
  const auto open = [self = shared_from_this(), endpoint, idleTimeout]() -> asio::awaitable<void> {
    OllamaExchange exchange(self->executor_, nullptr, idleTimeout);
    try {
      auto opened = co_await exchange.open(endpoint);
      self->socket_ = std::move(opened);
      self->ready_ = true;
    } catch (const std::exception&) {
      // No spare this time.
    }
    self->opening_ = false;
  };
  asio::co_spawn(executor_, open, asio::detached);
}

OllamaExchange::OllamaExchange(asio::any_io_executor executor,
                               std::shared_ptr<asio::ssl::context> tls,
                               std::chrono::steady_clock::duration idleTimeout,
                               std::shared_ptr<SpareConnection> spare)
    : tlsContext_(std::move(tls)),
      idleTimeout_(idleTimeout),
      resolver_(executor),
      tcp_(executor),
      idleWatch_(std::make_shared<IdleWatch>(executor)),
      spare_(std::move(spare)) {
  // Streams may run for hours; only the per-read idle time-out bounds them.
  parser_.body_limit(boost::none);
  buffer_.reserve(readBytes);
}

asio::awaitable<unsigned> OllamaExchange::begin(OllamaEndpoint endpoint, http::verb method,
                                                std::string path,
                                                std::optional<std::string> jsonBody) {
  endpoint_ = std::move(endpoint);
  http::request<http::string_body> request{method, endpoint_.pathPrefix + path, 11};
  // The daemon checks Host against the address it listens on, port included.
  request.set(http::field::host, hostHeader(endpoint_));
  request.keep_alive(false);
  if (jsonBody) {
    request.set(http::field::content_type, "application/json");
    request.body() = std::move(*jsonBody);
  }
  request.prepare_payload();

  std::optional<asio::ip::tcp::socket> spare;
  if (spare_ && !tlsContext_) spare = spare_->take(endpoint_);
  if (spare) {
    tcp_.socket() = std::move(*spare);
    error_code ec = co_await exchangeHead(request);
    throwIfClosed();
    // The daemon may have dropped an idle connection just as it was taken; before any answer
    // arrived nothing was done, so the request goes again on a connection of its own.
    const bool droppedUnanswered =
        (ec == http::error::end_of_stream || ec == asio::error::connection_reset ||
         ec == asio::error::broken_pipe || ec == asio::error::eof) &&
        !parser_.got_some() && buffer_.size() == 0;
    if (!droppedUnanswered) {
      if (ec) fail(ec);
      co_return parser_.get().result_int();
    }
    error_code ignored;
    tcp_.socket().close(ignored);
  }
  co_await connect(endpoint_);
  const error_code ec = co_await exchangeHead(request);
  throwIfClosed();
  if (ec) fail(ec);
  co_return parser_.get().result_int();
}

asio::awaitable<void> OllamaExchange::connect(const OllamaEndpoint& endpoint) {
  // Temporaries stay out of co_await expressions: GCC 12 may destroy them twice.
  error_code notALiteral;
  const auto literal = asio::ip::make_address(endpoint.host, notALiteral);
  if (!notALiteral) {
    // An address needs no resolver, whose work runs on a thread of its own.
    const asio::ip::tcp::endpoint target(literal, endpoint.port);
    tcp_.expires_after(idleTimeout_);
    co_await tcp_.async_connect(target, asio::use_awaitable);
  } else {
    const std::string service = std::to_string(endpoint.port);
    const auto addresses = co_await resolve(endpoint.host, service);
    tcp_.expires_after(idleTimeout_);
    co_await tcp_.async_connect(addresses, asio::use_awaitable);
  }
  throwIfClosed();
  if (!tlsContext_) co_return;

  tls_.emplace(tcp_, *tlsContext_);
  // Server names are never IP literals. (SSL_set_tlsext_host_name spelled out: the macro casts
  // in C style.)
  if (notALiteral &&
      SSL_ctrl(tls_->native_handle(), SSL_CTRL_SET_TLSEXT_HOSTNAME, TLSEXT_NAMETYPE_host_name,
               const_cast<char*>(endpoint.host.c_str())) != 1) {
    throw boost::system::system_error(asio::error::invalid_argument);
  }
  tls_->set_verify_mode(asio::ssl::verify_peer);
  tls_->set_verify_callback(asio::ssl::host_name_verification(endpoint.host));
  tcp_.expires_after(idleTimeout_);
  co_await tls_->async_handshake(asio::ssl::stream_base::client, asio::use_awaitable);
  throwIfClosed();
}

asio::awaitable<error_code> OllamaExchange::exchangeHead(
    http::request<http::string_body>& request) {
  tcp_.expires_after(idleTimeout_);
  auto [written, sent] = co_await onStream([&](auto& stream) {
    return http::async_write(stream, request, asio::as_tuple(asio::use_awaitable));
  });
  (void)sent;
  if (written) co_return written;
  throwIfClosed();
  tcp_.expires_after(idleTimeout_);
  auto [ec, read] = co_await onStream([&](auto& stream) {
    return http::async_read_header(stream, buffer_, parser_, asio::as_tuple(asio::use_awaitable));
  });
  (void)read;
  co_return ec;
}

void OllamaExchange::prepareNext() {
  if (spare_ && !tlsContext_) spare_->replenish(endpoint_, idleTimeout_);
}

asio::awaitable<asio::ip::tcp::socket> OllamaExchange::open(const OllamaEndpoint& endpoint) {
  co_await connect(endpoint);
  co_return tcp_.release_socket();
}

asio::awaitable<std::optional<std::string_view>> OllamaExchange::readBody() {
  auto& body = parser_.get().body();
  body.data = chunk_.data();
  body.size = chunk_.size();
  const auto produced = [&] { return chunk_.size() - body.size; };
  // What has arrived is parsed here, element after element, before anything more is read. Beast's
  // own read stops at every chunk boundary and completes through the loop's queue, so at full
  // speed every token would cost a trip through the loop and a write of its own.
  while (!parser_.is_done()) {
    if (buffer_.size() > 0) {
      error_code ec;
      const std::size_t used = parser_.put(buffer_.data(), ec);
      buffer_.consume(used);
      if (ec == http::error::need_buffer) break;
      if (ec && ec != http::error::need_more) fail(ec);
      if (!ec && used > 0) continue;
    }
    if (produced() > 0) break;
    watchBodyRead();
    auto [ec, read] = co_await onStream([&](auto& stream) {
      return stream.async_read_some(buffer_.prepare(readBytes),
                                    asio::as_tuple(asio::use_awaitable));
    });
    throwIfClosed();
    if (idleWatch_->expired) fail(beast::error::timeout);
    if (ec == asio::error::eof || ec == asio::ssl::error::stream_truncated) {
      error_code ended;
      parser_.put_eof(ended);
      if (ended) fail(ended);
      continue;
    }
    if (ec) fail(ec);
    buffer_.commit(read);
  }
  if (produced() > 0) co_return std::string_view(chunk_.data(), produced());
  co_return std::nullopt;
}

asio::awaitable<std::string> OllamaExchange::readWholeBody() {
  std::string whole;
  while (true) {
    const std::optional<std::string_view> bytes = co_await readBody();
    if (!bytes) break;
    if (whole.size() + bytes->size() > maxWholeBodyBytes) throw OllamaError::badResponse();
    whole.append(*bytes);
  }
  co_return whole;
}

asio::awaitable<std::optional<std::string>> OllamaExchange::readLine() {
  std::size_t scanned = 0;
  while (true) {
    const std::size_t newline = pendingLines_.find('\n', scanned);
    if (newline != std::string::npos) {
      const std::string_view line =
          text::trimmed(std::string_view(pendingLines_).substr(0, newline));
      std::optional<std::string> out;
      if (!line.empty()) out.emplace(line);
      pendingLines_.erase(0, newline + 1);
      scanned = 0;
      if (out) co_return out;
      continue;
    }
    if (bodyEnded_) {
      // The last line may lack its line feed.
      const std::string_view rest = text::trimmed(pendingLines_);
      std::optional<std::string> out;
      if (!rest.empty()) out.emplace(rest);
      pendingLines_.clear();
      co_return out;
    }
    if (pendingLines_.size() > maxLineBytes) throw OllamaError::badResponse();
    scanned = pendingLines_.size();
    const std::optional<std::string_view> bytes = co_await readBody();
    if (bytes) {
      pendingLines_.append(*bytes);
    } else {
      bodyEnded_ = true;
    }
  }
}

asio::awaitable<asio::ip::tcp::resolver::results_type> OllamaExchange::resolve(
    const std::string& host, const std::string& service) {
  lookup_ = std::make_shared<Lookup>(resolver_.get_executor());
  const auto lookup = lookup_;
  lookup->timer.expires_after(idleTimeout_);
  resolver_.async_resolve(host, service,
                          [lookup](error_code ec, asio::ip::tcp::resolver::results_type found) {
                            lookup->outcome = ec;
                            lookup->addresses = std::move(found);
                            lookup->timer.cancel();
                          });
  co_await lookup->timer.async_wait(asio::as_tuple(asio::use_awaitable));
  throwIfClosed();
  if (!lookup->outcome) {
    resolver_.cancel();
    fail(beast::error::timeout);
  }
  if (*lookup->outcome) fail(*lookup->outcome);
  co_return lookup->addresses;
}

void OllamaExchange::watchBodyRead() {
  idleWatch_->readStarted = std::chrono::steady_clock::now();
  if (idleWatch_->armed) return;
  tcp_.expires_never();
  armIdleWatch(idleWatch_->readStarted + idleTimeout_);
}

void OllamaExchange::armIdleWatch(std::chrono::steady_clock::time_point at) {
  idleWatch_->armed = true;
  idleWatch_->timer.expires_at(at);
  // The watch is owned by this exchange, so while it lives the exchange does too.
  idleWatch_->timer.async_wait([this, weak = std::weak_ptr<IdleWatch>(idleWatch_)](error_code ec) {
    const auto watch = weak.lock();
    if (!watch || ec || closed_) return;
    const auto due = watch->readStarted + idleTimeout_;
    if (std::chrono::steady_clock::now() < due) {
      armIdleWatch(due);
      return;
    }
    watch->expired = true;
    error_code ignored;
    tcp_.socket().close(ignored);
  });
}

void OllamaExchange::throwIfClosed() const {
  if (closed_) throw boost::system::system_error(asio::error::operation_aborted);
}

void OllamaExchange::close() {
  closed_ = true;
  resolver_.cancel();
  if (lookup_) lookup_->timer.cancel();
  // Also cancels the per-step timer, so nothing of this exchange stays pending.
  tcp_.close();
  idleWatch_->timer.cancel();
}

}  // namespace orin
