#pragma once

#include <deque>
#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <system_error>
#include <utility>

#include <boost/asio/any_completion_handler.hpp>
#include <boost/asio/any_io_executor.hpp>
#include <boost/asio/associated_cancellation_slot.hpp>
#include <boost/asio/associated_executor.hpp>
#include <boost/asio/async_result.hpp>
#include <boost/asio/dispatch.hpp>
#include <boost/asio/error.hpp>
#include <boost/asio/post.hpp>
#include <boost/system/system_error.hpp>

#include "OrinLinkShared/Assert.h"

namespace orin {

// A sequence of values handed from a producer on one executor to a consumer on another, with
// unbounded buffering (a producer never waits) and an end that is either normal or an error.
// Unlike a channel it tells the producer when the consumer has gone away, so that work feeding a
// vanished client can be cancelled at its source.
template <class T>
class AsyncStream {
  struct State;

 public:
  enum class Termination { finished, cancelled };
  using Signature = void(std::exception_ptr, std::optional<T>);

  class Continuation;

  static std::pair<AsyncStream, Continuation> make() {
    auto state = std::make_shared<State>();
    return {AsyncStream(state), Continuation(state)};
  }

  AsyncStream(AsyncStream&&) noexcept = default;
  AsyncStream& operator=(AsyncStream&& other) noexcept {
    if (this != &other) {
      cancel();
      state_ = std::move(other.state_);
    }
    return *this;
  }
  AsyncStream(const AsyncStream&) = delete;
  AsyncStream& operator=(const AsyncStream&) = delete;
  // A consumer that goes away ends the stream for the producer.
  ~AsyncStream() { cancel(); }

  // The next value; nothing at the normal end; the producer's error at a failed end. Completes
  // on the caller's executor. Cancelling the wait cancels the stream. One wait at a time.
  template <class CompletionToken>
  auto next(CompletionToken&& token) {
    return boost::asio::async_initiate<CompletionToken, Signature>(
        [state = state_](auto handler) {
          // Taken before type erasure: the erased handler's executor cannot be posted to.
          boost::asio::any_io_executor executor = boost::asio::get_associated_executor(handler);
          state->wait(state, std::move(handler), std::move(executor));
        },
        token);
  }

  // A value already buffered, without waiting; nothing when none is (the end included). Lets a
  // consumer take a burst in one go after next() completed.
  std::optional<T> tryNext() {
    if (!state_) return std::nullopt;
    std::lock_guard lock(state_->mutex);
    if (state_->waiter || state_->buffer.empty()) return std::nullopt;
    std::optional<T> value(std::move(state_->buffer.front()));
    state_->buffer.pop_front();
    return value;
  }

  void cancel() {
    if (state_) state_->cancel();
  }

  class Continuation {
   public:
    // False once the stream has ended or the consumer is gone; the value is then dropped.
    bool yield(T value) const { return state_->yield(std::move(value)); }
    void finish() const { state_->finish(nullptr); }
    void finish(std::exception_ptr error) const { state_->finish(std::move(error)); }
    bool isTerminated() const { return state_->isTerminated(); }
    // Called once, when the producer finishes or the consumer goes away, whichever is first.
    // May run on either side's thread.
    void onTermination(std::function<void(Termination)> callback) const {
      state_->setOnTermination(std::move(callback));
    }

   private:
    friend class AsyncStream;
    explicit Continuation(std::shared_ptr<State> state) : state_(std::move(state)) {}
    std::shared_ptr<State> state_;
  };

 private:
  using Handler = boost::asio::any_completion_handler<Signature>;

  struct State {
    enum class Phase { open, finished, cancelled };

    std::mutex mutex;
    std::deque<T> buffer;
    Phase phase = Phase::open;
    std::exception_ptr failure;
    // Empty while nobody waits.
    Handler waiter;
    boost::asio::any_io_executor waiterExecutor;
    bool deliveryScheduled = false;
    std::function<void(Termination)> onTermination;
    // How the stream first ended; a consumer dropping a finished stream does not change it.
    std::optional<Termination> ending;
    bool terminationReported = false;

    static std::exception_ptr cancelledError() {
      return std::make_exception_ptr(
          boost::system::system_error(boost::asio::error::operation_aborted));
    }

    void wait(const std::shared_ptr<State>& state, Handler handler,
              boost::asio::any_io_executor executor) {
      std::unique_lock lock(mutex);
      ORIN_ASSERT(!waiter, "AsyncStream::next called while another wait is pending");
      if (!buffer.empty() || phase != Phase::open) {
        auto [error, value] = takeNextLocked();
        lock.unlock();
        // Init-captures, because clang 14 cannot capture a structured binding.
        boost::asio::post(executor,
                          [h = std::move(handler), e = std::move(error),
                           v = std::move(value)]() mutable { std::move(h)(e, std::move(v)); });
        return;
      }
      auto slot = boost::asio::get_associated_cancellation_slot(handler);
      if (slot.is_connected()) {
        // Emitted on the consumer's executor, where the slot lives.
        slot.assign([weak = std::weak_ptr<State>(state)](boost::asio::cancellation_type) {
          if (auto alive = weak.lock()) alive->cancel();
        });
      }
      // Boost 1.81's move assignment of a handler recurses; construct and swap instead.
      Handler(std::move(handler)).swap(waiter);
      waiterExecutor = executor;
    }

    std::pair<std::exception_ptr, std::optional<T>> takeNextLocked() {
      if (!buffer.empty()) {
        std::optional<T> value(std::move(buffer.front()));
        buffer.pop_front();
        return {nullptr, std::move(value)};
      }
      if (phase == Phase::cancelled) return {cancelledError(), std::nullopt};
      return {failure, std::nullopt};
    }

    // Claims the delivery of the next outcome to the waiting consumer; nothing when no one waits
    // or a delivery is already on its way. Performed by deliver(), outside the lock.
    std::optional<boost::asio::any_io_executor> claimDeliveryLocked() {
      if (!waiter || deliveryScheduled) return std::nullopt;
      deliveryScheduled = true;
      return waiterExecutor;
    }

    // Dispatched rather than posted: a consumer on the producer's own thread takes the value at
    // once, without a trip through its loop's queue. The slot is cleared on the consumer's
    // executor, because cancellation slots are not safe to touch from another thread.
    void deliver(std::optional<boost::asio::any_io_executor> executor) {
      if (!executor) return;
      boost::asio::dispatch(*executor, [self = weakSelf.lock()] {
        std::unique_lock lock(self->mutex);
        self->deliveryScheduled = false;
        if (!self->waiter) return;
        Handler handler = std::move(self->waiter);
        auto [error, value] = self->takeNextLocked();
        lock.unlock();
        boost::asio::get_associated_cancellation_slot(handler).clear();
        std::move(handler)(error, std::move(value));
      });
    }

    bool yield(T value) {
      std::unique_lock lock(mutex);
      if (phase != Phase::open) return false;
      buffer.push_back(std::move(value));
      auto delivery = claimDeliveryLocked();
      lock.unlock();
      deliver(std::move(delivery));
      return true;
    }

    void finish(std::exception_ptr error) {
      std::unique_lock lock(mutex);
      if (phase != Phase::open) return;
      phase = Phase::finished;
      ending = Termination::finished;
      failure = std::move(error);
      auto delivery = claimDeliveryLocked();
      auto callback = takeTerminationLocked();
      lock.unlock();
      deliver(std::move(delivery));
      if (callback) callback(Termination::finished);
    }

    void cancel() {
      std::unique_lock lock(mutex);
      if (phase == Phase::cancelled) return;
      const bool endedEarly = phase == Phase::open;
      if (endedEarly) ending = Termination::cancelled;
      phase = Phase::cancelled;
      buffer.clear();
      Handler pending = std::move(waiter);
      boost::asio::any_io_executor pendingExecutor = waiterExecutor;
      auto callback = endedEarly ? takeTerminationLocked() : nullptr;
      lock.unlock();
      if (pending) {
        // Never completed inline: this may run inside the slot's own handler.
        boost::asio::post(pendingExecutor, [h = std::move(pending)]() mutable {
          std::move(h)(cancelledError(), std::nullopt);
        });
      }
      if (callback) callback(Termination::cancelled);
    }

    bool isTerminated() {
      std::lock_guard lock(mutex);
      return phase != Phase::open;
    }

    void setOnTermination(std::function<void(Termination)> callback) {
      std::unique_lock lock(mutex);
      if (ending) {
        const bool fire = !terminationReported && callback;
        terminationReported = terminationReported || fire;
        const Termination why = *ending;
        lock.unlock();
        if (fire) callback(why);
        return;
      }
      onTermination = std::move(callback);
    }

    std::function<void(Termination)> takeTerminationLocked() {
      // With no callback yet, one registered later must still hear of the end.
      if (terminationReported || !onTermination) return nullptr;
      terminationReported = true;
      return std::exchange(onTermination, nullptr);
    }

    // Set once by make(); lets a posted delivery keep the state alive.
    std::weak_ptr<State> weakSelf;
  };

  explicit AsyncStream(std::shared_ptr<State> state) : state_(std::move(state)) {
    state_->weakSelf = state_;
  }

  std::shared_ptr<State> state_;
};

}  // namespace orin
