// The least a relay process can do: one thread, one epoll loop, every byte forwarded as it comes
// between a client and a loopback target. orin_ai_bench measures it beside orinlink, so that the
// time a token spends crossing one more process on this machine is known apart from orinlink's
// own.
//
// Usage: orin_relay_floor TARGET_PORT   (prints "listening on PORT" once it accepts)
#include <arpa/inet.h>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "BenchSupport.h"

using namespace orin::aibench;

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: orin_relay_floor TARGET_PORT\n");
    return 2;
  }
  const auto target = static_cast<std::uint16_t>(std::atoi(argv[1]));
  const int listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address = loopback(0);
  socklen_t length = sizeof address;
  if (::bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
      ::listen(listener, 128) != 0 ||
      ::getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    std::perror("orin_relay_floor");
    return 1;
  }
  std::printf("listening on %u\n", ntohs(address.sin_port));
  std::fflush(stdout);

  const int poller = ::epoll_create1(EPOLL_CLOEXEC);
  const auto watch = [poller](int fd) {
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.fd = fd;
    ::epoll_ctl(poller, EPOLL_CTL_ADD, fd, &event);
  };
  watch(listener);
  std::map<int, int> peer;
  const auto drop = [&](int fd) {
    const int other = peer[fd];
    peer.erase(fd);
    peer.erase(other);
    ::close(fd);
    ::close(other);
  };
  std::array<char, 65536> buffer;
  std::array<epoll_event, 64> ready;
  while (true) {
    const int count = ::epoll_wait(poller, ready.data(), static_cast<int>(ready.size()), -1);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return 1;
    for (int i = 0; i < count; ++i) {
      const int fd = ready[static_cast<std::size_t>(i)].data.fd;
      if (fd == listener) {
        const int client = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
        if (client < 0) continue;
        const int upstream = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        const sockaddr_in to = loopback(target);
        if (::connect(upstream, reinterpret_cast<const sockaddr*>(&to), sizeof to) != 0) {
          ::close(client);
          ::close(upstream);
          continue;
        }
        setNoDelay(client);
        setNoDelay(upstream);
        peer[client] = upstream;
        peer[upstream] = client;
        watch(client);
        watch(upstream);
        continue;
      }
      if (!peer.contains(fd)) continue;
      const ssize_t n = ::recv(fd, buffer.data(), buffer.size(), 0);
      if (n > 0 && sendAll(peer[fd], {buffer.data(), static_cast<std::size_t>(n)})) continue;
      if (n < 0 && errno == EINTR) continue;
      drop(fd);
    }
  }
}
