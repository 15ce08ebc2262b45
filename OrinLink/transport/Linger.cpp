#include "OrinLink/transport/Linger.h"

#include <vector>

#include <boost/asio/as_tuple.hpp>
#include <boost/asio/use_awaitable.hpp>

namespace orin::transport {

namespace asio = boost::asio;
using boost::system::error_code;

void lingerClose(asio::ip::tcp::socket& socket, asio::steady_timer& timer,
                 std::function<void()> close, std::chrono::steady_clock::duration patience) {
  error_code ec;
  socket.shutdown(asio::ip::tcp::socket::shutdown_send, ec);
  if (ec) {
    close();
    return;
  }
  timer.expires_after(patience);
  timer.async_wait([close = std::move(close)](error_code waitError) {
    if (!waitError) close();
  });
}

asio::awaitable<void> drain(std::shared_ptr<void> owner, asio::ip::tcp::socket& socket,
                            std::size_t limit) {
  std::vector<char> sink(64 * 1024);
  std::size_t drained = 0;
  while (drained < limit) {
    auto [ec, n] =
        co_await socket.async_read_some(asio::buffer(sink), asio::as_tuple(asio::use_awaitable));
    if (ec) break;
    drained += n;
  }
  (void)owner;
}

}  // namespace orin::transport
