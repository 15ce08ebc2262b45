#include <atomic>
#include <future>
#include <mutex>
#include <poll.h>
#include <string>
#include <vector>

#include <boost/asio/as_tuple.hpp>
#include <boost/asio/connect.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/read.hpp>
#include <boost/asio/read_until.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/this_coro.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <boost/asio/write.hpp>
#include <gtest/gtest.h>

#include "OrinLink/concurrency/SerialExecutor.h"
#include "OrinLink/http/HTTPParser.h"
#include "OrinLink/pairing/TokenHash.h"
#include "OrinLink/server/LocalHTTPServer.h"

#include "tests/support/Eventually.h"

namespace orin {
namespace {

namespace asio = boost::asio;
using namespace std::string_view_literals;
using asio::ip::tcp;

// A server on loopback port 0 with a handler the test chooses, and a blocking
// client.
class LocalHTTPServerTest : public testing::Test {
 protected:
  using Respond = std::function<HTTPHandlerResult(const HTTPRequest&)>;

  void startServer(Respond respond, LocalHTTPServer::ImmediateHandler immediate = {}) {
    respond_ = std::move(respond);
    startServerWith(
        [this](HTTPRequest request) -> asio::awaitable<HTTPHandlerResult> {
          co_return respond_(request);
        },
        std::move(immediate));
  }

  void startServerWith(LocalHTTPServer::Handler handler,
                       LocalHTTPServer::ImmediateHandler immediate = {}) {
    LocalHTTPServer::Options options;
    options.bindAddress = asio::ip::address_v4::loopback();
    options.maxConnections = maxConnections_;
    options.openStream = openStream_;
    server_ = std::make_unique<LocalHTTPServer>(options, serverLoop_.executor(),
                                                mainLoop_.executor(), std::move(handler));
    if (immediate) server_->setImmediateHandler(std::move(immediate));
    std::promise<std::pair<bool, std::string>> ready;
    server_->setStateChanged([&ready](bool running, std::uint16_t, std::optional<std::string> m) {
      ready.set_value({running, m.value_or("")});
    });
    server_->start();
    state_ = ready.get_future().get();
  }

  tcp::socket connect() {
    tcp::socket socket(client_);
    socket.connect({asio::ip::address_v4::loopback(), server_->port()});
    return socket;
  }

  // Sends the request in pieces of `piece` bytes, optionally half-closes, reads
  // to the end.
  std::string exchange(std::string_view request, bool halfClose = false,
                       std::size_t piece = std::string::npos) {
    tcp::socket socket = connect();
    for (std::size_t at = 0; at < request.size(); at += piece) {
      asio::write(socket, asio::buffer(request.substr(at, piece)));
    }
    if (halfClose) socket.shutdown(tcp::socket::shutdown_send);
    return readAll(socket);
  }

  // Sends `bytes`, then resets the connection instead of closing it.
  void sendThenReset(std::string_view bytes) {
    tcp::socket socket = connect();
    asio::write(socket, asio::buffer(bytes));
    socket.set_option(asio::socket_base::linger(true, 0));
    socket.close();
  }

  static std::string readAll(tcp::socket& socket) {
    std::string reply;
    boost::system::error_code ec;
    asio::read(socket, asio::dynamic_buffer(reply), ec);
    return reply;
  }

  static HTTPHandlerResult echo(const HTTPRequest& request) {
    return HTTPHandlerResult::response(
        {200, "OK", {}, request.method + " " + request.path + " " + request.body});
  }

  ~LocalHTTPServerTest() override {
    server_.reset();
    shutDownLoops({}, {&mainLoop_, &serverLoop_});
  }

  SerialExecutor mainLoop_{"test.main"};
  SerialExecutor serverLoop_{"test.http"};
  asio::io_context client_;
  Respond respond_;
  std::size_t maxConnections_ = transport::ConnectionTracker::defaultCap;
  decltype(LocalHTTPServer::Options::openStream) openStream_;
  std::unique_ptr<LocalHTTPServer> server_;
  std::pair<bool, std::string> state_;
};

constexpr timeval patience{10, 0};

std::string statusLine(const std::string& reply) {
  return reply.substr(0, reply.find("\r\n"));
}

std::string bodyOf(const std::string& reply) {
  const auto at = reply.find("\r\n\r\n");
  return at == std::string::npos ? "" : reply.substr(at + 4);
}

TEST_F(LocalHTTPServerTest, AnswersOrRefusesEachRequestShape) {
  startServer(echo);
  ASSERT_TRUE(state_.first);
  const std::string head = "POST /x HTTP/1.1\r\nContent-Length: 1999955\r\n\r\n";
  const std::string largest = head + std::string(2'000'000 - head.size(), 'a');
  ASSERT_EQ(largest.size(), 2'000'000u);
  struct Case {
    std::string name;
    std::string request;
    bool halfClose;
    std::size_t piece;
    std::string status;
    std::string body;
  };
  const Case cases[] = {
      {"whole", "GET /health HTTP/1.1\r\n\r\n", false, std::string::npos, "HTTP/1.1 200 OK",
       "GET /health "},
      {"byte by byte", "POST /p HTTP/1.1\r\nContent-Length: 3\r\n\r\nabc", false, 1,
       "HTTP/1.1 200 OK", "POST /p abc"},
      {"whole then half-close", "GET /status HTTP/1.1\r\n\r\n", true, std::string::npos,
       "HTTP/1.1 200 OK", "GET /status "},
      {"garbage then half-close", "nonsense", true, std::string::npos, "HTTP/1.1 400 Bad Request",
       R"({"error":{"code":"bad_request","message":"Orin Link could not parse the request."}})"},
      {"body cut short", "POST /p HTTP/1.1\r\nContent-Length: 9\r\n\r\nabc", true,
       std::string::npos, "HTTP/1.1 400 Bad Request",
       R"({"error":{"code":"bad_request","message":"Orin Link could not parse the request."}})"},
      {"exactly the limit", largest, false, 1 << 20, "HTTP/1.1 200 OK",
       "POST /x " + largest.substr(largest.find("\r\n\r\n") + 4)},
      {"one byte over", largest + "b", false, 1 << 20, "HTTP/1.1 413 Payload Too Large",
       R"({"error":{"code":"request_too_large","message":"Request body is too large."}})"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const std::string reply = exchange(c.request, c.halfClose, c.piece);
    EXPECT_EQ(statusLine(reply), c.status);
    EXPECT_EQ(bodyOf(reply), c.body);
  }
}

TEST_F(LocalHTTPServerTest, WritesEventStreamsChunkByChunk) {
  struct Case {
    std::string name;
    std::optional<std::string> failure;
    std::string ending;
  };
  const Case cases[] = {
      {"normal end", std::nullopt, "event: done\ndata: {}\n\n"},
      {"failed end", "Ollama went\naway", "event: error\ndata: Ollama went away\n\n"},
  };
  for (const auto& c : cases) {
    for (const bool halfClose : {false, true}) {
      SCOPED_TRACE(c.name + (halfClose ? ", half-closed" : ""));
      startServer([&c](const HTTPRequest&) {
        auto [stream, continuation] = TextChunkStream::make();
        for (const char* chunk : {"a", "b\nc", "d\r\n"})
          continuation.yield(chunk);
        if (c.failure) {
          continuation.finish(std::make_exception_ptr(Error(*c.failure)));
        } else {
          continuation.finish();
        }
        return HTTPHandlerResult::eventStream(std::move(stream));
      });
      const std::string reply = exchange("POST /s HTTP/1.1\r\n\r\n", halfClose);
      EXPECT_EQ(reply, std::string(eventStreamHead) + "data: a\n\ndata: b\\nc\n\ndata: d\\n\n\n" +
                           c.ending);
    }
  }
}

// Revoking a token cuts off its stream in flight, and the producer learns of
// it.
TEST_F(LocalHTTPServerTest, RevokingCancelsAStreamInFlight) {
  std::promise<TextChunkStream::Termination> ended;
  startServer([&](const HTTPRequest&) {
    auto [stream, continuation] = TextChunkStream::make();
    continuation.onTermination([&ended](auto why) { ended.set_value(why); });
    continuation.yield("first");
    return HTTPHandlerResult::eventStream(std::move(stream));
  });
  tcp::socket socket = connect();
  asio::write(socket, asio::buffer("GET /s HTTP/1.1\r\nAuthorization: Bearer t\r\n\r\n"sv));
  std::string head(eventStreamHead.size() + std::string_view("data: first\n\n").size(), '\0');
  asio::read(socket, asio::buffer(head));
  server_->revoke(tokenHash("t"));
  EXPECT_EQ(readAll(socket), "");
  EXPECT_EQ(ended.get_future().get(), TextChunkStream::Termination::cancelled);
}

// Requests the immediate handler takes never reach the main loop; the others
// still do, and a request followed by more bytes still gets its whole reply
// before the close.
TEST_F(LocalHTTPServerTest, ImmediateAnswersSkipTheMainLoop) {
  std::atomic<int> mainCalls = 0;
  startServer(
      [&](const HTTPRequest& request) {
        ++mainCalls;
        return echo(request);
      },
      [](const HTTPRequest& request) -> std::optional<std::string> {
        if (request.path != "/fast") return std::nullopt;
        return HTTPResponse{200, "OK", {}, "fast"}.serialized();
      });
  struct Case {
    std::string_view request;
    std::string_view body;
    int mainCallsAfter;
  };
  const Case cases[] = {
      {"GET /fast HTTP/1.1\r\n\r\n", "fast", 0},
      {"GET /fast HTTP/1.1\r\n\r\nGET /fast HTTP/1.1\r\n\r\n", "fast", 0},
      {"GET /slow HTTP/1.1\r\n\r\n", "GET /slow ", 1},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.request);
    EXPECT_EQ(bodyOf(exchange(c.request)), c.body);
    EXPECT_EQ(mainCalls, c.mainCallsAfter);
  }
}

// A client that leaves while its request is handled on the main loop cancels the handler there,
// however the two threads interleave, and whether the handler has finished or not. A reset
// before the request is complete is a read error whose reply has nowhere to go. Either way the
// next client is served as if nothing happened.
TEST_F(LocalHTTPServerTest, PeersThatLeaveOrResetHarmNoOneElse) {
  auto cancelled = std::make_shared<std::promise<void>>();
  startServerWith([&](HTTPRequest request) -> asio::awaitable<HTTPHandlerResult> {
    if (request.path == "/wait") {
      asio::steady_timer forever(co_await asio::this_coro::executor, std::chrono::hours(1));
      auto [ec] = co_await forever.async_wait(asio::as_tuple(asio::use_awaitable));
      if (ec == asio::error::operation_aborted) cancelled->set_value();
    }
    co_return echo(request);
  });
  for (int round = 0; round < 200; ++round) {
    for (const std::string_view sent :
         {"GET /quick HTTP/1.1\r\n\r\n"sv, ""sv, "GET /hea"sv, "nonsense\r\n"sv})
      sendThenReset(sent);
  }
  sendThenReset("GET /wait HTTP/1.1\r\n\r\n");
  EXPECT_EQ(cancelled->get_future().wait_for(std::chrono::seconds(10)), std::future_status::ready);
  EXPECT_EQ(statusLine(exchange("GET /health HTTP/1.1\r\n\r\n")), "HTTP/1.1 200 OK");
}

// There is no read time-out: idle and slow peers beyond the cap push out the
// oldest of them, so a real request is still served.
TEST_F(LocalHTTPServerTest, FloodsOfIdlePeersGiveWayToRealRequests) {
  maxConnections_ = 8;
  startServer(echo);
  std::vector<tcp::socket> idle;
  for (int i = 0; i < 40; ++i) {
    idle.push_back(connect());
    if (i % 2 == 1) asio::write(idle.back(), asio::buffer("GET /slow"sv));
  }
  EXPECT_EQ(statusLine(exchange("GET /status HTTP/1.1\r\n\r\n")), "HTTP/1.1 200 OK");
  for (auto* oldest : {&idle[0], &idle[1]}) {
    pollfd closed{oldest->native_handle(), POLLIN, 0};
    ASSERT_EQ(::poll(&closed, 1, 10'000), 1);
    EXPECT_EQ(readAll(*oldest), "");
  }
  // Stopping closes those still open.
  server_->stop();
  pollfd newest{idle.back().native_handle(), POLLIN, 0};
  ASSERT_EQ(::poll(&newest, 1, 10'000), 1);
  EXPECT_EQ(readAll(idle.back()), "");
}

enum class Operation { read, write, close };

// A connection's socket that fails its Nth operation of one kind as a reset
// peer would.
class FaultyStream : public transport::SocketStream {
 public:
  struct Plan {
    std::atomic<Operation> operation = Operation::read;
    std::atomic<int> n = 0;
    std::atomic<bool> hit = false;
    std::atomic<int> live = 0;
  };

  FaultyStream(tcp::socket socket, Plan& plan) : SocketStream(std::move(socket)), plan_(plan) {
    ++plan_.live;
  }
  ~FaultyStream() override { --plan_.live; }

  void shutdown(asio::socket_base::shutdown_type what, boost::system::error_code& ec) override {
    SocketStream::shutdown(what, ec);
    if (due(Operation::close)) ec = asio::error::connection_reset;
  }
  void close(boost::system::error_code& ec) override {
    SocketStream::close(ec);
    if (due(Operation::close)) ec = asio::error::connection_reset;
  }

 protected:
  void readSome(asio::mutable_buffer buffer, Handler handler) override {
    if (due(Operation::read)) return fail(std::move(handler));
    SocketStream::readSome(buffer, std::move(handler));
  }
  void writeSome(asio::const_buffer buffer, Handler handler) override {
    if (due(Operation::write)) return fail(std::move(handler));
    SocketStream::writeSome(buffer, std::move(handler));
  }

 private:
  bool due(Operation operation) {
    if (operation != plan_.operation || ++count_ != plan_.n) return false;
    plan_.hit = true;
    return true;
  }
  void fail(Handler handler) {
    asio::post(get_executor(), [handler = std::move(handler)]() mutable {
      std::move(handler)(asio::error::connection_reset, 0);
    });
  }

  Plan& plan_;
  int count_ = 0;
};

// Whichever read, write or close fails, the connection ends without a hang or a
// leak, and a stream that had not ended is cancelled at its source.
TEST_F(LocalHTTPServerTest, EveryFailingOperationEndsTheConnectionCleanly) {
  FaultyStream::Plan plan;
  openStream_ = [&plan](tcp::socket socket) -> std::unique_ptr<transport::ByteStream> {
    return std::make_unique<FaultyStream>(std::move(socket), plan);
  };
  std::mutex mutex;
  std::vector<TextChunkStream::Continuation> producers;
  std::vector<TextChunkStream::Termination> endings;
  startServer([&](const HTTPRequest&) {
    auto [stream, continuation] = TextChunkStream::make();
    continuation.onTermination([&](auto why) {
      std::lock_guard lock(mutex);
      endings.push_back(why);
    });
    continuation.yield("a");
    std::lock_guard lock(mutex);
    producers.push_back(continuation);
    return HTTPHandlerResult::eventStream(std::move(stream));
  });
  for (const Operation operation : {Operation::read, Operation::write, Operation::close}) {
    plan.operation = operation;
    plan.hit = true;
    for (int n = 1; plan.hit; ++n) {
      SCOPED_TRACE(std::to_string(static_cast<int>(operation)) + " #" + std::to_string(n));
      plan.n = n;
      plan.hit = false;
      const std::size_t earlier = producers.size();
      tcp::socket socket = connect();
      ::setsockopt(socket.native_handle(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
      asio::write(socket, asio::buffer("GET /s HTTP/1.1\r\n\r\n"sv));
      std::string reply;
      boost::system::error_code ec;
      asio::read_until(socket, asio::dynamic_buffer(reply), "data: a\n\n", ec);
      const bool streaming = !ec;
      if (streaming) {
        std::unique_lock lock(mutex);
        const auto producer = producers.back();
        lock.unlock();
        producer.finish();
      }
      asio::read(socket, asio::dynamic_buffer(reply), ec);
      EXPECT_TRUE(ec == asio::error::eof || ec == asio::error::connection_reset) << ec.message();
      socket.close();
      EXPECT_TRUE(testing_support::eventually([&] {
        std::lock_guard lock(mutex);
        return plan.live == 0 && endings.size() == producers.size();
      }));
      std::lock_guard lock(mutex);
      for (std::size_t i = earlier; !streaming && i < endings.size(); ++i)
        EXPECT_EQ(endings[i], TextChunkStream::Termination::cancelled);
    }
  }
}

}  // namespace
}  // namespace orin
