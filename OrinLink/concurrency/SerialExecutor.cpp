#include "OrinLink/concurrency/SerialExecutor.h"

#include <pthread.h>

namespace orin {

SerialExecutor::SerialExecutor(std::string name)
    : work_(boost::asio::make_work_guard(loop_)), thread_([this, name = std::move(name)] {
        // Linux limits thread names to 15 bytes.
        pthread_setname_np(pthread_self(), name.substr(0, 15).c_str());
        loop_.run();
      }) {}

SerialExecutor::~SerialExecutor() {
  stop();
  loop_.dropPendingWork();
}

void SerialExecutor::stop() {
  work_.reset();
  loop_.stop();
  if (thread_.joinable()) thread_.join();
}

void SerialExecutor::finish() {
  work_.reset();
  if (thread_.joinable()) thread_.join();
}

void shutDownLoops(std::initializer_list<EventLoop*> loops,
                   std::initializer_list<SerialExecutor*> threads) {
  for (SerialExecutor* thread : threads)
    thread->stop();
  for (EventLoop* loop : loops)
    loop->stop();
  // Each round can queue work into the others; chains are short, three rounds end them.
  for (int round = 0; round < 3; ++round) {
    for (SerialExecutor* thread : threads)
      thread->loop().dropPendingWork();
    for (EventLoop* loop : loops)
      loop->dropPendingWork();
  }
}

}  // namespace orin
