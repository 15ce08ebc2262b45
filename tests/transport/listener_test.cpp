#include "OrinLink/transport/Listener.h"

#include <cerrno>
#include <cstdlib>
#include <sys/resource.h>
#include <unistd.h>
#include <vector>

#include <boost/asio/io_context.hpp>
#include <gtest/gtest.h>

namespace orin::transport {
namespace {

namespace asio = boost::asio;
using asio::ip::tcp;
using boost::system::error_code;

TEST(ListenerTest, FallsBackToIPv4OnlyWhenIPv6IsMissing) {
  struct Case {
    int error;
    bool fallBack;
  };
  const Case cases[] = {
      {EAFNOSUPPORT, true}, {EADDRNOTAVAIL, true}, {EPROTONOSUPPORT, true}, {EADDRINUSE, false},
      {EACCES, false},      {EMFILE, false},       {ENOBUFS, false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.error);
    EXPECT_EQ(isIPv6Unavailable(error_code(c.error, boost::system::system_category())), c.fallBack);
  }
}

// Out of descriptors with a client waiting in the queue: the listener pauses rather than spins,
// and takes that client once descriptors come back, with no newcomer to wake it. Forked, so the
// lowered limit touches no other test.
int acceptAfterRunningOutOfDescriptors() {
  const rlimit limit{256, 256};
  if (::setrlimit(RLIMIT_NOFILE, &limit) != 0) return 2;
  asio::io_context io;
  std::vector<int> filler;
  int pauses = 0;
  bool admitted = false;
  Listener listener(io.get_executor(), {.bindAddress = asio::ip::address_v4::loopback(),
                                        .backOff = std::chrono::milliseconds(1),
                                        .pausing = [&](int error) {
                                          if (error != EMFILE || ++pauses < 3) return;
                                          for (const int fd : filler)
                                            ::close(fd);
                                          filler.clear();
                                        }});
  listener.open();
  tcp::socket client(io);
  client.connect({asio::ip::address_v4::loopback(), listener.port()});
  for (int fd; (fd = ::dup(0)) >= 0;)
    filler.push_back(fd);
  if (errno != EMFILE) return 3;
  listener.accept(
      [&](int fd) {
        admitted = true;
        ::close(fd);
        listener.close();
      },
      [&](const ListenError&) { listener.close(); });
  io.run_for(std::chrono::seconds(5));
  return admitted && pauses == 3 ? 0 : 1;
}

TEST(ListenerTest, PausesWhileOutOfDescriptorsAndResumesAfter) {
#if defined(__SANITIZE_ADDRESS__)
  // The sanitizers check memory through a pipe of their own, and report every object as invalid
  // once the descriptors are gone.
  GTEST_SKIP() << "needs the descriptors a sanitizer runtime uses";
#endif
  GTEST_FLAG_SET(death_test_style, "fast");
  EXPECT_EXIT(std::_Exit(acceptAfterRunningOutOfDescriptors()), testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace orin::transport
