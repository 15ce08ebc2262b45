#include "ScreenStreamClient.h"

#include <array>
#include <ctime>
#include <vector>

#include <boost/asio/connect.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/write.hpp>

namespace orin::device {

namespace asio = boost::asio;
using asio::ip::tcp;
using boost::system::error_code;
using Kind = DeviceError::Kind;
using MessageKind = OrinScreenControlMessage::Kind;
using Clock = std::chrono::steady_clock;

namespace {

constexpr std::size_t readChunkBytes = 256 * 1024;
constexpr std::array<std::uint8_t, 4> startCode{0, 0, 0, 1};

constexpr std::string_view pairingNeededText =
    "Orin Link asks this device to pair: run again with --code and the code it shows.";
constexpr std::string_view notUnderstoodText =
    "Orin Link sent a stream this client does not understand.";

std::string hostAndPort(const ScreenStreamClient::Options& options) {
  const bool ipv6 = options.host.find(':') != std::string::npos;
  return (ipv6 ? "[" + options.host + "]" : options.host) + ":" + std::to_string(options.port);
}

DeviceError unreachable(const ScreenStreamClient::Options& options, std::string_view reason) {
  return DeviceError(Kind::unreachable, "Cannot reach Orin Link's screen stream at " +
                                            hostAndPort(options) + ": " + std::string(reason));
}

}  // namespace

std::uint64_t monotonicMicroseconds() {
  timespec now{};
  ::clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<std::uint64_t>(now.tv_sec) * 1'000'000u +
         static_cast<std::uint64_t>(now.tv_nsec) / 1000u;
}

std::span<const std::uint8_t> ScreenMessage::frameData() const {
  if (!frameHeader) return {};
  return std::span(payload).subspan(OrinScreenFrameHeader::encodedLength);
}

struct ScreenStreamClient::Impl {
  asio::io_context context;
  tcp::socket socket{context};
  OrinScreenFrameReader reader;
  std::vector<std::uint8_t> chunk = std::vector<std::uint8_t>(readChunkBytes);
  std::uint64_t lastReadAt = 0;
  bool ended = false;

  // Runs one asynchronous operation until it completes or the deadline passes; the operation is
  // cancelled then. False on time-out.
  template <class Start>
  bool runUntil(Clock::time_point deadline, Start start) {
    bool done = false;
    start(done);
    context.restart();
    context.run_until(deadline);
    if (done) return true;
    error_code ignored;
    socket.cancel(ignored);
    context.restart();
    context.run();
    return false;
  }
};

ScreenStreamClient::ScreenStreamClient(Options options)
    : options_(std::move(options)), impl_(std::make_unique<Impl>()) {
  error_code ec;
  tcp::resolver resolver(impl_->context);
  const auto addresses = resolver.resolve(options_.host, std::to_string(options_.port), ec);
  if (ec) throw unreachable(options_, ec.message());
  const auto deadline = Clock::now() + options_.connectTimeout;
  error_code connectError = asio::error::timed_out;
  const bool connected = impl_->runUntil(deadline, [&](bool& done) {
    if (options_.receiveBufferBytes) {
      // Set before connecting so the advertised window starts small.
      const tcp::endpoint first = *addresses.begin();
      impl_->socket.open(first.protocol());
      impl_->socket.set_option(
          asio::socket_base::receive_buffer_size(*options_.receiveBufferBytes));
      impl_->socket.async_connect(first, [&](error_code e) {
        connectError = e;
        done = true;
      });
      return;
    }
    asio::async_connect(impl_->socket, addresses, [&](error_code e, const tcp::endpoint&) {
      connectError = e;
      done = true;
    });
  });
  if (!connected)
    throw unreachable(options_, asio::error::make_error_code(asio::error::timed_out).message());
  if (connectError) throw unreachable(options_, connectError.message());
  impl_->socket.set_option(tcp::no_delay(true), ec);
}

ScreenStreamClient::~ScreenStreamClient() = default;

void ScreenStreamClient::send(const OrinScreenControlMessage& message) {
  sendBytes(OrinScreenFraming::frame(message));
}

void ScreenStreamClient::sendBytes(std::span<const std::uint8_t> bytes) {
  error_code ec;
  asio::write(impl_->socket, asio::buffer(bytes.data(), bytes.size()), ec);
  if (ec) throw unreachable(options_, ec.message());
}

ScreenStreamClient::Received ScreenStreamClient::receive(ScreenMessage& out,
                                                         std::chrono::milliseconds timeout) {
  const auto deadline = Clock::now() + timeout;
  while (true) {
    OrinScreenFrameReader::Frame frame;
    const auto status = impl_->reader.next(frame);
    if (status == OrinScreenFrameReader::Status::tooLarge) {
      throw DeviceError(Kind::badReply, std::string(notUnderstoodText));
    }
    if (status == OrinScreenFrameReader::Status::frame) {
      out = ScreenMessage{};
      out.typeByte = frame.typeByte;
      out.type = frame.type;
      out.payload = std::move(frame.payload);
      out.receivedAtMicroseconds = impl_->lastReadAt;
      try {
        if (frame.type == OrinScreenMessageType::control) {
          out.control = OrinScreenFraming::decodeControl(out.payload);
        } else if (frame.type == OrinScreenMessageType::videoConfig) {
          out.config = OrinScreenFraming::decodeVideoConfig(out.payload);
        } else if (frame.type == OrinScreenMessageType::videoFrame) {
          out.frameHeader = OrinScreenFrameHeader::parse(out.payload);
        }
      } catch (const Error&) {
        // Left undecoded: the caller sees the type and the raw payload.
      }
      return Received::message;
    }
    if (impl_->ended) return Received::closed;

    error_code readError;
    std::size_t received = 0;
    const bool completed = impl_->runUntil(deadline, [&](bool& done) {
      impl_->socket.async_read_some(asio::buffer(impl_->chunk), [&](error_code e, std::size_t n) {
        readError = e;
        received = n;
        done = true;
      });
    });
    if (!completed || readError == asio::error::operation_aborted) {
      // A read that finished as it was cancelled still delivered its bytes.
      if (received > 0) impl_->reader.append({impl_->chunk.data(), received});
      return Received::timedOut;
    }
    if (readError) {
      impl_->ended = true;
      continue;
    }
    impl_->lastReadAt = monotonicMicroseconds();
    impl_->reader.append({impl_->chunk.data(), received});
  }
}

ScreenStreamClient::Welcome ScreenStreamClient::handshake(const Credentials& credentials,
                                                          std::chrono::milliseconds timeout) {
  const auto deadline = Clock::now() + timeout;
  OrinScreenControlMessage hello;
  hello.kind = MessageKind::hello;
  hello.version = OrinScreenStream::protocolVersion;
  hello.deviceName = credentials.deviceName;
  hello.token = credentials.token;
  send(hello);

  Welcome welcome;
  bool paired = false;
  while (true) {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
    ScreenMessage message;
    const Received received = receive(message, std::max(left, std::chrono::milliseconds(0)));
    if (received == Received::timedOut) {
      throw unreachable(options_, "no answer to the handshake in time");
    }
    if (received == Received::closed) {
      throw unreachable(options_, "the host closed the connection during the handshake");
    }
    if (!message.control) continue;
    const OrinScreenControlMessage& answer = *message.control;
    switch (answer.kind) {
      case MessageKind::accepted:
        welcome.accepted = answer;
        return welcome;
      case MessageKind::pairingRequired: {
        if (!credentials.pairingCode || paired) {
          throw DeviceError(Kind::unauthorized, std::string(pairingNeededText));
        }
        OrinScreenControlMessage pair;
        pair.kind = MessageKind::pair;
        pair.deviceId = credentials.deviceId;
        pair.deviceName = credentials.deviceName;
        pair.pairingCode = credentials.pairingCode;
        send(pair);
        paired = true;
        break;
      }
      case MessageKind::paired:
        welcome.issuedToken = answer.token;
        break;
      case MessageKind::error:
        throw DeviceError(Kind::requestFailed, answer.message.value_or("Orin Link refused."));
      default:
        break;
    }
  }
}

bool ScreenStreamClient::waitUntilClosed(std::chrono::milliseconds timeout) {
  const auto deadline = Clock::now() + timeout;
  while (true) {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
    ScreenMessage ignored;
    const Received received = receive(ignored, std::max(left, std::chrono::milliseconds(0)));
    if (received == Received::closed) return true;
    if (received == Received::timedOut) return false;
  }
}

void AnnexBWriter::configure(const OrinScreenVideoConfig& config) {
  pending_ = config;
}

ByteString AnnexBWriter::frame(const OrinScreenFrameHeader& header,
                               std::span<const std::uint8_t> data) {
  ByteString out;
  if (header.isKeyframe && pending_) {
    if (pending_->nalLengthSize < 1 || pending_->nalLengthSize > 4) {
      throw DeviceError(Kind::badReply, std::string(notUnderstoodText));
    }
    nalLengthSize_ = static_cast<std::size_t>(pending_->nalLengthSize);
    for (const ByteString& set : pending_->parameterSets) {
      out.insert(out.end(), startCode.begin(), startCode.end());
      out.insert(out.end(), set.begin(), set.end());
    }
    pending_.reset();
  }
  if (!started_ && !header.isKeyframe) return out;
  started_ = true;
  std::size_t at = 0;
  while (at < data.size()) {
    if (data.size() - at < nalLengthSize_) {
      throw DeviceError(Kind::badReply, std::string(notUnderstoodText));
    }
    std::size_t length = 0;
    for (std::size_t i = 0; i < nalLengthSize_; ++i)
      length = (length << 8) | data[at + i];
    at += nalLengthSize_;
    if (length > data.size() - at) {
      throw DeviceError(Kind::badReply, std::string(notUnderstoodText));
    }
    out.insert(out.end(), startCode.begin(), startCode.end());
    out.insert(out.end(), data.begin() + static_cast<std::ptrdiff_t>(at),
               data.begin() + static_cast<std::ptrdiff_t>(at + length));
    at += length;
  }
  return out;
}

void StreamFigures::addFrame(const ScreenMessage& message) {
  ++frames;
  bytes += message.payload.size() + OrinScreenStream::headerLength;
  if (!message.frameHeader) return;
  if (message.frameHeader->isKeyframe) ++keyframes;
  const std::uint64_t captured = message.frameHeader->presentationTimeMicroseconds;
  // A presentation time from another clock (another machine) gives no delay.
  const std::uint64_t delay =
      message.receivedAtMicroseconds > captured ? message.receivedAtMicroseconds - captured : 0;
  delaySumMicroseconds += delay;
  delayMaxMicroseconds = std::max(delayMaxMicroseconds, delay);
}

double StreamFigures::averageDelayMilliseconds() const {
  if (frames == 0) return 0;
  return static_cast<double>(delaySumMicroseconds) / static_cast<double>(frames) / 1000.0;
}

}  // namespace orin::device
