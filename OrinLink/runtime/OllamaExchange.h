#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include <boost/asio/any_io_executor.hpp>
#include <boost/asio/awaitable.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl/context.hpp>
#include <boost/asio/ssl/stream.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/core/tcp_stream.hpp>
#include <boost/beast/http/buffer_body.hpp>
#include <boost/beast/http/parser.hpp>
#include <boost/beast/http/string_body.hpp>
#include <boost/beast/http/verb.hpp>

#include "OrinLink/runtime/OllamaRuntime.h"

namespace orin {

// A connection to the daemon opened before it is needed, so that a generation's request leaves at
// once instead of after a connect (and, for a host name, a lookup on the resolver's thread). At
// most one is kept, for plain http only. Used on one single-threaded executor.
class SpareConnection : public std::enable_shared_from_this<SpareConnection> {
 public:
  explicit SpareConnection(boost::asio::any_io_executor executor);

  // The spare if it leads to `endpoint` and the daemon has not closed or written to it.
  std::optional<boost::asio::ip::tcp::socket> take(const OllamaEndpoint& endpoint);
  // Opens the next spare unless one is ready or on its way, each step bounded by `idleTimeout`.
  // A failure leaves none: the next request connects by itself and reports what went wrong.
  void replenish(const OllamaEndpoint& endpoint, std::chrono::steady_clock::duration idleTimeout);
  bool ready() const { return ready_; }

 private:
  boost::asio::any_io_executor executor_;
  boost::asio::ip::tcp::socket socket_;
  std::string host_;
  std::uint16_t port_ = 0;
  bool ready_ = false;
  bool opening_ = false;
};

// One HTTP request to the daemon on a connection of its own, over TCP or TLS. Every step waits at
// most the idle time-out for the next bytes. Transport failures surface as
// boost::system::system_error; an answer that is not HTTP as OllamaError::badResponse.
class OllamaExchange {
 public:
  // `tls` is the client context for https endpoints, null for http.
  // `spare`, when given, supplies the connection if it can and gets a new one when this exchange
  // ends.
  OllamaExchange(boost::asio::any_io_executor executor,
                 std::shared_ptr<boost::asio::ssl::context> tls,
                 std::chrono::steady_clock::duration idleTimeout,
                 std::shared_ptr<SpareConnection> spare = nullptr);
  OllamaExchange(const OllamaExchange&) = delete;
  OllamaExchange& operator=(const OllamaExchange&) = delete;

  // Connects, sends the request for `path` (relative to the endpoint's prefix) and reads the
  // response head. Returns the status code.
  boost::asio::awaitable<unsigned> begin(OllamaEndpoint endpoint, boost::beast::http::verb method,
                                         std::string path, std::optional<std::string> jsonBody);

  // The next body bytes as they arrive, valid until the next call; nothing at the body's end.
  boost::asio::awaitable<std::optional<std::string_view>> readBody();
  boost::asio::awaitable<std::string> readWholeBody();
  // The next line of the body that is not blank, trimmed; nothing at the body's end.
  boost::asio::awaitable<std::optional<std::string>> readLine();

  // Has the spare opened for the next exchange; for one that ended normally, while its loop runs.
  void prepareNext();
  // Connects to `endpoint` over plain TCP and hands the connection over.
  boost::asio::awaitable<boost::asio::ip::tcp::socket> open(const OllamaEndpoint& endpoint);

  // Makes whatever is pending fail at once. Call on the exchange's executor.
  void close();

 private:
  using TLSStream = boost::asio::ssl::stream<boost::beast::tcp_stream&>;

  // Both stream kinds give the same awaitable type for the same operation.
  // A step that completed after close() still ends the exchange.
  void throwIfClosed() const;

  // The body's idle time-out. Re-arming a deadline before every read costs a timer update per
  // token; this one is armed once and, when it fires, moves on to the last read's start + the
  // time-out unless the read has waited that long.
  struct IdleWatch {
    explicit IdleWatch(const boost::asio::any_io_executor& executor) : timer(executor) {}
    boost::asio::steady_timer timer;
    std::chrono::steady_clock::time_point readStarted;
    bool armed = false;
    bool expired = false;
  };
  void watchBodyRead();
  void armIdleWatch(std::chrono::steady_clock::time_point at);

  // A name lookup runs on the resolver's own thread, where cancelling cannot reach it: the
  // exchange waits for it only until the idle time-out, and a late answer goes nowhere.
  struct Lookup {
    explicit Lookup(const boost::asio::any_io_executor& executor) : timer(executor) {}
    boost::asio::steady_timer timer;
    std::optional<boost::system::error_code> outcome;
    boost::asio::ip::tcp::resolver::results_type addresses;
  };
  boost::asio::awaitable<boost::asio::ip::tcp::resolver::results_type> resolve(
      const std::string& host, const std::string& service);

  boost::asio::awaitable<void> connect(const OllamaEndpoint& endpoint);
  // Sends the request and reads the answer's head; the error of either step.
  boost::asio::awaitable<boost::system::error_code> exchangeHead(
      boost::beast::http::request<boost::beast::http::string_body>& request);

  template <class Operation>
  auto onStream(Operation operation) {
    if (tls_) return operation(*tls_);
    return operation(tcp_);
  }

  std::shared_ptr<boost::asio::ssl::context> tlsContext_;
  std::chrono::steady_clock::duration idleTimeout_;
  boost::asio::ip::tcp::resolver resolver_;
  boost::beast::tcp_stream tcp_;
  std::optional<TLSStream> tls_;
  boost::beast::flat_buffer buffer_;
  boost::beast::http::response_parser<boost::beast::http::buffer_body> parser_;
  std::array<char, 16 * 1024> chunk_{};
  std::string pendingLines_;
  std::shared_ptr<IdleWatch> idleWatch_;
  std::shared_ptr<Lookup> lookup_;
  std::shared_ptr<SpareConnection> spare_;
  OllamaEndpoint endpoint_;
  bool bodyEnded_ = false;
  bool closed_ = false;
};

}  // namespace orin
