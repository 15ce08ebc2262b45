#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "OrinLink/screenstream/CapturedFrame.h"
#include "OrinLink/screenstream/DisplayBackend.h"
#include "OrinLink/screenstream/DisplayCaptureError.h"
#include "OrinLink/screenstream/FramePacer.h"

namespace orin::screen {

struct CapturableDisplay {
  std::uint32_t id = 0;
  std::string name;
  int pointWidth = 0;
  int pointHeight = 0;
  bool operator==(const CapturableDisplay&) const = default;
};

struct PixelSize {
  int width = 0;
  int height = 0;
  bool operator==(const PixelSize&) const = default;
};

// The screen's own name, or "Display <id>", followed by " (W×H)" in points.
std::string displayName(std::uint32_t id, const std::optional<std::string>& screenName,
                        int pointWidth, int pointHeight);

// The stream size for a display: the requested height, and the width that keeps the display's
// aspect ratio (16:9 when it reports no height), rounded to the nearest even number.
PixelSize captureSize(int pointWidth, int pointHeight, int pixelHeight);

// Captures one display at a time as BGRA frames at its native size on a thread of its own, never
// faster than the frame rate and, given the consumer's pacer, just in time for the consumer. The
// frame handler runs on that thread for every frame and must not block; the stop handler runs there
// once when a capture ends on its own, not when stop() ends it. start(), stop() and
// availableDisplays() are called from one thread (the main loop).
class DisplayCaptureEngine {
 public:
  using FrameHandler = std::function<void(const CapturedFrame&)>;
  using StopHandler = std::function<void(const std::optional<DisplayCaptureError>&)>;

  // Captures through X11 on $DISPLAY.
  DisplayCaptureEngine(FrameHandler frameHandler, StopHandler stopHandler);
  DisplayCaptureEngine(std::shared_ptr<DisplayBackend> backend, FrameHandler frameHandler,
                       StopHandler stopHandler);
  ~DisplayCaptureEngine();
  DisplayCaptureEngine(const DisplayCaptureEngine&) = delete;
  DisplayCaptureEngine& operator=(const DisplayCaptureEngine&) = delete;

  std::vector<CapturableDisplay> availableDisplays();

  // Replaces any running capture. Frames keep the display's native size; the encoder scales
  // them to streamSize(). Throws DisplayCaptureError.
  void start(std::uint32_t displayID, int pixelWidth, int pixelHeight, int framesPerSecond,
             std::shared_ptr<FramePacer> pacer = nullptr);
  // Safe from any thread, the capture thread's handlers included.
  void stop();

  bool isRunning() const;
  // The size the stream is to have, recorded at start().
  std::optional<PixelSize> streamSize() const { return streamSize_; }

 private:
  struct Session;
  static void run(const std::shared_ptr<Session>& session);

  std::shared_ptr<DisplayBackend> backend_;
  FrameHandler frameHandler_;
  StopHandler stopHandler_;
  mutable std::mutex mutex_;  // guards session_ and thread_, which stop() may take from a handler
  std::shared_ptr<Session> session_;
  std::thread thread_;
  std::optional<PixelSize> streamSize_;
};

}  // namespace orin::screen
