#include "OrinLink/server/LocalHTTPServer.h"

#include <array>
#include <sys/socket.h>
#include <unistd.h>

#include <boost/asio/as_tuple.hpp>
#include <boost/asio/bind_cancellation_slot.hpp>
#include <boost/asio/cancellation_signal.hpp>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/detached.hpp>
#include <boost/asio/dispatch.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <boost/asio/write.hpp>

#include "OrinLink/common/ErrorDescription.h"
#include "OrinLink/http/HTTPParser.h"
#include "OrinLink/pairing/TokenHash.h"
#include "OrinLink/transport/Linger.h"
#include "OrinLink/transport/Listener.h"
#include "OrinLinkShared/AIRecords.h"

namespace orin {

namespace asio = boost::asio;
using asio::ip::tcp;
using boost::system::error_code;

namespace {

constexpr std::size_t readChunkBytes = 64 * 1024;
constexpr std::size_t lingerMaxBytes = 4 * 1024 * 1024;

}  // namespace

std::string eventStreamData(std::string_view chunk) {
  std::string out = "data: ";
  out.reserve(chunk.size() + 8);
  for (const char c : chunk) {
    if (c == '\r') continue;
    if (c == '\n') {
      out += "\\n";
    } else {
      out.push_back(c);
    }
  }
  out += "\n\n";
  return out;
}

std::string eventStreamDone() {
  return "event: done\ndata: {}\n\n";
}

std::string eventStreamError(std::string_view description) {
  std::string text(description);
  for (char& c : text) {
    if (c == '\n') c = ' ';
  }
  return "event: error\ndata: " + text + "\n\n";
}

// Cancels a handler running on the main loop. It is emitted on the main loop only, and only
// while the handler runs: the slot it is bound to holds state of that co_spawn, and emitting from
// another thread could run after the handler finished and that state is gone.
struct HandlerCancellation {
  asio::cancellation_signal signal;
  bool finished = false;  // main loop only
};

struct LocalHTTPServer::Core : std::enable_shared_from_this<Core> {
  struct Connection {
    Connection(std::unique_ptr<transport::ByteStream> s, asio::any_io_executor main)
        : stream(std::move(s)),
          lingerTimer(stream->get_executor()),
          mainExecutor(std::move(main)) {}
    std::unique_ptr<transport::ByteStream> stream;
    asio::steady_timer lingerTimer;
    asio::any_io_executor mainExecutor;
    asio::cancellation_signal cancellation;
    std::shared_ptr<HandlerCancellation> handler;
    transport::ConnectionTracker::Id id = 0;
    bool cancelled = false;
    // The peer shut down its sending side after its request; it still reads the reply.
    bool peerFinished = false;
    bool replied = false;

    // Ends the connection from inside its own coroutine: nothing of it is waiting to be woken.
    void close() {
      cancelled = true;
      error_code ignored;
      stream->close(ignored);
    }

    void cancel() {
      if (cancelled) return;
      cancelled = true;
      if (handler) {
        asio::post(mainExecutor, [handler = std::move(handler)] {
          if (!handler->finished) handler->signal.emit(asio::cancellation_type::terminal);
        });
      }
      cancellation.emit(asio::cancellation_type::terminal);
      lingerTimer.cancel();
      error_code ignored;
      stream->close(ignored);
    }
  };

  Core(Options o, asio::any_io_executor server, asio::any_io_executor main, Handler h)
      : options(std::move(o)),
        serverExecutor(std::move(server)),
        mainExecutor(std::move(main)),
        handler(std::move(h)),
        listener(serverExecutor, listening(options)),
        connections(options.maxConnections),
        port(options.port) {}

  static transport::Listener::Options listening(const Options& options) {
    transport::Listener::Options l;
    l.port = options.port;
    l.bindAddress = options.bindAddress;
    return l;
  }

  Options options;
  asio::any_io_executor serverExecutor;
  asio::any_io_executor mainExecutor;
  Handler handler;
  ImmediateHandler immediateHandler;
  StateChanged stateChanged;

  // Touched on the server executor only.
  transport::Listener listener;
  // Where requests are received before their connection has a coroutine of its own.
  std::unique_ptr<char[]> scratch = std::make_unique_for_overwrite<char[]>(readChunkBytes);
  transport::ConnectionTracker connections;
  std::unique_ptr<ServiceAdvertiser::Registration> registration;

  std::atomic<bool> running{false};
  std::atomic<std::uint16_t> port;

  void notify(bool isRunning, std::optional<std::string> message) {
    if (!stateChanged) return;
    asio::post(mainExecutor, [callback = stateChanged, isRunning, p = port.load(),
                              m = std::move(message)] { callback(isRunning, p, m); });
  }

  void listen() {
    try {
      listener.open();
    } catch (const transport::ListenError& failure) {
      running = false;
      notify(false, failure.description());
      return;
    }
    port = listener.port();
    running = true;
    if (options.advertiser != nullptr) {
      registration = options.advertiser->advertise(options.serviceName, std::string(serviceType),
                                                   port, {{"api", "1"}});
    }
    notify(true, std::nullopt);
    listener.accept(transport::Listener::admitTo(weak_from_this()),
                    [weak = weak_from_this()](const transport::ListenError& failure) {
                      auto self = weak.lock();
                      if (!self) return;
                      self->running = false;
                      self->registration.reset();
                      self->notify(false, failure.description());
                    });
  }

  // What was read, and maybe answered, before the connection became a socket.
  struct Arrival {
    HTTPRequestReader reader;
    std::optional<HTTPRequest> request;
    // An event stream already started for the request.
    std::optional<HTTPImmediateAnswer> answer;
    std::string unsentReply;
  };

  // Answers a request that is already complete on arrival and needs nothing from the main loop
  // on the bare descriptor: receive, send, close, and the connection never meets the reactor.
  // Everything else becomes a socket with a coroutine.
  void admit(int fd) {
    Arrival arrival;
    const ssize_t received = ::recv(fd, scratch.get(), readChunkBytes, 0);
    if (received > 0) {
      const auto status =
          arrival.reader.append({scratch.get(), static_cast<std::size_t>(received)});
      if (status == HTTPRequestReader::Status::complete && !arrival.reader.hasBytesPastBody()) {
        arrival.request = arrival.reader.take();
        if (answerOnArrival(fd, arrival)) return;
      }
    }
    auto socket = listener.adopt(fd);
    if (!socket) return;
    auto stream = options.openStream
                      ? options.openStream(std::move(*socket))
                      : std::make_unique<transport::SocketStream>(std::move(*socket));
    auto connection = std::make_shared<Connection>(std::move(stream), mainExecutor);
    const auto id = connections.add([weak = std::weak_ptr(connection)] {
      if (auto c = weak.lock()) c->cancel();
    });
    connection->id = id;
    // Started from a handler of its own rather than inside the accept loop's coroutine: its
    // request may be handled, and the connection cancelled, before it first waits.
    asio::post(serverExecutor,
               [self = shared_from_this(), connection, id, arrival = std::move(arrival)]() mutable {
                 asio::co_spawn(self->serverExecutor, serve(self, connection, std::move(arrival)),
                                asio::bind_cancellation_slot(
                                    connection->cancellation.slot(),
                                    [weak = self->weak_from_this(), id](std::exception_ptr) {
                                      if (auto owner = weak.lock()) owner->connections.remove(id);
                                    }));
               });
  }

  // True when the descriptor is done with: answered or refused, and closed.
  bool answerOnArrival(int fd, Arrival& arrival) {
    if (!immediateHandler) return false;
    if (auto token = arrival.request->bearerToken();
        token && connections.isRevoked(tokenHash(*token))) {
      ::close(fd);
      return true;
    }
    std::optional<HTTPImmediateAnswer> answered = immediateHandler(*arrival.request);
    if (!answered) return false;
    const auto* answer = std::get_if<std::string>(&*answered);
    if (!answer) {
      arrival.answer = std::move(answered);
      return false;
    }
    const ssize_t sent = ::send(fd, answer->data(), answer->size(), MSG_NOSIGNAL);
    if (sent >= 0 && static_cast<std::size_t>(sent) < answer->size()) {
      arrival.request.reset();
      arrival.unsentReply = answer->substr(static_cast<std::size_t>(sent));
      return false;
    }
    ::close(fd);
    return true;
  }

  static asio::awaitable<void> serve(std::shared_ptr<Core> self,
                                     std::shared_ptr<Connection> connection, Arrival arrival) {
    if (!arrival.unsentReply.empty()) {
      auto writing = write(connection, std::move(arrival.unsentReply));
      co_await std::move(writing);
      closeAfterReply(connection, true);
      co_return;
    }
    if (arrival.request) {
      auto handling =
          handle(self, connection, std::move(*arrival.request), true, std::move(arrival.answer));
      co_await std::move(handling);
      co_return;
    }
    HTTPRequestReader reader = std::move(arrival.reader);
    if (reader.status() == HTTPRequestReader::Status::complete) {
      const bool readToTheEnd = !reader.hasBytesPastBody();
      auto handling = handle(self, connection, reader.take(), readToTheEnd);
      co_await std::move(handling);
      co_return;
    }
    // Left uninitialised: most requests fill a few hundred bytes of it.
    const auto buffer = std::make_unique_for_overwrite<char[]>(readChunkBytes);
    while (true) {
      auto [ec, received] = co_await connection->stream->async_read_some(
          asio::buffer(buffer.get(), readChunkBytes), asio::as_tuple(asio::use_awaitable));
      if (connection->cancelled) co_return;
      // Every awaited call is made in a statement of its own: GCC 12 destroys temporaries that
      // are created inside a co_await expression twice.
      if (ec && ec != asio::error::eof) {
        HTTPResponse failure{HTTPStatus::internalServerError, std::string(reasonPhrase(500)),
                             HTTPResponse::plainTextHeaders(), ec.message()};
        auto replying = reply(connection, std::move(failure));
        co_await std::move(replying);
        co_return;
      }
      const auto status = reader.append({buffer.get(), received});
      if (status == HTTPRequestReader::Status::tooLarge) {
        auto replying =
            reply(connection, HTTPResponse::error(HTTPStatus::payloadTooLarge, "request_too_large",
                                                  "Request body is too large."));
        co_await std::move(replying);
        co_return;
      }
      if (status == HTTPRequestReader::Status::complete) {
        const bool readToTheEnd = !reader.hasBytesPastBody();
        auto handling = handle(self, connection, reader.take(), readToTheEnd);
        co_await std::move(handling);
        co_return;
      }
      if (ec == asio::error::eof) {
        auto replying =
            reply(connection, HTTPResponse::error(HTTPStatus::badRequest, "bad_request",
                                                  "Orin Link could not parse the request."));
        co_await std::move(replying);
        co_return;
      }
    }
  }

  static asio::awaitable<void> handle(std::shared_ptr<Core> self,
                                      std::shared_ptr<Connection> connection, HTTPRequest request,
                                      bool readToTheEnd,
                                      std::optional<HTTPImmediateAnswer> answer = std::nullopt) {
    self->connections.settle(connection->id);
    if (auto token = request.bearerToken();
        token && !self->connections.authenticate(connection->id, tokenHash(*token))) {
      // Not cancel(): a coroutine cancelled while it runs throws from Asio's own frame.
      connection->close();
      co_return;
    }
    if (!answer && self->immediateHandler) answer = self->immediateHandler(request);
    if (answer) {
      if (auto* bytes = std::get_if<std::string>(&*answer)) {
        auto writing = write(connection, std::move(*bytes));
        co_await std::move(writing);
        closeAfterReply(connection, readToTheEnd);
      } else {
        watch(self, connection);
        auto streaming =
            writeEventStream(connection, std::get<TextChunkStream>(std::move(*answer)));
        co_await std::move(streaming);
        closeAfterReply(connection, false);
      }
      co_return;
    }
    watch(self, connection);
    auto cancellation = std::make_shared<HandlerCancellation>();
    connection->handler = cancellation;
    std::optional<HTTPHandlerResult> result;
    try {
      auto call = runHandler(self->handler, std::move(request), cancellation);
      // Bound to a slot of its own: the connection's cancellation must not reach into the main
      // loop's co_spawn from this thread (see HandlerCancellation).
      auto onMain = asio::co_spawn(
          self->mainExecutor, std::move(call),
          asio::bind_cancellation_slot(cancellation->signal.slot(), asio::use_awaitable));
      result = co_await std::move(onMain);
    } catch (...) {
      if (connection->cancelled) co_return;
      const std::string text = describe(std::current_exception());
      result = HTTPHandlerResult::response(HTTPResponse{HTTPStatus::internalServerError,
                                                        std::string(reasonPhrase(500)),
                                                        HTTPResponse::plainTextHeaders(), text});
    }
    connection->handler.reset();
    if (connection->cancelled) co_return;
    if (auto* response = std::get_if<HTTPResponse>(&result->value)) {
      auto writing = write(connection, response->serialized());
      co_await std::move(writing);
    } else {
      auto streaming =
          writeEventStream(connection, std::get<TextChunkStream>(std::move(result->value)));
      co_await std::move(streaming);
    }
    // The watcher reads whatever the peer still sends, so the close cannot reset the reply.
    closeAfterReply(connection, false);
  }

  // Started once the caller waits, so whatever it starts first is not held up; the watcher's
  // first read finds nothing anyway.
  static void watch(const std::shared_ptr<Core>& self, std::shared_ptr<Connection> connection) {
    asio::post(self->serverExecutor, [connection = std::move(connection)] {
      asio::co_spawn(connection->stream->get_executor(), watchPeer(connection), asio::detached);
    });
  }

  // Runs on the main loop; marks the end there, where the cancellation is emitted.
  static asio::awaitable<HTTPHandlerResult> runHandler(Handler handler, HTTPRequest request,
                                                       std::shared_ptr<HandlerCancellation> state) {
    struct MarkFinished {
      HandlerCancellation& state;
      ~MarkFinished() { state.finished = true; }
    } mark{*state};
    auto call = handler(std::move(request));
    co_return co_await std::move(call);
  }

  // The one reader of a connection whose request is in hand: a reset ends the connection, which
  // cancels the handler or the stream feeding it. An end of input before the reply is only a
  // half-close (`nc -N`): that peer still waits for its reply, and one that has gone altogether
  // shows when a write fails. After the reply this reader lets the peer read everything before
  // the socket closes.
  static asio::awaitable<void> watchPeer(std::shared_ptr<Connection> connection) {
    std::array<char, 4096> sink{};
    while (!connection->cancelled) {
      auto [ec, n] = co_await connection->stream->async_read_some(
          asio::buffer(sink), asio::as_tuple(asio::use_awaitable));
      (void)n;
      if (ec == asio::error::eof && !connection->replied) {
        connection->peerFinished = true;
        co_return;
      }
      if (ec) break;
    }
    connection->cancel();
  }

  // A request read exactly to its end, or a peer that has finished sending, leaves nothing
  // unread, so the socket can close at once, as a close over unread input would reset the
  // connection under the reply; otherwise the peer gets a moment to read the reply while its
  // input is discarded.
  static void closeAfterReply(const std::shared_ptr<Connection>& connection, bool readToTheEnd) {
    if (connection->cancelled) return;
    if (readToTheEnd || connection->peerFinished) {
      connection->cancel();
      return;
    }
    connection->replied = true;
    transport::lingerClose(*connection->stream, connection->lingerTimer,
                           [weak = std::weak_ptr(connection)] {
                             if (auto c = weak.lock()) c->cancel();
                           });
  }

  // Coroutine parameters are values: a reference could outlive what it refers to. A peer that
  // cannot be written to gets no linger.
  static asio::awaitable<bool> write(std::shared_ptr<Connection> connection, std::string bytes) {
    auto [ec, written] = co_await asio::async_write(*connection->stream, asio::buffer(bytes),
                                                    asio::as_tuple(asio::use_awaitable));
    (void)written;
    if (ec) connection->close();
    co_return !ec && !connection->cancelled;
  }

  // A reply before the request was complete: the peer may still be sending, so its input is
  // drained for a moment; closing on unread input would reset the connection under the reply.
  static asio::awaitable<void> reply(std::shared_ptr<Connection> connection,
                                     HTTPResponse response) {
    auto writing = write(connection, response.serialized());
    const bool written = co_await std::move(writing);
    if (written) {
      auto lingering = linger(connection);
      co_await std::move(lingering);
    }
    connection->cancel();
  }

  static asio::awaitable<void> writeEventStream(std::shared_ptr<Connection> connection,
                                                TextChunkStream stream) {
    // Tokens leave one write at a time; none may wait for the previous one's acknowledgement.
    error_code ignored;
    connection->stream->lowest_layer().set_option(tcp::no_delay(true), ignored);
    auto writingHead = write(connection, std::string(eventStreamHead));
    const bool headWritten = co_await std::move(writingHead);
    if (!headWritten) co_return;
    while (true) {
      std::optional<std::string> chunk;
      std::exception_ptr failure;
      try {
        chunk = co_await stream.next(asio::use_awaitable);
      } catch (...) {
        failure = std::current_exception();
      }
      if (connection->cancelled) co_return;
      if (failure) {
        auto writing = write(connection, eventStreamError(describe(failure)));
        co_await std::move(writing);
        break;
      }
      if (!chunk) {
        auto writing = write(connection, eventStreamDone());
        co_await std::move(writing);
        break;
      }
      // Tokens that arrived while the last write was out leave together, in one system call.
      std::string events = eventStreamData(*chunk);
      while (auto more = stream.tryNext())
        events += eventStreamData(*more);
      auto writing = write(connection, std::move(events));
      const bool written = co_await std::move(writing);
      if (!written) break;
    }
  }

  // Only the socket is closed at the deadline: the coroutine that drains is the one to cancel.
  static asio::awaitable<void> linger(std::shared_ptr<Connection> connection) {
    transport::lingerClose(*connection->stream, connection->lingerTimer,
                           [weak = std::weak_ptr(connection)] {
                             if (auto c = weak.lock()) {
                               error_code ignored;
                               c->stream->close(ignored);
                             }
                           });
    if (!connection->stream->is_open()) co_return;
    auto draining = transport::drain(connection, *connection->stream, lingerMaxBytes);
    co_await std::move(draining);
    connection->lingerTimer.cancel();
  }

  void stopOnExecutor() {
    listener.close();
    registration.reset();
    connections.closeAll();
  }
};

LocalHTTPServer::LocalHTTPServer(Options options, asio::any_io_executor serverExecutor,
                                 asio::any_io_executor mainExecutor, Handler handler)
    : core_(std::make_shared<Core>(std::move(options), std::move(serverExecutor),
                                   std::move(mainExecutor), std::move(handler))) {}

LocalHTTPServer::~LocalHTTPServer() {
  stop();
}

void LocalHTTPServer::setStateChanged(StateChanged callback) {
  core_->stateChanged = std::move(callback);
}

void LocalHTTPServer::setImmediateHandler(ImmediateHandler handler) {
  core_->immediateHandler = std::move(handler);
}

void LocalHTTPServer::start() {
  if (core_->running) return;
  asio::post(core_->serverExecutor, [core = core_] {
    if (!core->listener.isOpen()) core->listen();
  });
}

void LocalHTTPServer::stop() {
  core_->running = false;
  asio::post(core_->serverExecutor, [core = core_] { core->stopOnExecutor(); });
}

void LocalHTTPServer::revoke(std::string tokenHash) {
  asio::post(core_->serverExecutor,
             [core = core_, hash = std::move(tokenHash)] { core->connections.revoke(hash); });
}

bool LocalHTTPServer::isRunning() const {
  return core_->running;
}

std::uint16_t LocalHTTPServer::port() const {
  return core_->port;
}

}  // namespace orin
