#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>

#include "OrinLinkShared/ScreenStream.h"

#include "DeviceClient.h"

namespace orin::device {

// CLOCK_MONOTONIC in microseconds: the clock of the host's frame presentation times, so on the
// same machine the difference is the capture-to-receive delay.
std::uint64_t monotonicMicroseconds();

// One message from the host, decoded by its type.
struct ScreenMessage {
  std::uint8_t typeByte = 0;
  std::optional<OrinScreenMessageType> type;
  // Absent when a control or configuration payload does not decode.
  std::optional<OrinScreenControlMessage> control;
  std::optional<OrinScreenVideoConfig> config;
  // Video frames: the header; the coded data is the payload after it.
  std::optional<OrinScreenFrameHeader> frameHeader;
  ByteString payload;
  // When the bytes that completed the message were read (monotonicMicroseconds).
  std::uint64_t receivedAtMicroseconds = 0;

  std::span<const std::uint8_t> frameData() const;
};

// A connection to the host's screen stream. Every call blocks for at most its time-out; failures
// are DeviceErrors with the text a person reads.
class ScreenStreamClient {
 public:
  struct Options {
    std::string host = "127.0.0.1";
    std::uint16_t port = OrinScreenStream::defaultPort;
    std::chrono::milliseconds connectTimeout = std::chrono::seconds(10);
    // A small receive buffer makes a client that stops reading stall the host sooner.
    std::optional<int> receiveBufferBytes;
  };

  struct Credentials {
    std::optional<std::string> token;
    // Used when the host asks for pairing.
    std::optional<std::string> pairingCode;
    std::string deviceId;
    std::string deviceName;
  };

  struct Welcome {
    OrinScreenControlMessage accepted;
    // The token the host issued when this handshake paired.
    std::optional<std::string> issuedToken;
  };

  enum class Received { message, timedOut, closed };

  explicit ScreenStreamClient(Options options);
  ~ScreenStreamClient();
  ScreenStreamClient(const ScreenStreamClient&) = delete;
  ScreenStreamClient& operator=(const ScreenStreamClient&) = delete;

  void send(const OrinScreenControlMessage& message);
  void sendBytes(std::span<const std::uint8_t> bytes);

  Received receive(ScreenMessage& out, std::chrono::milliseconds timeout);
  // Hello (with the token when there is one), then pairing when the host asks for it and a code
  // is at hand; returns at "accepted". Messages after it are left for receive().
  Welcome handshake(const Credentials& credentials, std::chrono::milliseconds timeout);
  // Reads and discards until the host closes; false when it is still open at the time-out.
  bool waitUntilClosed(std::chrono::milliseconds timeout);

  const Options& options() const { return options_; }

 private:
  struct Impl;
  Options options_;
  std::unique_ptr<Impl> impl_;
};

// Writes a received stream as an Annex-B elementary stream: a start code before every NAL unit,
// and the parameter sets of each new configuration in front of the next key frame.
class AnnexBWriter {
 public:
  void configure(const OrinScreenVideoConfig& config);
  // The bytes for one frame; nothing before the first key frame, which a decoder could not use.
  // Throws DeviceError (badReply) when the NAL lengths do not add up.
  ByteString frame(const OrinScreenFrameHeader& header, std::span<const std::uint8_t> data);

 private:
  std::optional<OrinScreenVideoConfig> pending_;
  std::size_t nalLengthSize_ = 4;
  bool started_ = false;
};

// Figures over one period of receiving.
struct StreamFigures {
  std::uint64_t frames = 0;
  std::uint64_t bytes = 0;
  std::uint64_t keyframes = 0;
  std::uint64_t configurations = 0;
  std::uint64_t delaySumMicroseconds = 0;
  std::uint64_t delayMaxMicroseconds = 0;

  void addFrame(const ScreenMessage& message);
  void addConfiguration() { ++configurations; }
  // Zero when there were no frames.
  double averageDelayMilliseconds() const;
};

}  // namespace orin::device
