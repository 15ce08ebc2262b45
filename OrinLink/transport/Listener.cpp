#include "OrinLink/transport/Listener.h"

#include <cerrno>
#include <sys/socket.h>
#include <unistd.h>

#include <boost/asio/as_tuple.hpp>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/detached.hpp>
#include <boost/asio/ip/v6_only.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/use_awaitable.hpp>

namespace orin::transport {

namespace asio = boost::asio;
using asio::ip::tcp;
using boost::system::error_code;

bool isIPv6Unavailable(const error_code& ec) {
  return ec == asio::error::address_family_not_supported ||
         ec == boost::system::errc::address_not_available ||
         ec == boost::system::errc::protocol_not_supported;
}

namespace {

enum class AcceptStep { retry, drained, pause, fail };

AcceptStep stepAfter(int error) {
  switch (error) {
    case EAGAIN:
#if EWOULDBLOCK != EAGAIN
    case EWOULDBLOCK:
#endif
      return AcceptStep::drained;
    case EMFILE:
    case ENFILE:
    case ENOBUFS:
    case ENOMEM:
      return AcceptStep::pause;
    case EBADF:
    case EINVAL:
    case ENOTSOCK:
    case EOPNOTSUPP:
    case EFAULT:
      return AcceptStep::fail;
    default:
      // Aborted handshakes and network errors of the pending connection (see accept(2)).
      return AcceptStep::retry;
  }
}

}  // namespace

struct Listener::State {
  State(asio::any_io_executor e, Options o)
      : executor(std::move(e)), options(std::move(o)), acceptor(executor), backOff(executor) {}

  asio::any_io_executor executor;
  Options options;
  tcp::acceptor acceptor;
  asio::steady_timer backOff;
  tcp protocol = tcp::v6();
  std::uint16_t port = 0;
  // A loop paused when the listener closed and opened again ends rather than run beside the new.
  std::uint64_t generation = 0;

  bool bind(const asio::ip::address& address, error_code& ec) {
    error_code ignored;
    acceptor.close(ignored);
    const tcp::endpoint endpoint(address, options.port);
    acceptor.open(endpoint.protocol(), ec);
    if (!ec && address.is_v6()) acceptor.set_option(asio::ip::v6_only(false), ec);
    if (!ec) acceptor.set_option(tcp::acceptor::reuse_address(true), ec);
    if (!ec) acceptor.bind(endpoint, ec);
    if (!ec) acceptor.listen(asio::socket_base::max_listen_connections, ec);
    if (!ec) acceptor.non_blocking(true, ec);
    if (!ec) protocol = endpoint.protocol();
    return !ec;
  }

  // Readiness is reported once per change, so the queue is emptied before waiting again; a long
  // queue is worked through in batches, letting other connections run in between.
  static asio::awaitable<void> run(std::shared_ptr<State> self, Admit admit, Failed failed) {
    const std::uint64_t generation = self->generation;
    bool drained = true;
    while (self->acceptor.is_open() && self->generation == generation) {
      if (drained) {
        auto [ec] = co_await self->acceptor.async_wait(tcp::acceptor::wait_read,
                                                       asio::as_tuple(asio::use_awaitable));
        if (ec == asio::error::operation_aborted || !self->acceptor.is_open()) co_return;
      } else {
        co_await asio::post(self->executor, asio::use_awaitable);
      }
      drained = false;
      std::optional<int> pause;
      for (int n = 0; n < self->options.acceptBatch && self->acceptor.is_open(); ++n) {
        const int fd = ::accept4(self->acceptor.native_handle(), nullptr, nullptr,
                                 SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (fd >= 0) {
          admit(fd);
          continue;
        }
        const int error = errno;
        const AcceptStep step = stepAfter(error);
        if (step == AcceptStep::retry) continue;
        if (step == AcceptStep::fail) {
          error_code ignored;
          self->acceptor.close(ignored);
          failed(ListenError(error_code(error, boost::system::system_category())));
          co_return;
        }
        drained = true;
        if (step == AcceptStep::pause) pause = error;
        break;
      }
      if (pause) {
        if (self->options.pausing) self->options.pausing(*pause);
        self->backOff.expires_after(self->options.backOff);
        co_await self->backOff.async_wait(asio::as_tuple(asio::use_awaitable));
      }
    }
  }
};

Listener::Listener(asio::any_io_executor executor, Options options)
    : state_(std::make_shared<State>(std::move(executor), std::move(options))) {}

void Listener::open() {
  error_code ec;
  const auto& asked = state_->options.bindAddress;
  if (!state_->bind(asked.value_or(asio::ip::address_v6::any()), ec) && !asked &&
      isIPv6Unavailable(ec)) {
    state_->bind(asio::ip::address_v4::any(), ec);
  }
  if (ec) {
    error_code ignored;
    state_->acceptor.close(ignored);
    throw ListenError(ec);
  }
  state_->port = state_->acceptor.local_endpoint().port();
}

void Listener::accept(Admit admit, Failed failed) {
  asio::co_spawn(state_->executor, State::run(state_, std::move(admit), std::move(failed)),
                 asio::detached);
}

void Listener::close() {
  ++state_->generation;
  error_code ignored;
  state_->acceptor.close(ignored);
  state_->backOff.cancel();
}

bool Listener::isOpen() const {
  return state_->acceptor.is_open();
}

std::uint16_t Listener::port() const {
  return state_->port;
}

std::optional<tcp::socket> Listener::adopt(int fd) const {
  tcp::socket socket(state_->acceptor.get_executor());
  error_code ec;
  socket.assign(state_->protocol, fd, ec);
  if (!ec) return socket;
  ::close(fd);
  return std::nullopt;
}

void Listener::closeDescriptor(int fd) {
  ::close(fd);
}

}  // namespace orin::transport
