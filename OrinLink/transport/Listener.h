#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>

#include <boost/asio/any_io_executor.hpp>
#include <boost/asio/ip/address.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/system/error_code.hpp>

#include "OrinLinkShared/Error.h"

namespace orin::transport {

// Why listening failed or stopped: the system's own text, and its code for those who need it.
class ListenError : public Error {
 public:
  explicit ListenError(boost::system::error_code code) : Error(code.message()), code_(code) {}
  const boost::system::error_code& code() const { return code_; }

 private:
  boost::system::error_code code_;
};

// True when binding every interface over IPv6 failed because this machine has no IPv6, the one
// case where IPv4 alone is the better answer; a port in use and the like are real failures.
bool isIPv6Unavailable(const boost::system::error_code& ec);

// A TCP listener that accepts in batches and pauses when descriptors or memory run out, so that
// a flood neither starves the loop nor spins it.
class Listener {
 public:
  struct Options {
    std::uint16_t port = 0;
    // Every interface, IPv6 and IPv4 alike, unless narrowed (tests use loopback).
    std::optional<boost::asio::ip::address> bindAddress;
    int acceptBatch = 64;
    std::chrono::steady_clock::duration backOff = std::chrono::milliseconds(50);
    // Told of each pause for lack of resources, with the system's errno.
    std::function<void(int error)> pausing;
  };
  // Owns the descriptor; runs on the listener's executor.
  using Admit = std::function<void(int fd)>;
  // Hands each descriptor to `owner->admit(fd)` while the owner lives, and closes it after.
  template <typename Owner>
  static Admit admitTo(std::weak_ptr<Owner> owner) {
    return [owner = std::move(owner)](int fd) {
      if (auto self = owner.lock()) {
        self->admit(fd);
      } else {
        closeDescriptor(fd);
      }
    };
  }
  using Failed = std::function<void(const ListenError&)>;

  Listener(boost::asio::any_io_executor executor, Options options);
  Listener(const Listener&) = delete;
  Listener& operator=(const Listener&) = delete;

  // Binds and listens from any thread before accepting starts; throws ListenError.
  void open();
  // Accepts until close() or a failure that will not pass; the loop keeps the listener open
  // until then, whatever becomes of this object.
  void accept(Admit admit, Failed failed);
  // On the executor.
  void close();

  bool isOpen() const;
  std::uint16_t port() const;
  // An accepted descriptor as a socket on the executor; nothing, and the descriptor closed, when
  // it cannot be one.
  std::optional<boost::asio::ip::tcp::socket> adopt(int fd) const;

 private:
  static void closeDescriptor(int fd);

  struct State;
  std::shared_ptr<State> state_;
};

}  // namespace orin::transport
