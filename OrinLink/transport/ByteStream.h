#pragma once

#include <cstddef>

#include <boost/asio/any_completion_handler.hpp>
#include <boost/asio/any_io_executor.hpp>
#include <boost/asio/async_result.hpp>
#include <boost/asio/buffer.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/system/error_code.hpp>

namespace orin::transport {

// What a connection is served over: a TCP socket, or in tests one that fails on cue. Shaped like
// an Asio stream (one buffer per operation: the first that is not empty), so that async_write,
// as_tuple and cancellation apply unchanged.
class ByteStream {
 public:
  using executor_type = boost::asio::any_io_executor;
  using Signature = void(boost::system::error_code, std::size_t);
  using Handler = boost::asio::any_completion_handler<Signature>;

  virtual ~ByteStream() = default;

  virtual executor_type get_executor() = 0;
  virtual boost::asio::ip::tcp::socket& lowest_layer() = 0;
  virtual void shutdown(boost::asio::socket_base::shutdown_type what,
                        boost::system::error_code& ec) = 0;
  // The descriptor is released whatever the outcome.
  virtual void close(boost::system::error_code& ec) = 0;
  bool is_open() { return lowest_layer().is_open(); }

  template <class Buffers, class Token>
  auto async_read_some(const Buffers& buffers, Token&& token) {
    return boost::asio::async_initiate<Token, Signature>(
        [this](auto handler, boost::asio::mutable_buffer buffer) {
          readSome(buffer, std::move(handler));
        },
        token, first<boost::asio::mutable_buffer>(buffers));
  }

  template <class Buffers, class Token>
  auto async_write_some(const Buffers& buffers, Token&& token) {
    return boost::asio::async_initiate<Token, Signature>(
        [this](auto handler, boost::asio::const_buffer buffer) {
          writeSome(buffer, std::move(handler));
        },
        token, first<boost::asio::const_buffer>(buffers));
  }

 protected:
  template <class Buffer, class Buffers>
  static Buffer first(const Buffers& buffers) {
    const auto end = boost::asio::buffer_sequence_end(buffers);
    for (auto it = boost::asio::buffer_sequence_begin(buffers); it != end; ++it) {
      if (Buffer(*it).size() > 0) return Buffer(*it);
    }
    return Buffer();
  }

  virtual void readSome(boost::asio::mutable_buffer buffer, Handler handler) = 0;
  virtual void writeSome(boost::asio::const_buffer buffer, Handler handler) = 0;
};

class SocketStream : public ByteStream {
 public:
  explicit SocketStream(boost::asio::ip::tcp::socket socket) : socket_(std::move(socket)) {}

  executor_type get_executor() override { return socket_.get_executor(); }
  boost::asio::ip::tcp::socket& lowest_layer() override { return socket_; }
  void shutdown(boost::asio::socket_base::shutdown_type what,
                boost::system::error_code& ec) override {
    socket_.shutdown(what, ec);
  }
  void close(boost::system::error_code& ec) override { socket_.close(ec); }

 protected:
  void readSome(boost::asio::mutable_buffer buffer, Handler handler) override {
    socket_.async_read_some(buffer, std::move(handler));
  }
  void writeSome(boost::asio::const_buffer buffer, Handler handler) override {
    socket_.async_write_some(buffer, std::move(handler));
  }

 private:
  boost::asio::ip::tcp::socket socket_;
};

}  // namespace orin::transport
