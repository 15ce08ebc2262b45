#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>

#include "OrinLink/screenstream/CapturedFrame.h"
#include "OrinLink/screenstream/DisplayBackend.h"

namespace orin::screen {

// Where a screen-cast stream is to be read from.
struct PipeWireTarget {
  // A connection to the PipeWire daemon that a portal handed out; this takes it over. -1 means
  // the user's own daemon ($PIPEWIRE_REMOTE, else pipewire-0 in $XDG_RUNTIME_DIR).
  int remoteFd = -1;
  std::uint32_t nodeId = 0;
  // A producer that lets the consumer choose (a virtual monitor) is asked for exactly this size;
  // otherwise any size is taken.
  std::optional<std::uint32_t> width;
  std::optional<std::uint32_t> height;
  int framesPerSecond = 60;
};

// A consumer of one screen-cast stream: BGRx or BGRA in shared memory (memfd, or memory PipeWire
// placed itself; no DMA-BUF). Frames arrive on damage; latest() hands out the newest one again
// and again, so a still desktop goes on producing frames. A frame keeps its buffer out of the
// stream for as long as the frame lives, so pixels reach the encoder without a copy; frames may
// outlive the capture, which closes its stream once the last of them is gone.
class PipeWireCapture {
 public:
  // Connects, negotiates and waits for the first frame up to `timeout`. Throws
  // DisplayCaptureError: pipeWireUnavailable when PipeWire does not answer, sharingEnded when the
  // node is not there (or goes), sharingSilent when no picture came in time.
  static std::unique_ptr<PipeWireCapture> open(PipeWireTarget target,
                                               std::chrono::milliseconds timeout);
  virtual ~PipeWireCapture() = default;

  // The newest frame, stamped now. Nothing while no picture is at hand (after a renegotiation,
  // until the next one). Throws DisplayCaptureError (sharingEnded) once the stream failed or its
  // producer went away. Any thread, one at a time.
  virtual std::optional<CapturedFrame> latest() = 0;
  // The negotiated size.
  virtual std::uint32_t width() const = 0;
  virtual std::uint32_t height() const = 0;
};

// A FrameSource over a capture, holding `keepAlive` (the screen-cast session the stream belongs
// to) for as long as it is read.
std::unique_ptr<FrameSource> makePipeWireFrameSource(std::shared_ptr<PipeWireCapture> capture,
                                                     std::shared_ptr<void> keepAlive);

}  // namespace orin::screen
