#include "OrinLink/screenstream/ScreenStreamServer.h"

#include <algorithm>
#include <array>
#include <deque>
#include <map>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <unistd.h>
#include <utility>

#include <boost/asio/as_tuple.hpp>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/detached.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <boost/asio/write.hpp>

#include "OrinLink/common/ErrorDescription.h"
#include "OrinLink/pairing/TokenHash.h"
#include "OrinLink/transport/Linger.h"
#include "OrinLink/transport/Listener.h"

namespace orin::screen {

namespace asio = boost::asio;
using asio::ip::tcp;
using boost::system::error_code;
using Kind = OrinScreenControlMessage::Kind;

namespace {

constexpr std::size_t readChunkBytes = 64 * 1024;
// Replies and configurations are few; this much unsent means the client stopped reading while it
// keeps talking, and it is cut off rather than buffered for.
constexpr std::size_t maxPendingControlBytes = 1024 * 1024;
// After a refusal the client has this long to read it before the socket closes.
constexpr auto lingerTime = transport::lingerTime;
constexpr int maxUnsentBytes = 128 * 1024;

constexpr std::string_view unknownDeviceName = "Unknown device";
constexpr std::string_view pairingDeviceName = "Vision Pro";
constexpr std::string_view defaultHostName = "Mac";
constexpr std::string_view edition = "website";
constexpr std::string_view clientTooOldText =
    "Vantaro on the headset is out of date. Update Vantaro, then reconnect.";
constexpr std::string_view hostTooOldText =
    "The Orin Link app on this Mac is out of date. Update Orin Link on the Mac, then reconnect.";
constexpr std::string_view missingCodeText = "Pairing request was missing its code.";
constexpr std::string_view serverFailedPrefix = "Stream server failed: ";

constexpr std::size_t videoPrefixLength =
    OrinScreenStream::headerLength + OrinScreenFrameHeader::encodedLength;

// One frame on its way out: a prefix of its own and a body that may be shared by every session.
struct Outgoing {
  std::array<std::uint8_t, videoPrefixLength> prefix{};
  std::size_t prefixLength = 0;
  std::shared_ptr<const ByteString> body;
  bool isVideo = false;
};

OrinScreenControlMessage control(Kind kind) {
  OrinScreenControlMessage message;
  message.kind = kind;
  return message;
}

OrinScreenControlMessage errorMessage(std::string_view text) {
  auto message = control(Kind::error);
  message.message = std::string(text);
  return message;
}

}  // namespace

StreamServerError StreamServerError::invalidPort(int port) {
  return StreamServerError("Invalid stream port " + std::to_string(port) + ".", "OrinLink", 1);
}

struct ScreenStreamServer::Core : std::enable_shared_from_this<Core> {
  struct Session {
    Session(tcp::socket s, std::uint64_t i)
        : socket(std::move(s)), timer(socket.get_executor()), id(i) {}

    tcp::socket socket;
    // The hello time-out, then the linger after a refusal.
    asio::steady_timer timer;
    std::uint64_t id;
    bool isStreaming = false;
    std::string displayName{unknownDeviceName};
    int pendingVideoSends = 0;
    bool waitingForKeyframe = true;
    bool receivedHello = false;
    // Gone from the server: nothing more is handled or queued.
    bool didClose = false;
    // Closing once the queued writes are out (a refusal that the client should read).
    bool closingAfterWrites = false;
    bool socketClosed = false;

    std::deque<Outgoing> queue;
    bool writing = false;
    std::size_t pendingControlBytes = 0;

    int peakPendingVideoSends = 0;
    std::uint64_t videoFramesQueued = 0;
    std::uint64_t videoFramesDropped = 0;
  };
  using SessionPtr = std::shared_ptr<Session>;

  struct PreparedFrame {
    std::array<std::uint8_t, videoPrefixLength> prefix{};
    std::shared_ptr<const ByteString> data;
    std::shared_ptr<const ByteString> configFrame;
    bool isKeyframe = false;
  };

  Core(Options o, asio::any_io_executor server, asio::any_io_executor main, Callbacks c)
      : options(std::move(o)),
        serverExecutor(std::move(server)),
        mainExecutor(std::move(main)),
        callbacks(std::move(c)),
        connections(options.maxConnections) {}

  const Options options;
  const asio::any_io_executor serverExecutor;
  const asio::any_io_executor mainExecutor;
  const Callbacks callbacks;
  std::atomic<bool> started{false};
  std::atomic<std::uint16_t> boundPort{0};

  // Touched on the server executor only (and by start() before anything runs there).
  std::unique_ptr<transport::Listener> listener;
  // Every session, departing ones aside: the cap, and the token hashes refused.
  transport::ConnectionTracker connections;
  // Ordered by arrival, so client lists keep the order in which devices connected.
  std::map<std::uint64_t, SessionPtr> sessions;
  // Refused sessions whose last words are still being written; stop() cuts them off too.
  std::map<std::uint64_t, SessionPtr> departing;
  std::shared_ptr<const ByteString> lastConfigFrame;
  // The latest keyframe asked for, by a new session or one that fell behind.
  std::optional<std::chrono::steady_clock::time_point> lastKeyframeRequest;
  std::unique_ptr<ServiceAdvertiser::Registration> registration;
  bool stopped = false;

  // Main-executor work captures copies of the callbacks, never the server itself.
  template <class Function>
  void onMain(Function function) {
    asio::post(mainExecutor, std::move(function));
  }

  void notifyNeedsKeyframe() {
    if (callbacks.needsKeyframe) onMain(callbacks.needsKeyframe);
  }

  std::uint16_t listen() {
    if (options.port < 0 || options.port > 65535)
      throw StreamServerError::invalidPort(options.port);
    transport::Listener::Options listening;
    listening.port = static_cast<std::uint16_t>(options.port);
    listening.bindAddress = options.bindAddress;
    listener = std::make_unique<transport::Listener>(serverExecutor, std::move(listening));
    try {
      listener->open();
    } catch (const transport::ListenError& failure) {
      throw StreamServerError(failure.what(), failure.code().category().name(),
                              failure.code().value());
    }
    boundPort = listener->port();
    asio::post(serverExecutor, [self = shared_from_this()] { self->beginAccepting(); });
    return boundPort;
  }

  void beginAccepting() {
    if (stopped || !listener->isOpen()) return;
    if (options.advertiser != nullptr) {
      registration = options.advertiser->advertise(
          options.serviceName, std::string(OrinScreenStream::bonjourServiceType), boundPort,
          {{"v", std::to_string(OrinScreenStream::protocolVersion)},
           {"http", std::to_string(options.httpPort)}});
    }
    if (callbacks.serverStateChanged) {
      onMain([callback = callbacks.serverStateChanged] { callback(std::nullopt); });
    }
    listener->accept(transport::Listener::admitTo(weak_from_this()),
                     [weak = weak_from_this()](const transport::ListenError& failure) {
                       if (auto self = weak.lock()) self->failListener(failure);
                     });
  }

  void failListener(const transport::ListenError& failure) {
    registration.reset();
    if (callbacks.serverStateChanged) {
      onMain([callback = callbacks.serverStateChanged,
              text = std::string(serverFailedPrefix) + failure.what()] { callback(text); });
    }
  }

  void admit(int fd) {
    auto adopted = listener->adopt(fd);
    if (!adopted) return;
    tcp::socket socket = std::move(*adopted);
    // Frames are written as they come; none may wait for the previous one's acknowledgement.
    error_code ignored;
    socket.set_option(tcp::no_delay(true), ignored);
    // A send completes once the kernel has taken the bytes, and its send buffer grows to
    // megabytes: seconds of video that the in-flight limit would never see. Holding unsent bytes
    // low makes a send complete only as the client reads.
    ::setsockopt(socket.native_handle(), IPPROTO_TCP, TCP_NOTSENT_LOWAT, &maxUnsentBytes,
                 sizeof maxUnsentBytes);
    auto session = std::make_shared<Session>(std::move(socket), 0);
    session->id = connections.add([weakSelf = weak_from_this(), weak = std::weak_ptr(session)] {
      auto self = weakSelf.lock();
      auto s = weak.lock();
      if (self && s) self->close(s);
    });
    sessions.emplace(session->id, session);
    session->timer.expires_after(options.helloTimeout);
    session->timer.async_wait(
        [weakSelf = weak_from_this(), weak = std::weak_ptr(session)](error_code ec) {
          auto self = weakSelf.lock();
          auto s = weak.lock();
          if (ec || !self || !s || s->didClose || s->receivedHello) return;
          self->close(s);
        });
    asio::co_spawn(serverExecutor, readLoop(shared_from_this(), session), asio::detached);
  }

  static asio::awaitable<void> readLoop(std::shared_ptr<Core> self, SessionPtr session) {
    OrinScreenFrameReader reader;
    OrinScreenFrameReader::Frame frame;
    std::vector<std::uint8_t> buffer(readChunkBytes);
    while (true) {
      auto [ec, received] = co_await session->socket.async_read_some(
          asio::buffer(buffer), asio::as_tuple(asio::use_awaitable));
      if (session->socketClosed) co_return;
      if (ec) {
        self->close(session);
        co_return;
      }
      // A refused client's input is drained until it closes, not handled.
      if (session->didClose) continue;
      reader.append({buffer.data(), received});
      while (!session->didClose) {
        const auto status = reader.next(frame);
        if (status == OrinScreenFrameReader::Status::needMore) break;
        if (status == OrinScreenFrameReader::Status::tooLarge) {
          self->close(session);
          co_return;
        }
        self->handleMessage(session, frame);
      }
    }
  }

  void handleMessage(const SessionPtr& session, const OrinScreenFrameReader::Frame& frame) {
    if (frame.type != OrinScreenMessageType::control) return;
    OrinScreenControlMessage message;
    try {
      message = OrinScreenFraming::decodeControl(frame.payload);
    } catch (const std::exception&) {
      return;
    }
    switch (message.kind) {
      case Kind::hello:
        if (session->receivedHello) return;
        session->receivedHello = true;
        session->displayName = message.deviceName.value_or(std::string(unknownDeviceName));
        handleHello(session, message);
        return;
      case Kind::pair:
        handlePair(session, message);
        return;
      case Kind::ping:
        sendControl(session, control(Kind::pong));
        return;
      case Kind::setShape: {
        if (!session->isStreaming || !message.shape) return;
        const auto shape = screenShapeFromRawValue(*message.shape);
        if (!shape || !callbacks.setShape) return;
        asio::co_spawn(
            mainExecutor, [callback = callbacks.setShape, s = *shape] { return callback(s); },
            asio::detached);
        return;
      }
      case Kind::portal:
        if (!session->isStreaming || !message.portal || !callbacks.portalStateChanged) return;
        onMain(
            [callback = callbacks.portalStateChanged, open = *message.portal] { callback(open); });
        return;
      case Kind::pairingRequired:
      case Kind::paired:
      case Kind::accepted:
      case Kind::error:
      case Kind::pong:
      case Kind::shape:
      case Kind::setPortal:
        return;
    }
  }

  void handleHello(const SessionPtr& session, const OrinScreenControlMessage& hello) {
    if (!hello.version || *hello.version < OrinScreenStream::protocolVersion) {
      reject(session, clientTooOldText);
    } else if (*hello.version > OrinScreenStream::protocolVersion) {
      reject(session, hostTooOldText);
    } else if (hello.token && !hello.token->empty()) {
      asio::co_spawn(serverExecutor, authenticate(shared_from_this(), session, *hello.token),
                     asio::detached);
    } else {
      sendControl(session, control(Kind::pairingRequired));
    }
  }

  void reject(const SessionPtr& session, std::string_view text) {
    auto refusal = errorMessage(text);
    refusal.version = OrinScreenStream::protocolVersion;
    sendControl(session, refusal);
    if (callbacks.clientRejected) {
      onMain([callback = callbacks.clientRejected, t = std::string(text)] { callback(t); });
    }
    closeAfterWrites(session);
  }

  void handlePair(const SessionPtr& session, const OrinScreenControlMessage& request) {
    if (session->isStreaming || session->didClose) return;
    if (!request.pairingCode || !request.deviceId) {
      sendControl(session, errorMessage(missingCodeText));
      return;
    }
    session->displayName = request.deviceName.value_or(std::string(pairingDeviceName));
    asio::co_spawn(serverExecutor,
                   pair(shared_from_this(), session, *request.pairingCode, *request.deviceId,
                        session->displayName),
                   asio::detached);
  }

  // Asynchronous callbacks hold the session weakly: a session that is gone drops the answer.
  static asio::awaitable<void> authenticate(std::shared_ptr<Core> self, SessionPtr strong,
                                            std::string token) {
    std::weak_ptr<Session> weak = strong;
    strong.reset();
    bool known = false;
    try {
      auto asking = asio::co_spawn(
          self->mainExecutor,
          [callback = self->callbacks.authenticate, token] { return callback(token); },
          asio::use_awaitable);
      known = co_await std::move(asking);
    } catch (...) {
      known = false;
    }
    const auto session = weak.lock();
    if (!session || session->didClose) co_return;
    if (known) {
      self->acceptClient(session, token);
    } else {
      self->sendControl(session, control(Kind::pairingRequired));
    }
  }

  static asio::awaitable<void> pair(std::shared_ptr<Core> self, SessionPtr strong, std::string code,
                                    std::string deviceId, std::string deviceName) {
    std::weak_ptr<Session> weak = strong;
    strong.reset();
    std::optional<std::string> token;
    std::string failure;
    try {
      auto pairing = asio::co_spawn(
          self->mainExecutor,
          [callback = self->callbacks.pair, code, deviceId, deviceName] {
            return callback(code, deviceId, deviceName);
          },
          asio::use_awaitable);
      token = co_await std::move(pairing);
    } catch (...) {
      failure = describe(std::current_exception());
    }
    const auto session = weak.lock();
    if (!session || session->didClose) co_return;
    if (!token) {
      self->sendControl(session, errorMessage(failure));
      co_return;
    }
    auto paired = control(Kind::paired);
    paired.token = *token;
    self->sendControl(session, paired);
    self->acceptClient(session, *token);
  }

  void acceptClient(const SessionPtr& session, const std::string& token) {
    std::string hash = tokenHash(token);
    if (session->isStreaming || session->didClose) return;
    if (!connections.authenticate(session->id, std::move(hash))) {
      close(session);
      return;
    }
    connections.settle(session->id);
    session->isStreaming = true;
    session->waitingForKeyframe = true;
    auto accepted = control(Kind::accepted);
    accepted.name = options.hostName.value_or(std::string(defaultHostName));
    accepted.edition = std::string(edition);
    accepted.supportsVirtualDisplays =
        !options.supportsVirtualDisplays || options.supportsVirtualDisplays();
    sendControl(session, accepted);
    sessionAuthenticated(session);
  }

  void sessionAuthenticated(const SessionPtr& session) {
    if (lastConfigFrame) queueSend(session, Outgoing{{}, 0, lastConfigFrame, false});
    lastKeyframeRequest = std::chrono::steady_clock::now();
    notifyNeedsKeyframe();
    notifyClientsChanged();
    asio::co_spawn(serverExecutor, tellCurrentShape(shared_from_this(), session), asio::detached);
  }

  static asio::awaitable<void> tellCurrentShape(std::shared_ptr<Core> self, SessionPtr strong) {
    std::weak_ptr<Session> weak = strong;
    strong.reset();
    if (!self->callbacks.currentShape) co_return;
    std::optional<OrinScreenShape> shape;
    try {
      auto asking =
          asio::co_spawn(self->mainExecutor, self->callbacks.currentShape, asio::use_awaitable);
      shape = co_await std::move(asking);
    } catch (...) {
      co_return;
    }
    const auto session = weak.lock();
    if (!session || session->didClose) co_return;
    auto message = control(Kind::shape);
    message.shape = rawValue(*shape);
    self->sendControl(session, message);
  }

  void notifyClientsChanged() {
    if (!callbacks.clientsChanged) return;
    std::vector<std::string> names;
    for (const auto& [id, session] : sessions) {
      if (session->isStreaming) names.push_back(session->displayName);
    }
    onMain([callback = callbacks.clientsChanged, names = std::move(names)]() mutable {
      callback(std::move(names));
    });
  }

  std::vector<SessionPtr> streamingSessions() const {
    std::vector<SessionPtr> streaming;
    for (const auto& [id, session] : sessions) {
      if (session->isStreaming) streaming.push_back(session);
    }
    return streaming;
  }

  void broadcast(const PreparedFrame& frame) {
    if (frame.configFrame) lastConfigFrame = frame.configFrame;
    bool keyframeWanted = false;
    const auto now = std::chrono::steady_clock::now();
    for (const auto& session : streamingSessions()) {
      if (frame.configFrame) queueSend(session, Outgoing{{}, 0, frame.configFrame, false});
      if (session->didClose) continue;
      const bool roomInFlight = session->pendingVideoSends < maxPendingVideoSends;
      // Behind: skip ahead to the next keyframe instead of queueing.
      if (!roomInFlight) session->waitingForKeyframe = true;
      const bool send = roomInFlight && (!session->waitingForKeyframe || frame.isKeyframe);
      if (send) {
        session->waitingForKeyframe = false;
        ++session->pendingVideoSends;
        ++session->videoFramesQueued;
        session->peakPendingVideoSends =
            std::max(session->peakPendingVideoSends, session->pendingVideoSends);
        queueSend(session, Outgoing{frame.prefix, frame.prefix.size(), frame.data, true});
      } else {
        ++session->videoFramesDropped;
      }
      // Asked only once the client has room again, so a stalled client never turns every frame
      // into a keyframe for everyone; and spaced across all sessions, since each keyframe goes
      // to every one of them.
      const bool hasRoom = session->pendingVideoSends < maxPendingVideoSends;
      if (session->waitingForKeyframe && hasRoom &&
          (!lastKeyframeRequest || now - *lastKeyframeRequest >= options.keyframeRecoverySpacing)) {
        lastKeyframeRequest = now;
        keyframeWanted = true;
      }
    }
    if (keyframeWanted) notifyNeedsKeyframe();
  }

  void broadcastControl(const OrinScreenControlMessage& message) {
    for (const auto& session : streamingSessions())
      sendControl(session, message);
  }

  void sendControl(const SessionPtr& session, const OrinScreenControlMessage& message) {
    std::shared_ptr<const ByteString> bytes;
    try {
      bytes = std::make_shared<const ByteString>(OrinScreenFraming::frame(message));
    } catch (const EncodingError&) {
      // Text that is not UTF-8 cannot travel as JSON; the message is dropped.
      return;
    }
    queueSend(session, Outgoing{{}, 0, std::move(bytes), false});
  }

  void queueSend(const SessionPtr& session, Outgoing outgoing) {
    if (session->didClose) return;
    if (!outgoing.isVideo) {
      session->pendingControlBytes += outgoing.body->size();
      if (session->pendingControlBytes > maxPendingControlBytes) {
        close(session);
        return;
      }
    }
    session->queue.push_back(std::move(outgoing));
    writeNext(session);
  }

  void writeNext(const SessionPtr& session) {
    if (session->writing || session->socketClosed) return;
    if (session->queue.empty()) {
      if (session->closingAfterWrites) shutDownSending(session);
      return;
    }
    session->writing = true;
    // Elements of a deque stay where they are while others are appended.
    const Outgoing& next = session->queue.front();
    const std::array<asio::const_buffer, 2> buffers{
        asio::buffer(next.prefix.data(), next.prefixLength), asio::buffer(*next.body)};
    asio::async_write(session->socket, buffers,
                      [weakSelf = weak_from_this(), session](error_code ec, std::size_t) {
                        session->writing = false;
                        const Outgoing done = std::move(session->queue.front());
                        session->queue.pop_front();
                        if (done.isVideo) {
                          --session->pendingVideoSends;
                        } else {
                          session->pendingControlBytes -= done.body->size();
                        }
                        auto self = weakSelf.lock();
                        if (!ec && self) {
                          self->writeNext(session);
                          return;
                        }
                        session->queue.clear();
                        if (self) {
                          self->close(session);
                        } else if (!session->socketClosed) {
                          session->socketClosed = true;
                          error_code ignored;
                          session->socket.close(ignored);
                        }
                      });
  }

  // Leaves the server at once. The socket is shut down once what is queued has been written,
  // and closed when the client closes its side (the read loop drains its input until then), or
  // at the latest after the linger time.
  void closeAfterWrites(const SessionPtr& session) {
    leave(session);
    session->closingAfterWrites = true;
    departing.emplace(session->id, session);
    session->timer.expires_after(lingerTime);
    session->timer.async_wait(
        [weakSelf = weak_from_this(), weak = std::weak_ptr(session)](error_code waitError) {
          auto self = weakSelf.lock();
          auto s = weak.lock();
          if (self && s && !waitError) self->closeSocket(s);
        });
    writeNext(session);
  }

  void shutDownSending(const SessionPtr& session) {
    session->closingAfterWrites = false;
    transport::lingerClose(session->socket, session->timer,
                           [weakSelf = weak_from_this(), weak = std::weak_ptr(session)] {
                             auto self = weakSelf.lock();
                             auto s = weak.lock();
                             if (self && s) self->closeSocket(s);
                           });
  }

  void close(const SessionPtr& session) {
    leave(session);
    closeSocket(session);
  }

  void leave(const SessionPtr& session) {
    if (session->didClose) return;
    session->didClose = true;
    const bool wasStreaming = session->isStreaming;
    session->isStreaming = false;
    sessions.erase(session->id);
    connections.remove(session->id);
    if (wasStreaming) notifyClientsChanged();
  }

  void closeSocket(const SessionPtr& session) {
    if (session->socketClosed) return;
    session->socketClosed = true;
    departing.erase(session->id);
    session->timer.cancel();
    error_code ignored;
    session->socket.close(ignored);
    if (!session->writing) session->queue.clear();
  }

  void stop() {
    if (stopped) return;
    stopped = true;
    if (listener) listener->close();
    registration.reset();
    auto open = std::move(sessions);
    sessions.clear();
    open.merge(std::move(departing));
    departing.clear();
    for (const auto& [id, session] : open) {
      session->didClose = true;
      session->isStreaming = false;
      closeSocket(session);
    }
    connections.closeAll();
    lastConfigFrame.reset();
    if (callbacks.clientsChanged) {
      onMain([callback = callbacks.clientsChanged] { callback({}); });
    }
  }

  std::vector<SessionStatistics> snapshot() const {
    std::vector<SessionStatistics> figures;
    for (const auto& [id, s] : sessions) {
      figures.push_back({s->displayName, s->isStreaming, s->pendingVideoSends,
                         s->peakPendingVideoSends, s->videoFramesQueued, s->videoFramesDropped});
    }
    return figures;
  }

  static asio::awaitable<std::vector<SessionStatistics>> snapshotOnServer(
      std::shared_ptr<Core> self) {
    co_return self->snapshot();
  }

  static asio::awaitable<std::vector<SessionStatistics>> statistics(std::shared_ptr<Core> self) {
    auto asking = asio::co_spawn(self->serverExecutor, snapshotOnServer(self), asio::use_awaitable);
    co_return co_await std::move(asking);
  }
};

ScreenStreamServer::ScreenStreamServer(Options options, asio::any_io_executor serverExecutor,
                                       asio::any_io_executor mainExecutor, Callbacks callbacks)
    : core_(std::make_shared<Core>(std::move(options), std::move(serverExecutor),
                                   std::move(mainExecutor), std::move(callbacks))) {}

ScreenStreamServer::~ScreenStreamServer() {
  stop();
}

std::uint16_t ScreenStreamServer::start() {
  if (core_->started.exchange(true)) return core_->boundPort;
  try {
    return core_->listen();
  } catch (...) {
    core_->started = false;
    throw;
  }
}

void ScreenStreamServer::stop() {
  asio::post(core_->serverExecutor, [core = core_] { core->stop(); });
}

void ScreenStreamServer::broadcast(EncodedVideoFrame frame) {
  Core::PreparedFrame prepared;
  prepared.prefix = OrinScreenFraming::videoFramePrefix(frame.header, frame.data.size());
  prepared.isKeyframe = frame.header.isKeyframe;
  if (frame.config) {
    const std::string json = encodeJSON(*frame.config);
    prepared.configFrame = std::make_shared<const ByteString>(OrinScreenFraming::frame(
        OrinScreenMessageType::videoConfig,
        {reinterpret_cast<const std::uint8_t*>(json.data()), json.size()}));
  }
  prepared.data = std::make_shared<const ByteString>(std::move(frame.data));
  asio::post(core_->serverExecutor,
             [core = core_, prepared = std::move(prepared)] { core->broadcast(prepared); });
}

void ScreenStreamServer::broadcastShape(OrinScreenShape shape) {
  auto message = control(Kind::shape);
  message.shape = rawValue(shape);
  asio::post(core_->serverExecutor, [core = core_, message] { core->broadcastControl(message); });
}

void ScreenStreamServer::broadcastSetPortal(bool on) {
  auto message = control(Kind::setPortal);
  message.portal = on;
  asio::post(core_->serverExecutor, [core = core_, message] { core->broadcastControl(message); });
}

void ScreenStreamServer::broadcastError(std::string text) {
  asio::post(core_->serverExecutor,
             [core = core_, message = errorMessage(text)] { core->broadcastControl(message); });
}

void ScreenStreamServer::revoke(std::string tokenHash) {
  asio::post(core_->serverExecutor,
             [core = core_, hash = std::move(tokenHash)] { core->connections.revoke(hash); });
}

std::uint16_t ScreenStreamServer::port() const {
  return core_->boundPort;
}

asio::awaitable<std::vector<ScreenStreamServer::SessionStatistics>>
ScreenStreamServer::statistics() {
  return Core::statistics(core_);
}

}  // namespace orin::screen
