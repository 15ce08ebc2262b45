// Sending a video frame by copying it into one frame buffer against writing a 14-byte prefix in
// front of the coded data; and unframing a received stream of such frames.
#include <algorithm>
#include <cstdint>
#include <span>
#include <vector>

#include <benchmark/benchmark.h>

#include "OrinLinkShared/ScreenStream.h"

#include "AllocationCounter.h"

namespace {

using orin::ByteString;
using orin::OrinScreenFrameHeader;
using orin::OrinScreenFrameReader;
using orin::OrinScreenMessageType;
namespace framing = orin::OrinScreenFraming;

constexpr std::size_t codedFrameBytes = 1'000'000;
constexpr std::size_t framesPerStream = 8;
constexpr std::size_t receiveBytes = 64 << 10;
constexpr OrinScreenFrameHeader frameHeader{1'500'000, true};

ByteString codedFrame() {
  ByteString data(codedFrameBytes);
  for (std::size_t i = 0; i < data.size(); ++i) {
    data[i] = static_cast<std::uint8_t>(i * 31);
  }
  return data;
}

// The payload of a video-frame message: its 9-byte header, then the coded data.
ByteString videoPayload() {
  const auto header = frameHeader.encoded();
  ByteString payload(header.begin(), header.end());
  const ByteString data = codedFrame();
  payload.insert(payload.end(), data.begin(), data.end());
  return payload;
}

void setBytes(benchmark::State& state, std::size_t bytesPerIteration) {
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(bytesPerIteration));
}

void BM_FrameCopy(benchmark::State& state) {
  const ByteString payload = videoPayload();
  const auto before = orin::bench::allocations();
  for (auto _ : state) {
    ByteString frame = framing::frame(OrinScreenMessageType::videoFrame, payload);
    benchmark::DoNotOptimize(frame.data());
    benchmark::ClobberMemory();
  }
  orin::bench::reportAllocations(state, before);
  setBytes(state, payload.size());
}

void BM_FramePrefix(benchmark::State& state) {
  const ByteString data = codedFrame();
  const auto before = orin::bench::allocations();
  for (auto _ : state) {
    auto prefix = framing::videoFramePrefix(frameHeader, data.size());
    benchmark::DoNotOptimize(prefix);
  }
  orin::bench::reportAllocations(state, before);
  setBytes(state, data.size() + OrinScreenFrameHeader::encodedLength);
}

// Eight framed video frames back to back, as a client receives them.
ByteString videoStream() {
  const ByteString frame = framing::frame(OrinScreenMessageType::videoFrame, videoPayload());
  ByteString stream;
  for (std::size_t i = 0; i < framesPerStream; ++i) {
    stream.insert(stream.end(), frame.begin(), frame.end());
  }
  return stream;
}

template <class Receive>
void inReceivedPieces(std::span<const std::uint8_t> stream, Receive&& receive) {
  for (std::size_t at = 0; at < stream.size(); at += receiveBytes) {
    receive(stream.subspan(at, std::min(receiveBytes, stream.size() - at)));
  }
}

// One plain copy of the stream in the same pieces: the floor for any reader that buffers.
void BM_StreamMemcpy(benchmark::State& state) {
  const ByteString stream = videoStream();
  ByteString sink(stream.size());
  for (auto _ : state) {
    auto to = sink.begin();
    inReceivedPieces(stream, [&](std::span<const std::uint8_t> piece) {
      to = std::copy(piece.begin(), piece.end(), to);
    });
    benchmark::DoNotOptimize(sink.data());
    benchmark::ClobberMemory();
  }
  setBytes(state, stream.size());
}

void BM_FrameReader(benchmark::State& state) {
  const ByteString stream = videoStream();
  // One reader for the whole run, as in a long session; the frame's buffer is reused.
  OrinScreenFrameReader reader;
  OrinScreenFrameReader::Frame out;
  std::size_t frames = 0;
  const auto before = orin::bench::allocations();
  for (auto _ : state) {
    inReceivedPieces(stream, [&](std::span<const std::uint8_t> piece) {
      reader.append(piece);
      while (reader.next(out) == OrinScreenFrameReader::Status::frame) {
        ++frames;
      }
    });
    benchmark::DoNotOptimize(out.payload.data());
  }
  orin::bench::reportAllocations(state, before);
  setBytes(state, stream.size());
  if (frames != static_cast<std::size_t>(state.iterations()) * framesPerStream) {
    state.SkipWithError("the reader lost frames");
  }
}

BENCHMARK(BM_FrameCopy)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_FramePrefix);
BENCHMARK(BM_StreamMemcpy)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_FrameReader)->Unit(benchmark::kMicrosecond);

}  // namespace
