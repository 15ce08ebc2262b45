#pragma once

#include <optional>
#include <string>
#include <thread>

#include <boost/asio/any_io_executor.hpp>
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>

namespace orin {

// An io_context run by one named thread: work posted here runs one piece at a time, in order.
// It is owned by the application and outlives the servers that use it, so tearing a server down
// never has to join a thread that may be waiting on the main loop.
class SerialExecutor {
 public:
  explicit SerialExecutor(std::string name);
  ~SerialExecutor();
  SerialExecutor(const SerialExecutor&) = delete;
  SerialExecutor& operator=(const SerialExecutor&) = delete;

  boost::asio::any_io_executor executor() { return context_.get_executor(); }
  bool runningInThisThread() const { return std::this_thread::get_id() == thread_.get_id(); }

 private:
  boost::asio::io_context context_{1};
  std::optional<boost::asio::executor_work_guard<boost::asio::io_context::executor_type>> work_;
  std::thread thread_;
};

}  // namespace orin
