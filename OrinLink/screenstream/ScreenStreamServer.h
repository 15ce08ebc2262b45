#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <boost/asio/any_io_executor.hpp>
#include <boost/asio/awaitable.hpp>
#include <boost/asio/ip/address.hpp>

#include "OrinLink/screenstream/EncodedVideoFrame.h"
#include "OrinLink/server/ServiceAdvertiser.h"
#include "OrinLink/transport/ConnectionTracker.h"
#include "OrinLinkShared/Error.h"
#include "OrinLinkShared/ScreenStream.h"

namespace orin::screen {

// Why start() failed: the server's own check (domain "OrinLink", code 1) or the system's refusal
// to listen (the category's name and the system's code).
class StreamServerError : public Error {
 public:
  StreamServerError(std::string text, std::string domain, int code)
      : Error(std::move(text)), domain_(std::move(domain)), code_(code) {}

  static StreamServerError invalidPort(int port);

  const std::string& domain() const { return domain_; }
  int code() const { return code_; }

 private:
  std::string domain_;
  int code_;
};

// What a headset sees of this computer's screen: the stream listener and one session per
// connection, walked through the handshake and then fed every encoded frame. Sockets and session
// state live on the server's own serial executor; the callbacks run on the main executor, and the
// results of the asynchronous ones come back to the server's.
class ScreenStreamServer {
 public:
  struct Callbacks {
    // True when the token belongs to a paired device.
    std::function<boost::asio::awaitable<bool>(std::string token)> authenticate;
    // The issued token; throws an Error whose text the client is shown.
    std::function<boost::asio::awaitable<std::string>(std::string code, std::string deviceId,
                                                      std::string deviceName)>
        pair;
    // Display names of the streaming sessions, whenever that set changes; empty on stop.
    std::function<void(std::vector<std::string> names)> clientsChanged;
    std::function<void()> needsKeyframe;
    // Nothing once listening; the failure's text when the listener gave up.
    std::function<void(std::optional<std::string> failure)> serverStateChanged;
    // A client turned away for its protocol version, with the text it was sent.
    std::function<void(std::string message)> clientRejected;
    std::function<boost::asio::awaitable<void>(OrinScreenShape shape)> setShape;
    std::function<boost::asio::awaitable<OrinScreenShape>()> currentShape;
    std::function<void(bool open)> portalStateChanged;
  };

  struct Options {
    // Checked by start(); 0 lets the system choose.
    int port = OrinScreenStream::defaultPort;
    // Published in the DNS-SD TXT record so that a headset finds the AI service too.
    std::uint16_t httpPort = 38141;
    std::string serviceName = "Orin Link";
    // The name in "accepted"; "Mac" when there is none.
    std::optional<std::string> hostName;
    // Every interface, IPv4 and IPv6, unless a test narrows it to loopback.
    std::optional<boost::asio::ip::address> bindAddress;
    ServiceAdvertiser* advertiser = nullptr;
    std::chrono::steady_clock::duration helloTimeout = std::chrono::seconds(10);
    // Open sessions at most; at the cap the oldest without a finished handshake makes room.
    std::size_t maxConnections = transport::ConnectionTracker::defaultCap;
    // Clients that keep falling behind get a fresh keyframe this often at most, however many
    // they are: each one costs every client bandwidth and the encoder time.
    std::chrono::steady_clock::duration keyframeRecoverySpacing = std::chrono::seconds(1);
    // What "accepted" tells a client about wide shapes; asked on the server's loop, so it must
    // not block. Unset means they are supported.
    std::function<bool()> supportsVirtualDisplays;
  };

  // Figures of one session, for diagnostics and tests.
  struct SessionStatistics {
    std::string displayName;
    bool isStreaming = false;
    int pendingVideoSends = 0;
    int peakPendingVideoSends = 0;
    std::uint64_t videoFramesQueued = 0;
    std::uint64_t videoFramesDropped = 0;
  };

  static constexpr int maxPendingVideoSends = 8;

  ScreenStreamServer(Options options, boost::asio::any_io_executor serverExecutor,
                     boost::asio::any_io_executor mainExecutor, Callbacks callbacks);
  // Stops; open connections are cut off on the server's executor.
  ~ScreenStreamServer();
  ScreenStreamServer(const ScreenStreamServer&) = delete;
  ScreenStreamServer& operator=(const ScreenStreamServer&) = delete;

  // Binds at once and returns the port; throws StreamServerError. Accepting, advertising and
  // the ready report follow on the server's executor.
  std::uint16_t start();
  void stop();

  // Any thread. The frame's data is shared by every session, never copied per client.
  void broadcast(EncodedVideoFrame frame);
  void broadcastShape(OrinScreenShape shape);
  void broadcastSetPortal(bool on);
  void broadcastError(std::string text);
  // Refuses the hash from now on and cuts off its live sessions.
  void revoke(std::string tokenHash);

  std::uint16_t port() const;
  // Completes on the caller's executor.
  boost::asio::awaitable<std::vector<SessionStatistics>> statistics();

  struct Core;

 private:
  std::shared_ptr<Core> core_;
};

}  // namespace orin::screen
