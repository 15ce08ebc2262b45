#include <atomic>
#include <functional>
#include <future>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <boost/asio/bind_cancellation_slot.hpp>
#include <boost/asio/cancellation_signal.hpp>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/detached.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/this_coro.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <boost/asio/use_future.hpp>
#include <boost/system/system_error.hpp>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "OrinLink/concurrency/AsyncStream.h"

namespace orin {
namespace {

namespace asio = boost::asio;
using IntStream = AsyncStream<int>;
using Termination = IntStream::Termination;

// Records every onTermination call, whichever thread makes it.
struct TerminationLog {
  std::atomic<int> calls{0};
  std::atomic<Termination> last{Termination::finished};
  std::promise<void> firstCall;

  std::function<void(Termination)> callback() {
    return [this](Termination why) {
      last = why;
      if (calls.fetch_add(1) == 0) firstCall.set_value();
    };
  }
};

struct Drained {
  std::vector<int> values;
  bool allOnConsumerThread = true;
};

// Reads to the end; a failed end propagates out of the coroutine.
asio::awaitable<Drained> drain(IntStream stream, std::thread::id consumerThread) {
  Drained out;
  while (auto value = co_await stream.next(asio::use_awaitable)) {
    out.values.push_back(*value);
    out.allOnConsumerThread &= std::this_thread::get_id() == consumerThread;
  }
  out.allOnConsumerThread &= std::this_thread::get_id() == consumerThread;
  co_return out;
}

// Runs the producer's io_context on a thread of its own and the consumer's on
// the caller's, until both run out of work.
class TwoLoops {
 public:
  asio::io_context producer;
  asio::io_context consumer;

  void run() {
    std::thread producerThread([this] { producer.run(); });
    consumer.run();
    producerThread.join();
  }
};

TEST(AsyncStream, DeliversInOrderAcrossThreadsThenEnds) {
  struct Case {
    const char* name;
    int count;
    std::optional<std::string> error;
  };
  const Case cases[] = {{"many", 10'000, std::nullopt},
                        {"empty", 0, std::nullopt},
                        {"fails after values", 3, "model went away: line 1\nline 2"},
                        {"fails at once", 0, "refused"}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    auto [stream, continuation] = IntStream::make();
    TerminationLog termination;
    continuation.onTermination(termination.callback());

    TwoLoops loops;
    auto drained = asio::co_spawn(
        loops.consumer, drain(std::move(stream), std::this_thread::get_id()), asio::use_future);
    asio::post(loops.producer, [&c, continuation = continuation] {
      for (int i = 0; i < c.count; ++i)
        EXPECT_TRUE(continuation.yield(i));
      if (c.error) {
        continuation.finish(std::make_exception_ptr(std::runtime_error(*c.error)));
      } else {
        continuation.finish();
      }
      EXPECT_FALSE(continuation.yield(-1));
    });
    loops.run();

    if (c.error) {
      EXPECT_THAT([&] { drained.get(); }, testing::ThrowsMessage<std::runtime_error>(*c.error));
    } else {
      const Drained got = drained.get();
      ASSERT_EQ(got.values.size(), static_cast<std::size_t>(c.count));
      for (int i = 0; i < c.count; ++i)
        ASSERT_EQ(got.values[static_cast<std::size_t>(i)], i);
      EXPECT_TRUE(got.allOnConsumerThread);
    }
    // The consumer dropping a finished stream is not a second termination.
    EXPECT_EQ(termination.calls, 1);
    EXPECT_EQ(termination.last, Termination::finished);
  }
}

// What is yielded before the consumer waits stays buffered; tryNext() takes it without waiting
// and leaves the end for next(), which alone can report it.
TEST(AsyncStream, BuffersValuesYieldedBeforeTheConsumerWaits) {
  auto [stream, continuation] = IntStream::make();
  EXPECT_EQ(stream.tryNext(), std::nullopt);
  constexpr int count = 20'000;
  for (int i = 0; i < count; ++i)
    ASSERT_TRUE(continuation.yield(i));
  continuation.finish();
  EXPECT_EQ(stream.tryNext(), 0);
  EXPECT_EQ(stream.tryNext(), 1);

  asio::io_context consumer;
  auto drained = asio::co_spawn(consumer, drain(std::move(stream), std::this_thread::get_id()),
                                asio::use_future);
  consumer.run();
  const Drained got = drained.get();
  ASSERT_EQ(got.values.size(), static_cast<std::size_t>(count - 2));
  EXPECT_EQ(got.values.front(), 2);
  EXPECT_EQ(got.values.back(), count - 1);
}

// A consumer waiting on the producer's own loop takes each value before yield()
// returns, so a relay forwards a token without a trip through its loop's queue.
TEST(AsyncStream, ConsumerOnTheProducersLoopTakesEachValueAtOnce) {
  asio::io_context loop;
  auto made = IntStream::make();
  std::vector<int> seen;
  asio::co_spawn(
      loop,
      [&seen, stream = std::move(made.first)]() mutable -> asio::awaitable<void> {
        while (auto value = co_await stream.next(asio::use_awaitable))
          seen.push_back(*value);
      },
      asio::detached);
  std::vector<std::size_t> seenAfterYield;
  asio::post(loop, [&] {
    for (int i = 0; i < 3; ++i) {
      made.second.yield(i);
      seenAfterYield.push_back(seen.size());
    }
    made.second.finish();
  });
  loop.run();
  EXPECT_EQ(seen, (std::vector<int>{0, 1, 2}));
  EXPECT_EQ(seenAfterYield, (std::vector<std::size_t>{1, 2, 3}));
}

// How a consumer leaves a stream whose producer is still open.
enum class Departure { cancelWait, destroyStream };

// Takes `take` values, then leaves as told; reports the code of a cancelled
// wait.
asio::awaitable<boost::system::error_code> consumeThenLeave(IntStream stream, int take,
                                                            Departure departure) {
  for (int i = 0; i < take; ++i) {
    const auto value = co_await stream.next(asio::use_awaitable);
    if (value != i) throw std::logic_error("unexpected value");
  }
  if (departure == Departure::destroyStream) co_return boost::system::error_code{};

  asio::cancellation_signal signal;
  // Posted from here so that it runs only after the wait below has started, on
  // this executor.
  asio::post(co_await asio::this_coro::executor,
             [&signal] { signal.emit(asio::cancellation_type::terminal); });
  try {
    co_await stream.next(asio::bind_cancellation_slot(signal.slot(), asio::use_awaitable));
  } catch (const boost::system::system_error& e) {
    co_return e.code();
  }
  throw std::logic_error("the wait was not cancelled");
}

TEST(AsyncStream, ALeavingConsumerTellsTheProducerOnce) {
  const std::pair<Departure, boost::system::error_code> cases[] = {
      {Departure::cancelWait, asio::error::operation_aborted}, {Departure::destroyStream, {}}};
  for (const auto& [departure, expectedCode] : cases) {
    SCOPED_TRACE(static_cast<int>(departure));
    auto [stream, continuation] = IntStream::make();
    TerminationLog termination;
    continuation.onTermination(termination.callback());
    constexpr int sent = 100;

    TwoLoops loops;
    auto left = asio::co_spawn(loops.consumer, consumeThenLeave(std::move(stream), sent, departure),
                               asio::use_future);
    std::promise<bool> yieldAfterLeaving;
    asio::post(loops.producer, [&, continuation = continuation] {
      for (int i = 0; i < sent; ++i)
        continuation.yield(i);
      termination.firstCall.get_future().wait();
      yieldAfterLeaving.set_value(continuation.yield(sent));
      continuation.finish();
    });
    loops.run();

    EXPECT_EQ(left.get(), expectedCode);
    EXPECT_FALSE(yieldAfterLeaving.get_future().get());
    EXPECT_TRUE(continuation.isTerminated());
    EXPECT_EQ(termination.calls, 1);
    EXPECT_EQ(termination.last, Termination::cancelled);
  }
}

TEST(AsyncStream, OnTerminationRegisteredAfterTheEndFiresAtOnce) {
  struct Case {
    const char* name;
    std::function<void(std::optional<IntStream>&, const IntStream::Continuation&)> end;
    Termination expected;
  };
  const Case cases[] = {
      {"finished", [](auto&, const auto& c) { c.finish(); }, Termination::finished},
      {"failed",
       [](auto&, const auto& c) { c.finish(std::make_exception_ptr(std::runtime_error("x"))); },
       Termination::finished},
      {"cancelled", [](auto& s, const auto&) { s->cancel(); }, Termination::cancelled},
      {"stream destroyed", [](auto& s, const auto&) { s.reset(); }, Termination::cancelled},
      {"finished, then stream destroyed",
       [](auto& s, const auto& c) {
         c.finish();
         s.reset();
       },
       Termination::finished},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    auto [stream, continuation] = IntStream::make();
    std::optional<IntStream> consumer(std::move(stream));
    c.end(consumer, continuation);

    std::vector<Termination> calls;
    continuation.onTermination([&](Termination why) { calls.push_back(why); });
    EXPECT_EQ(calls, std::vector<Termination>{c.expected});
    continuation.finish();
    consumer.reset();
    EXPECT_EQ(calls.size(), 1u);
  }
}

}  // namespace
}  // namespace orin
