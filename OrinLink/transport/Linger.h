#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <vector>

#include <boost/asio/as_tuple.hpp>
#include <boost/asio/awaitable.hpp>
#include <boost/asio/buffer.hpp>
#include <boost/asio/socket_base.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/use_awaitable.hpp>

namespace orin::transport {

// Closing a socket over unread input sends a reset, which can destroy the last reply before the
// peer reads it. So the sending side is shut down first, the peer's input drained, and the socket
// closed once the peer has finished or the patience runs out.
constexpr std::chrono::steady_clock::duration lingerTime = std::chrono::seconds(1);

// Shuts down the sending side and calls `close` when `timer` fires, at once when the stream is
// already unusable. Whoever reads the stream drains it meanwhile; cancel the timer to close sooner.
template <class Stream>
void lingerClose(Stream& stream, boost::asio::steady_timer& timer, std::function<void()> close,
                 std::chrono::steady_clock::duration patience = lingerTime) {
  boost::system::error_code ec;
  stream.shutdown(boost::asio::socket_base::shutdown_send, ec);
  if (ec) {
    close();
    return;
  }
  timer.expires_after(patience);
  timer.async_wait([close = std::move(close)](boost::system::error_code waitError) {
    if (!waitError) close();
  });
}

// Reads and discards until the peer finishes or fails, or `limit` bytes came; `owner` keeps the
// stream alive meanwhile.
template <class Stream>
boost::asio::awaitable<void> drain(std::shared_ptr<void> owner, Stream& stream, std::size_t limit) {
  std::vector<char> sink(64 * 1024);
  std::size_t drained = 0;
  while (drained < limit) {
    auto [ec, n] = co_await stream.async_read_some(
        boost::asio::buffer(sink), boost::asio::as_tuple(boost::asio::use_awaitable));
    if (ec) break;
    drained += n;
  }
  (void)owner;
}

}  // namespace orin::transport
