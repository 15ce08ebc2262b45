#pragma once

#include <array>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include <boost/asio/as_tuple.hpp>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/detached.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <boost/asio/write.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http.hpp>

namespace orin::testing_support {

// An HTTP server on 127.0.0.1, port 0, on a thread of its own. Each connection gets the next
// scripted reply; the test can hold a reply's pieces back and hand them out one by one, and
// learns when a client closed while the server still held its reply.
class ScriptedHTTPServer {
 public:
  struct Reply {
    unsigned status = 200;  // 0: never answers at all
    // One piece goes out with a Content-Length; any other count as one chunk per piece.
    std::vector<std::string> pieces;
    bool gated = false;  // every piece after the first waits for release()
    bool raw = false;    // the pieces are the bytes on the wire, then the server stops sending
  };
  struct Request {
    std::string method, target, host, authorization, contentType, body;
  };

  explicit ScriptedHTTPServer(std::vector<Reply> replies = {})
      : acceptor_(context_, {boost::asio::ip::address_v4::loopback(), 0}) {
    script(std::move(replies));
    boost::asio::co_spawn(context_, acceptLoop(), boost::asio::detached);
    thread_ = std::thread([this] { context_.run(); });
  }
  ScriptedHTTPServer(const ScriptedHTTPServer&) = delete;
  ScriptedHTTPServer& operator=(const ScriptedHTTPServer&) = delete;
  ~ScriptedHTTPServer() {
    context_.stop();
    thread_.join();
  }

  std::uint16_t port() const { return acceptor_.local_endpoint().port(); }
  std::string baseURL(std::string_view path = "/") const {
    return "http://127.0.0.1:" + std::to_string(port()) + std::string(path);
  }
  // Replies for the coming connections, in order; later ones get a 500.
  void script(std::vector<Reply> replies) {
    std::lock_guard lock(mutex_);
    replies_.assign(replies.begin(), replies.end());
  }
  void release() {
    boost::asio::post(context_, [this] {
      ++releases_;
      for (const auto& weak : holding_) {
        if (auto connection = weak.lock()) connection->gate.cancel();
      }
    });
  }
  std::vector<Request> requests() const {
    std::lock_guard lock(mutex_);
    return requests_;
  }
  bool waitForRequests(std::size_t count, std::chrono::steady_clock::duration bound) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, bound, [&] { return requests_.size() >= count; });
  }
  bool waitForEarlyClose(std::chrono::steady_clock::duration bound, std::size_t count = 1) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, bound, [&] { return earlyCloses_ >= count; });
  }

 private:
  using Socket = boost::asio::ip::tcp::socket;
  static constexpr auto tuple = boost::asio::as_tuple(boost::asio::use_awaitable);

  struct Connection {
    explicit Connection(Socket s) : socket(std::move(s)), gate(socket.get_executor()) {}
    Socket socket;
    boost::asio::steady_timer gate;
    bool clientGone = false;
    bool replyComplete = false;  // set before the last bytes leave
  };

  boost::asio::awaitable<void> acceptLoop() {
    while (true) {
      auto [ec, socket] = co_await acceptor_.async_accept(tuple);
      if (ec) co_return;
      auto connection = std::make_shared<Connection>(std::move(socket));
      boost::asio::co_spawn(context_, serve(connection), boost::asio::detached);
    }
  }

  // The one reader once the request is in: it notices the client leaving.
  boost::asio::awaitable<void> watch(std::shared_ptr<Connection> connection) {
    std::array<char, 1024> sink{};
    boost::system::error_code ec;
    while (!ec)
      std::tie(ec, std::ignore) =
          co_await connection->socket.async_read_some(boost::asio::buffer(sink), tuple);
    connection->clientGone = true;
    connection->gate.cancel();
    if (connection->replyComplete) co_return;
    std::lock_guard lock(mutex_);
    ++earlyCloses_;
    changed_.notify_all();
  }

  // True when released; false when the client left first. Without `releasable` only the
  // client's leaving ends the wait.
  boost::asio::awaitable<bool> hold(std::shared_ptr<Connection> connection, bool releasable) {
    holding_.push_back(connection);
    while (!connection->clientGone && !(releasable && releases_ > 0)) {
      connection->gate.expires_at(boost::asio::steady_timer::time_point::max());
      co_await connection->gate.async_wait(tuple);
    }
    if (connection->clientGone) co_return false;
    --releases_;
    co_return true;
  }

  boost::asio::awaitable<void> serve(std::shared_ptr<Connection> connection) {
    namespace http = boost::beast::http;
    boost::beast::flat_buffer buffer;
    http::request<http::string_body> request;
    auto [readError, n] = co_await http::async_read(connection->socket, buffer, request, tuple);
    if (readError) co_return;
    Reply reply{500, {}};
    {
      std::lock_guard lock(mutex_);
      requests_.push_back({std::string(request.method_string()), std::string(request.target()),
                           std::string(request[http::field::host]),
                           std::string(request[http::field::authorization]),
                           std::string(request[http::field::content_type]), request.body()});
      changed_.notify_all();
      if (!replies_.empty()) {
        reply = std::move(replies_.front());
        replies_.pop_front();
      }
    }
    boost::asio::co_spawn(context_, watch(connection), boost::asio::detached);
    auto& socket = connection->socket;
    // Coroutine calls are bound before co_await: GCC 12 destroys their by-value temporaries twice.
    if (reply.status == 0) {
      auto silence = hold(connection, false);
      co_await std::move(silence);
      co_return;
    }
    const bool whole = !reply.raw && reply.pieces.size() == 1;
    connection->replyComplete = whole || reply.raw;
    http::response<http::empty_body> head;
    head.version(11);
    head.result(reply.status);
    head.keep_alive(false);
    if (whole) {
      head.content_length(reply.pieces.front().size());
    } else {
      head.chunked(true);
    }
    http::response_serializer<http::empty_body> serializer(head);
    if (!reply.raw) co_await http::async_write_header(socket, serializer, tuple);
    for (std::size_t i = 0; i < reply.pieces.size(); ++i) {
      if (reply.gated && i > 0) {
        auto releasing = hold(connection, true);
        const bool released = co_await std::move(releasing);
        if (!released) co_return;
      }
      if (whole || reply.raw) {
        co_await boost::asio::async_write(socket, boost::asio::buffer(reply.pieces[i]), tuple);
      } else {
        const auto chunk = http::make_chunk(boost::asio::buffer(reply.pieces[i]));
        co_await boost::asio::async_write(socket, chunk, tuple);
      }
    }
    connection->replyComplete = true;
    const auto last = http::make_chunk_last();
    if (!whole && !reply.raw) co_await boost::asio::async_write(socket, last, tuple);
    // The watcher keeps the socket open until the client has read everything and closed.
    boost::system::error_code ignored;
    socket.shutdown(Socket::shutdown_send, ignored);
  }

  boost::asio::io_context context_;
  boost::asio::ip::tcp::acceptor acceptor_;
  // On the server's thread only.
  int releases_ = 0;
  std::vector<std::weak_ptr<Connection>> holding_;

  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::size_t earlyCloses_ = 0;
  std::deque<Reply> replies_;
  std::vector<Request> requests_;
  std::thread thread_;
};

}  // namespace orin::testing_support
