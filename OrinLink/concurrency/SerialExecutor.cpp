#include "OrinLink/concurrency/SerialExecutor.h"

#include <pthread.h>

namespace orin {

SerialExecutor::SerialExecutor(std::string name)
    : work_(boost::asio::make_work_guard(context_)), thread_([this, name = std::move(name)] {
        // Linux limits thread names to 15 bytes.
        pthread_setname_np(pthread_self(), name.substr(0, 15).c_str());
        context_.run();
      }) {}

SerialExecutor::~SerialExecutor() {
  work_.reset();
  context_.stop();
  thread_.join();
}

}  // namespace orin
