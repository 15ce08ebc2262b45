#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>

#include <boost/asio/awaitable.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/steady_timer.hpp>

namespace orin::transport {

// Closing a socket over unread input sends a reset, which can destroy the last reply before the
// peer reads it. So the sending side is shut down first, the peer's input drained, and the socket
// closed once the peer has finished or the patience runs out.
constexpr std::chrono::steady_clock::duration lingerTime = std::chrono::seconds(1);

// Shuts down the sending side and calls `close` when `timer` fires, at once when the socket is
// already unusable. Whoever reads the socket drains it meanwhile; cancel the timer to close sooner.
void lingerClose(boost::asio::ip::tcp::socket& socket, boost::asio::steady_timer& timer,
                 std::function<void()> close,
                 std::chrono::steady_clock::duration patience = lingerTime);

// Reads and discards until the peer finishes or fails, or `limit` bytes came; `owner` keeps the
// socket alive meanwhile.
boost::asio::awaitable<void> drain(std::shared_ptr<void> owner,
                                   boost::asio::ip::tcp::socket& socket, std::size_t limit);

}  // namespace orin::transport
