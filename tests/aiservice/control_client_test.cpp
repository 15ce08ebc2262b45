#include <chrono>
#include <fstream>
#include <thread>

#include <boost/asio/co_spawn.hpp>
#include <boost/asio/detached.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/redirect_error.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <boost/asio/write.hpp>
#include <gtest/gtest.h>

#include "OrinLink/controlclient/ControlClient.h"

#include "tests/core/TemporaryDirectory.h"

namespace orin::test {
namespace {

namespace asio = boost::asio;
using namespace std::chrono_literals;
using Kind = ControlClientError::Kind;

// How a copy of Orin Link that is not well can behave towards the command line.
enum class Peer {
  gone,      // nothing listens
  silent,    // the kernel completes the handshake, nobody ever reads or answers
  hangsUp,   // accepts and closes at once
  trickles,  // starts a reply and sends a header line every few milliseconds, never ending it
};

constexpr auto deadline = 150ms;
// Far beyond the deadline: the trickle stops here so a client without one fails instead of
// hanging the suite.
constexpr auto bound = 10s;

asio::awaitable<void> serve(asio::ip::tcp::acceptor acceptor, Peer peer) {
  auto accept = acceptor.async_accept(asio::use_awaitable);
  asio::ip::tcp::socket socket = co_await std::move(accept);
  if (peer == Peer::hangsUp) co_return;
  static const std::string status = "HTTP/1.1 200 OK\r\n";
  static const std::string line = "X-Still-Busy: yes\r\n";
  boost::system::error_code error;
  auto first = asio::async_write(socket, asio::buffer(status),
                                 asio::redirect_error(asio::use_awaitable, error));
  co_await std::move(first);
  asio::steady_timer timer(socket.get_executor());
  const auto end = std::chrono::steady_clock::now() + bound;
  while (!error && std::chrono::steady_clock::now() < end) {
    timer.expires_after(10ms);
    auto tick = timer.async_wait(asio::redirect_error(asio::use_awaitable, error));
    co_await std::move(tick);
    auto more = asio::async_write(socket, asio::buffer(line),
                                  asio::redirect_error(asio::use_awaitable, error));
    co_await std::move(more);
  }
}

class Counterpart {
 public:
  explicit Counterpart(Peer peer) : acceptor_(io_, {asio::ip::address_v4::loopback(), 0}) {
    port_ = acceptor_.local_endpoint().port();
    if (peer == Peer::gone) acceptor_.close();
    if (peer == Peer::hangsUp || peer == Peer::trickles) {
      asio::co_spawn(io_, serve(std::move(acceptor_), peer), asio::detached);
      thread_ = std::thread([this] { io_.run(); });
    }
  }
  ~Counterpart() {
    io_.stop();
    if (thread_.joinable()) thread_.join();
  }
  std::uint16_t port() const { return port_; }

 private:
  asio::io_context io_;
  asio::ip::tcp::acceptor acceptor_;
  std::uint16_t port_ = 0;
  std::thread thread_;
};

TEST(ControlClientTest, EveryExchangeEndsWithinItsDeadline) {
  const std::pair<Peer, Kind> cases[] = {
      {Peer::gone, Kind::notRunning},
      {Peer::silent, Kind::timedOut},
      {Peer::hangsUp, Kind::failed},
      {Peer::trickles, Kind::timedOut},
  };
  for (const auto& [peer, kind] : cases) {
    SCOPED_TRACE(static_cast<int>(peer));
    const Counterpart counterpart(peer);
    const ControlClient client(counterpart.port(), "secret", deadline);
    const auto started = std::chrono::steady_clock::now();
    try {
      client.post("/api/panel/open");
      ADD_FAILURE() << "an answer came";
    } catch (const ControlClientError& error) {
      EXPECT_EQ(error.kind(), kind) << error.what();
      if (kind == Kind::timedOut) {
        EXPECT_EQ(error.what(), ControlClient::timedOutText);
      }
    }
    const auto took = std::chrono::steady_clock::now() - started;
    if (kind == Kind::timedOut) {
      EXPECT_GE(took, deadline);
    }
    EXPECT_LT(took, deadline + 2s);
  }
}

TEST(ControlClientTest, TheSecretLosesItsLineEnd) {
  const TemporaryDirectory directory;
  const auto file = directory.path() / "control-secret";
  const std::pair<std::string, std::string> cases[] = {
      {"abc\n", "abc"}, {"abc\r\n", "abc"}, {"abc", "abc"}, {"a b\n\n", "a b"}};
  for (const auto& [stored, secret] : cases) {
    std::ofstream(file, std::ios::trunc) << stored;
    EXPECT_EQ(readControlSecret(file), secret);
  }
  std::filesystem::remove(file);
  EXPECT_EQ(readControlSecret(file), std::nullopt);
}

}  // namespace
}  // namespace orin::test
