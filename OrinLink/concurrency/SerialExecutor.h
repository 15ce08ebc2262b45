#pragma once

#include <initializer_list>
#include <optional>
#include <string>
#include <thread>

#include <boost/asio/any_io_executor.hpp>
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>

namespace orin {

// An io_context whose queued handlers can be discarded on demand.
//
// Loops that post to one another cannot simply be destroyed one after the other: discarding one
// loop's handlers (coroutine frames among them) can post into, or release work held on, another
// loop, which must still exist. shutDownLoops() handles that for a set of loops.
class EventLoop : public boost::asio::io_context {
 public:
  EventLoop() : boost::asio::io_context(1) {}
  // Destroys every handler still queued; the loop itself stays valid.
  void dropPendingWork() { shutdown(); }
};

// An EventLoop run by one named thread: work posted here runs one piece at a time, in order.
// It is owned by the application and outlives the servers that use it, so tearing a server down
// never has to join a thread that may be waiting on the main loop.
class SerialExecutor {
 public:
  explicit SerialExecutor(std::string name);
  ~SerialExecutor();
  SerialExecutor(const SerialExecutor&) = delete;
  SerialExecutor& operator=(const SerialExecutor&) = delete;

  boost::asio::any_io_executor executor() { return loop_.get_executor(); }
  EventLoop& loop() { return loop_; }
  bool runningInThisThread() const { return std::this_thread::get_id() == thread_.get_id(); }

  // Stops the loop and joins its thread; queued work stays queued.
  void stop();
  // Lets the loop run until it has nothing left to do, then joins its thread.
  void finish();

 private:
  EventLoop loop_;
  std::optional<boost::asio::executor_work_guard<boost::asio::io_context::executor_type>> work_;
  std::thread thread_;
};

// Stops every loop (joining the threads of those that have one), then discards their queued
// handlers in rounds while all of them still exist. Call before destroying any of them.
void shutDownLoops(std::initializer_list<EventLoop*> loops,
                   std::initializer_list<SerialExecutor*> threads = {});

}  // namespace orin
