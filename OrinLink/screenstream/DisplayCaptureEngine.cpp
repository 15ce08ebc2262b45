#include "OrinLink/screenstream/DisplayCaptureEngine.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <pthread.h>
#include <stdexcept>

#include "OrinLink/screenstream/X11DisplayBackend.h"

namespace orin::screen {

std::string displayName(std::uint32_t id, const std::optional<std::string>& screenName,
                        int pointWidth, int pointHeight) {
  std::string base = screenName ? *screenName : "Display " + std::to_string(id);
  return base + " (" + std::to_string(pointWidth) + "\u00D7" + std::to_string(pointHeight) + ")";
}

PixelSize captureSize(int pointWidth, int pointHeight, int pixelHeight) {
  double aspect = pointHeight > 0 ? static_cast<double>(pointWidth) / pointHeight : 16.0 / 9.0;
  double half = aspect * pixelHeight / 2.0;
  int width = std::max(2, 2 * static_cast<int>(std::lround(half)));
  return {width, pixelHeight};
}

namespace {

// What wakes the capture thread. Apart from the session: the consumer's thread may hold it last,
// and the session's handlers own that very consumer, which must not end on its own thread.
struct Signal {
  std::mutex mutex;
  std::condition_variable wake;
  bool stopRequested = false;
  // The pacer's word that its consumer is free: time to ask it again.
  bool demandChanged = false;

  void requestStop() {
    {
      std::lock_guard lock(mutex);
      stopRequested = true;
    }
    wake.notify_all();
  }

  void noteDemandChanged() {
    {
      std::lock_guard lock(mutex);
      demandChanged = true;
    }
    wake.notify_all();
  }
};

}  // namespace

struct DisplayCaptureEngine::Session {
  std::unique_ptr<FrameSource> source;
  FrameHandler onFrame;
  StopHandler onStop;
  std::shared_ptr<FramePacer> pacer;
  std::chrono::nanoseconds interval{};
  std::shared_ptr<Signal> signal = std::make_shared<Signal>();
  std::atomic<bool> finished = false;
};

DisplayCaptureEngine::DisplayCaptureEngine(FrameHandler frameHandler, StopHandler stopHandler)
    : DisplayCaptureEngine(std::make_shared<X11DisplayBackend>(), std::move(frameHandler),
                           std::move(stopHandler)) {}

DisplayCaptureEngine::DisplayCaptureEngine(std::shared_ptr<DisplayBackend> backend,
                                           FrameHandler frameHandler, StopHandler stopHandler)
    : backend_(std::move(backend)),
      frameHandler_(std::move(frameHandler)),
      stopHandler_(std::move(stopHandler)) {}

DisplayCaptureEngine::~DisplayCaptureEngine() {
  stop();
}

std::vector<CapturableDisplay> DisplayCaptureEngine::availableDisplays() {
  std::vector<CapturableDisplay> result;
  for (const auto& display : backend_->displays()) {
    result.push_back(
        {display.id,
         displayName(display.id, display.screenName, display.pointWidth, display.pointHeight),
         display.pointWidth, display.pointHeight});
  }
  return result;
}

void DisplayCaptureEngine::start(std::uint32_t displayID, int pixelWidth, int pixelHeight,
                                 int framesPerSecond, std::shared_ptr<FramePacer> pacer) {
  if (pixelWidth <= 0 || pixelHeight <= 0 || framesPerSecond <= 0) {
    throw std::invalid_argument("capture needs a positive size and frame rate");
  }
  stop();

  auto displays = backend_->displays();
  auto found = std::find_if(displays.begin(), displays.end(),
                            [&](const BackendDisplay& d) { return d.id == displayID; });
  if (found == displays.end()) throw DisplayCaptureError::displayNotFound();

  auto session = std::make_shared<Session>();
  session->source = backend_->open(displayID);
  session->onFrame = frameHandler_;
  session->onStop = stopHandler_;
  session->pacer = std::move(pacer);
  session->interval = std::chrono::nanoseconds(1'000'000'000 / std::min(framesPerSecond, 1000));

  // Held while the thread starts, so a handler that stops the capture at once finds it.
  std::lock_guard lock(mutex_);
  streamSize_ = captureSize(found->pointWidth, found->pointHeight, pixelHeight);
  thread_ = std::thread([session] { run(session); });
  session_ = std::move(session);
}

void DisplayCaptureEngine::stop() {
  std::shared_ptr<Session> session;
  std::thread thread;
  {
    std::lock_guard lock(mutex_);
    session = std::move(session_);
    thread = std::move(thread_);
  }
  if (session) session->signal->requestStop();
  if (!thread.joinable()) return;
  // From a handler the capture thread cannot join itself; it ends when the handler returns, and
  // the session it holds keeps everything it touches alive until then.
  if (thread.get_id() == std::this_thread::get_id()) {
    thread.detach();
  } else {
    thread.join();
  }
}

bool DisplayCaptureEngine::isRunning() const {
  std::lock_guard lock(mutex_);
  return session_ && !session_->finished;
}

void DisplayCaptureEngine::run(const std::shared_ptr<Session>& session) {
  pthread_setname_np(pthread_self(), "orin.capture");
  using Clock = std::chrono::steady_clock;
  FramePacer* pacer = session->pacer.get();
  if (pacer) {
    pacer->setWake([weak = std::weak_ptr<Signal>(session->signal)] {
      if (auto signal = weak.lock()) signal->noteDemandChanged();
    });
  }
  // The next grab no sooner than this.
  auto earliest = Clock::now();
  std::optional<DisplayCaptureError> failure;
  for (;;) {
    {
      Signal& signal = *session->signal;
      std::unique_lock lock(signal.mutex);
      const auto stopOrDemand = [&] { return signal.stopRequested || signal.demandChanged; };
      while (!signal.stopRequested) {
        signal.demandChanged = false;
        if (pacer && !pacer->wantsFrame()) {
          signal.wake.wait(lock, stopOrDemand);
        } else if (!signal.wake.wait_until(lock, earliest, stopOrDemand)) {
          break;
        }
      }
      if (signal.stopRequested) break;
    }
    const auto began = Clock::now();
    try {
      if (auto frame = session->source->grab()) {
        if (session->onFrame) session->onFrame(*frame);
      }
    } catch (const DisplayCaptureError& error) {
      failure = error;
      break;
    } catch (const std::bad_alloc&) {
      failure = DisplayCaptureError::captureFailed("system", ENOMEM);
      break;
    }
    if (pacer) {
      // The consumer sets the pace; the rate only bounds how soon one grab follows another.
      earliest = began + session->interval;
    } else {
      // Ticks stay on one grid; ticks missed by a slow grab are dropped, never caught up, so
      // frames are never faster than the rate and never queue behind one another.
      earliest += session->interval;
      const auto now = Clock::now();
      if (earliest < now)
        earliest += ((now - earliest) / session->interval + 1) * session->interval;
    }
  }
  if (pacer) pacer->setWake({});
  session->source.reset();
  session->finished = true;
  if (failure) {
    bool stopped = false;
    {
      std::lock_guard lock(session->signal->mutex);
      stopped = session->signal->stopRequested;
    }
    if (!stopped && session->onStop) session->onStop(failure);
  }
}

}  // namespace orin::screen
