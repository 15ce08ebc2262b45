#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include <boost/asio/any_io_executor.hpp>
#include <boost/asio/awaitable.hpp>
#include <boost/asio/ip/address.hpp>
#include <boost/asio/ip/tcp.hpp>

#include "OrinLink/http/HTTPMessage.h"
#include "OrinLink/server/ServiceAdvertiser.h"
#include "OrinLink/transport/ByteStream.h"
#include "OrinLink/transport/ConnectionTracker.h"

namespace orin {

// The AI service's front door: one request per connection, read until complete, handed to the
// handler on the main loop, answered whole or as server-sent events, then closed. All sockets and
// connection state live on the server's own serial executor.
class LocalHTTPServer {
 public:
  // Runs on the main executor.
  using Handler = std::function<boost::asio::awaitable<HTTPHandlerResult>(HTTPRequest)>;
  // Runs on the server's executor and must not block: answers the requests that need nothing
  // from the main loop, so they skip the two thread hand-offs. Nothing means "ask the Handler".
  using ImmediateHandler = std::function<std::optional<HTTPImmediateAnswer>(const HTTPRequest&)>;
  // Called on the main executor: running flag, the bound port, an optional failure message.
  using StateChanged =
      std::function<void(bool running, std::uint16_t port, std::optional<std::string> message)>;

  static constexpr std::string_view serviceType = "_orinlink-ai._tcp";
  static constexpr std::string_view defaultServiceName = "Orin Link";

  struct Options {
    std::uint16_t port = 0;
    // Every interface, IPv4 and IPv6, unless a test narrows it to loopback.
    std::optional<boost::asio::ip::address> bindAddress;
    std::string serviceName = std::string(defaultServiceName);
    ServiceAdvertiser* advertiser = nullptr;
    // Open connections at most; at the cap the oldest without a whole request makes room.
    std::size_t maxConnections = transport::ConnectionTracker::defaultCap;
    // What a connection is served over; unset, its socket. Tests put faults in it.
    std::function<std::unique_ptr<transport::ByteStream>(boost::asio::ip::tcp::socket)> openStream;
  };

  LocalHTTPServer(Options options, boost::asio::any_io_executor serverExecutor,
                  boost::asio::any_io_executor mainExecutor, Handler handler);
  // Stops; connections still open are cut off on the server's executor.
  ~LocalHTTPServer();
  LocalHTTPServer(const LocalHTTPServer&) = delete;
  LocalHTTPServer& operator=(const LocalHTTPServer&) = delete;

  // Set before start().
  void setStateChanged(StateChanged callback);
  // Set before start().
  void setImmediateHandler(ImmediateHandler handler);
  // Binds on the server executor; a failure arrives through StateChanged, never as an exception.
  void start();
  void stop();
  // Refuses the hash from now on and cuts off requests and event streams that carry it.
  void revoke(std::string tokenHash);

  bool isRunning() const;
  std::uint16_t port() const;

  struct Core;

 private:
  std::shared_ptr<Core> core_;
};

// What one event-stream chunk looks like on the wire: carriage returns dropped, line feeds
// written as backslash-n, so a chunk is always one data line.
std::string eventStreamData(std::string_view chunk);
std::string eventStreamDone();
std::string eventStreamError(std::string_view description);

}  // namespace orin
