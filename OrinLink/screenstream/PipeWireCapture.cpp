#include "OrinLink/screenstream/PipeWireCapture.h"

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <pipewire/pipewire.h>
#include <spa/param/video/format-utils.h>
#include <spa/pod/builder.h>
#include <sys/mman.h>
#include <unistd.h>
#include <utility>
#include <vector>

#include "OrinLink/screenstream/DisplayCaptureError.h"

namespace orin::screen {
namespace {

// How long the loop waits, when the producer takes buffers back, for frames that point into
// memory only the stream holds (MemPtr) to be let go before that memory is unmapped.
constexpr auto memPtrReturnLimit = std::chrono::seconds(1);

std::once_flag pipeWireInitialised;

// One buffer of the stream. Memory behind a file descriptor is mapped here, so a frame that still
// points into it stays readable after the stream has dropped the buffer (a renegotiation, the
// producer going away); memory the stream placed itself (MemPtr) is only lent while the stream
// has the buffer.
struct Slot {
  // Null once the stream removed the buffer.
  pw_buffer* buffer = nullptr;
  const std::uint8_t* data = nullptr;
  std::uint32_t maxSize = 0;
  void* map = nullptr;
  std::size_t mapSize = 0;

  // Guarded by State::mutex: frames lent from it, and whether it is dequeued from the stream.
  int lent = 0;
  bool out = false;
  // The picture it holds: written on the loop thread while it is neither current nor lent, read
  // under State::mutex once it is current.
  int width = 0;
  int height = 0;
  int bytesPerRow = 0;
  const std::uint8_t* pixels = nullptr;

  Slot() = default;
  Slot(const Slot&) = delete;
  Slot& operator=(const Slot&) = delete;
  ~Slot() {
    if (map != nullptr) ::munmap(map, mapSize);
  }
};

// Everything the stream's callbacks touch. Owned by the capture and by every frame it lent, so
// it (and the stream) lasts until the last frame is let go. PipeWire objects are used on the loop
// thread or under its lock; `mutex` guards what latest() and releasing frames share with the
// loop. Lock order: the loop's lock, then `mutex`; a frame is released without the loop's lock.
struct State {
  PipeWireTarget target;
  pw_thread_loop* loop = nullptr;
  pw_context* context = nullptr;
  pw_core* core = nullptr;
  pw_registry* registry = nullptr;
  pw_stream* stream = nullptr;
  spa_source* returns = nullptr;
  spa_hook coreListener{};
  spa_hook registryListener{};
  spa_hook streamListener{};
  int syncSequence = -1;
  bool connected = false;
  bool nodeSeen = false;
  spa_video_info_raw format{};

  std::mutex mutex;
  std::condition_variable released;
  std::vector<std::shared_ptr<Slot>> slots;
  std::shared_ptr<Slot> current;
  std::vector<std::shared_ptr<Slot>> pending;
  std::optional<DisplayCaptureError> failure;
  std::uint32_t width = 0;
  std::uint32_t height = 0;

  State() = default;
  State(const State&) = delete;
  State& operator=(const State&) = delete;
  ~State();

  void fail(DisplayCaptureError error);
  void giveBack(const std::shared_ptr<Slot>& slot);
};

// What keeps a lent buffer out of the stream; every copy of the frame shares one.
struct Lease {
  std::shared_ptr<State> state;
  std::shared_ptr<Slot> slot;
  Lease() = default;
  Lease(const Lease&) = delete;
  Lease& operator=(const Lease&) = delete;
  ~Lease() {
    if (slot) state->giveBack(slot);
  }
};

State::~State() {
  if (loop != nullptr) {
    pw_thread_loop_lock(loop);
    if (stream != nullptr) {
      spa_hook_remove(&streamListener);
      pw_stream_disconnect(stream);
      pw_stream_destroy(stream);
    }
    if (registry != nullptr) {
      spa_hook_remove(&registryListener);
      pw_proxy_destroy(reinterpret_cast<pw_proxy*>(registry));
    }
    if (core != nullptr) {
      spa_hook_remove(&coreListener);
      pw_core_disconnect(core);
    }
    if (returns != nullptr) pw_loop_destroy_source(pw_thread_loop_get_loop(loop), returns);
    pw_thread_loop_unlock(loop);
    pw_thread_loop_stop(loop);
  }
  if (context != nullptr) pw_context_destroy(context);
  if (loop != nullptr) pw_thread_loop_destroy(loop);
}

// On the loop thread.
void State::fail(DisplayCaptureError error) {
  {
    std::lock_guard lock(mutex);
    if (!failure) failure = std::move(error);
  }
  pw_thread_loop_signal(loop, false);
}

// Any thread, without the loop's lock.
void State::giveBack(const std::shared_ptr<Slot>& slot) {
  bool wake = false;
  {
    std::lock_guard lock(mutex);
    if (--slot->lent > 0) return;
    if (slot->buffer == nullptr) {
      released.notify_all();
    } else if (slot->out && slot != current) {
      pending.push_back(slot);
      wake = true;
    }
  }
  if (wake) pw_loop_signal_event(pw_thread_loop_get_loop(loop), returns);
}

State& stateOf(void* data) {
  return *static_cast<State*>(data);
}

// Queues back the buffers whose last frame went; on the loop thread.
void onReturns(void* data, std::uint64_t) {
  State& s = stateOf(data);
  std::vector<pw_buffer*> back;
  {
    std::lock_guard lock(s.mutex);
    for (const auto& slot : s.pending) {
      if (slot->buffer != nullptr && slot->out && slot->lent == 0 && slot != s.current) {
        slot->out = false;
        back.push_back(slot->buffer);
      }
    }
    s.pending.clear();
  }
  for (pw_buffer* b : back)
    pw_stream_queue_buffer(s.stream, b);
}

void onCoreDone(void* data, std::uint32_t id, int seq) {
  State& s = stateOf(data);
  if (id != PW_ID_CORE || seq != s.syncSequence) return;
  s.connected = true;
  if (!s.nodeSeen) s.fail(DisplayCaptureError::sharingEnded());
  pw_thread_loop_signal(s.loop, false);
}

void onCoreError(void* data, std::uint32_t id, int, int res, const char* message) {
  State& s = stateOf(data);
  pw_log_warn("orinlink capture: error on %u: %d (%s)", id, res, message ? message : "");
  if (id != PW_ID_CORE) return;
  if (res == -EPIPE) {
    s.fail(s.connected ? DisplayCaptureError::sharingEnded()
                       : DisplayCaptureError::pipeWireUnavailable());
  } else {
    s.fail(DisplayCaptureError::captureFailed("PipeWire", res));
  }
}

void onGlobal(void* data, std::uint32_t id, std::uint32_t, const char* type, std::uint32_t,
              const spa_dict*) {
  State& s = stateOf(data);
  if (id == s.target.nodeId && spa_streq(type, PW_TYPE_INTERFACE_Node)) s.nodeSeen = true;
}

void onGlobalRemove(void* data, std::uint32_t id) {
  State& s = stateOf(data);
  if (id == s.target.nodeId && s.nodeSeen) s.fail(DisplayCaptureError::sharingEnded());
}

void onStateChanged(void* data, pw_stream_state, pw_stream_state state, const char* error) {
  State& s = stateOf(data);
  if (state == PW_STREAM_STATE_ERROR) {
    pw_log_warn("orinlink capture: stream failed: %s", error ? error : "");
    s.fail(DisplayCaptureError::sharingEnded());
  } else if (state == PW_STREAM_STATE_UNCONNECTED) {
    s.fail(DisplayCaptureError::sharingEnded());
  }
}

void onParamChanged(void* data, std::uint32_t id, const spa_pod* param) {
  State& s = stateOf(data);
  if (id != SPA_PARAM_Format || param == nullptr) return;
  std::uint32_t mediaType = 0;
  std::uint32_t mediaSubtype = 0;
  spa_video_info_raw format{};
  if (spa_format_parse(param, &mediaType, &mediaSubtype) < 0 || mediaType != SPA_MEDIA_TYPE_video ||
      mediaSubtype != SPA_MEDIA_SUBTYPE_raw || spa_format_video_raw_parse(param, &format) < 0 ||
      (format.format != SPA_VIDEO_FORMAT_BGRx && format.format != SPA_VIDEO_FORMAT_BGRA) ||
      format.size.width == 0 || format.size.height == 0) {
    pw_stream_set_error(s.stream, -EINVAL, "unsupported video format");
    return;
  }
  s.format = format;
  {
    std::lock_guard lock(s.mutex);
    s.width = format.size.width;
    s.height = format.size.height;
  }

  // Shared memory only, with the header for its flags; the cursor is drawn into the picture.
  std::uint8_t storage[512];
  spa_pod_builder b{};
  spa_pod_builder_init(&b, storage, sizeof storage);
  const spa_pod* params[2];
  const int dataTypes = (1 << SPA_DATA_MemFd) | (1 << SPA_DATA_MemPtr);
  params[0] = static_cast<const spa_pod*>(spa_pod_builder_add_object(
      &b, SPA_TYPE_OBJECT_ParamBuffers, SPA_PARAM_Buffers, SPA_PARAM_BUFFERS_buffers,
      SPA_POD_CHOICE_RANGE_Int(8, 2, 16), SPA_PARAM_BUFFERS_blocks, SPA_POD_Int(1),
      SPA_PARAM_BUFFERS_dataType, SPA_POD_CHOICE_FLAGS_Int(dataTypes)));
  params[1] = static_cast<const spa_pod*>(
      spa_pod_builder_add_object(&b, SPA_TYPE_OBJECT_ParamMeta, SPA_PARAM_Meta, SPA_PARAM_META_type,
                                 SPA_POD_Id(SPA_META_Header), SPA_PARAM_META_size,
                                 SPA_POD_Int(static_cast<int>(sizeof(spa_meta_header)))));
  pw_stream_update_params(s.stream, params, 2);
}

void onAddBuffer(void* data, pw_buffer* buffer) {
  State& s = stateOf(data);
  auto slot = std::make_shared<Slot>();
  slot->buffer = buffer;
  if (buffer->buffer->n_datas > 0) {
    const spa_data& d = buffer->buffer->datas[0];
    slot->maxSize = d.maxsize;
    if (d.type == SPA_DATA_MemFd && d.fd >= 0) {
      const auto page = static_cast<std::uint32_t>(::sysconf(_SC_PAGESIZE));
      const std::uint32_t start = d.mapoffset % page;
      slot->mapSize = std::size_t{d.maxsize} + start;
      void* map = ::mmap(nullptr, slot->mapSize, PROT_READ, MAP_SHARED, static_cast<int>(d.fd),
                         static_cast<off_t>(d.mapoffset - start));
      if (map != MAP_FAILED) {
        slot->map = map;
        slot->data = static_cast<const std::uint8_t*>(map) + start;
      } else {
        pw_log_warn("orinlink capture: cannot map a buffer: %s", std::strerror(errno));
      }
    } else if (d.type == SPA_DATA_MemPtr) {
      slot->data = static_cast<const std::uint8_t*>(d.data);
    }
  }
  buffer->user_data = slot.get();
  std::lock_guard lock(s.mutex);
  s.slots.push_back(std::move(slot));
}

void onRemoveBuffer(void* data, pw_buffer* buffer) {
  State& s = stateOf(data);
  std::unique_lock lock(s.mutex);
  auto found = std::find_if(s.slots.begin(), s.slots.end(),
                            [&](const auto& slot) { return slot->buffer == buffer; });
  if (found == s.slots.end()) return;
  std::shared_ptr<Slot> slot = std::move(*found);
  s.slots.erase(found);
  slot->buffer = nullptr;
  if (s.current == slot) s.current.reset();
  // Stream memory goes with the buffer: frames still reading it get a moment to finish.
  if (slot->map == nullptr && slot->lent > 0 &&
      !s.released.wait_for(lock, memPtrReturnLimit, [&] { return slot->lent == 0; })) {
    pw_log_warn("orinlink capture: a frame outlives its buffer");
  }
}

// The picture in `buffer`, when it carries one in full.
bool readPicture(const State& s, pw_buffer* buffer, Slot& slot) {
  const spa_buffer* b = buffer->buffer;
  if (slot.data == nullptr || b->n_datas == 0 || s.format.size.width == 0) return false;
  const auto* header = static_cast<const spa_meta_header*>(
      spa_buffer_find_meta_data(b, SPA_META_Header, sizeof(spa_meta_header)));
  if (header != nullptr && (header->flags & SPA_META_HEADER_FLAG_CORRUPTED) != 0) return false;
  const spa_chunk* chunk = b->datas[0].chunk;
  if (chunk->size == 0 ||
      (static_cast<std::uint32_t>(chunk->flags) & SPA_CHUNK_FLAG_CORRUPTED) != 0)
    return false;

  const std::uint64_t width = s.format.size.width;
  const std::uint64_t height = s.format.size.height;
  const std::uint64_t stride =
      chunk->stride > 0 ? static_cast<std::uint64_t>(chunk->stride) : width * 4;
  // The chunk's offset counts modulo the memory's size.
  const std::uint64_t offset = slot.maxSize > 0 ? chunk->offset % slot.maxSize : 0;
  const std::uint64_t end = offset + stride * (height - 1) + width * 4;
  if (stride < width * 4 || stride > 0x7fffffff || end > slot.maxSize) return false;
  slot.width = static_cast<int>(width);
  slot.height = static_cast<int>(height);
  slot.bytesPerRow = static_cast<int>(stride);
  slot.pixels = slot.data + offset;
  return true;
}

// Keeps the newest buffer with a picture and queues the rest back.
void onProcess(void* data) {
  State& s = stateOf(data);
  pw_buffer* newest = nullptr;
  while (pw_buffer* b = pw_stream_dequeue_buffer(s.stream)) {
    auto* slot = static_cast<Slot*>(b->user_data);
    if (slot == nullptr || !readPicture(s, b, *slot)) {
      pw_stream_queue_buffer(s.stream, b);
      continue;
    }
    if (newest != nullptr) pw_stream_queue_buffer(s.stream, newest);
    newest = b;
  }
  if (newest == nullptr) return;

  pw_buffer* back = nullptr;
  bool first = false;
  {
    std::lock_guard lock(s.mutex);
    auto found = std::find_if(s.slots.begin(), s.slots.end(),
                              [&](const auto& slot) { return slot->buffer == newest; });
    if (found == s.slots.end()) {
      back = newest;
    } else {
      (*found)->out = true;
      std::shared_ptr<Slot> previous = std::exchange(s.current, *found);
      first = !previous;
      if (previous && previous->lent == 0 && previous->out && previous->buffer != nullptr) {
        previous->out = false;
        back = previous->buffer;
      }
    }
  }
  if (back != nullptr) pw_stream_queue_buffer(s.stream, back);
  if (first) pw_thread_loop_signal(s.loop, false);
}

const pw_core_events coreEvents = [] {
  pw_core_events events{};
  events.version = PW_VERSION_CORE_EVENTS;
  events.done = onCoreDone;
  events.error = onCoreError;
  return events;
}();

const pw_registry_events registryEvents = [] {
  pw_registry_events events{};
  events.version = PW_VERSION_REGISTRY_EVENTS;
  events.global = onGlobal;
  events.global_remove = onGlobalRemove;
  return events;
}();

const pw_stream_events streamEvents = [] {
  pw_stream_events events{};
  events.version = PW_VERSION_STREAM_EVENTS;
  events.state_changed = onStateChanged;
  events.param_changed = onParamChanged;
  events.add_buffer = onAddBuffer;
  events.remove_buffer = onRemoveBuffer;
  events.process = onProcess;
  return events;
}();

// Raw BGRx or BGRA; exactly the target's size when it names one; up to its frame rate.
const spa_pod* enumFormat(spa_pod_builder& b, const PipeWireTarget& target) {
  const int fps = std::max(1, target.framesPerSecond);
  const spa_fraction rate{static_cast<std::uint32_t>(fps), 1};
  const spa_fraction noRate{0, 1};
  spa_pod_frame object{};
  spa_pod_builder_push_object(&b, &object, SPA_TYPE_OBJECT_Format, SPA_PARAM_EnumFormat);
  spa_pod_builder_add(&b, SPA_FORMAT_mediaType, SPA_POD_Id(SPA_MEDIA_TYPE_video),
                      SPA_FORMAT_mediaSubtype, SPA_POD_Id(SPA_MEDIA_SUBTYPE_raw),
                      SPA_FORMAT_VIDEO_format,
                      SPA_POD_CHOICE_ENUM_Id(3, SPA_VIDEO_FORMAT_BGRx, SPA_VIDEO_FORMAT_BGRx,
                                             SPA_VIDEO_FORMAT_BGRA),
                      0);
  if (target.width && target.height) {
    const spa_rectangle size{*target.width, *target.height};
    spa_pod_builder_add(&b, SPA_FORMAT_VIDEO_size, SPA_POD_Rectangle(&size), 0);
  } else {
    const spa_rectangle preferred{1920, 1080};
    const spa_rectangle smallest{1, 1};
    const spa_rectangle largest{16384, 16384};
    spa_pod_builder_add(&b, SPA_FORMAT_VIDEO_size,
                        SPA_POD_CHOICE_RANGE_Rectangle(&preferred, &smallest, &largest), 0);
  }
  // The maximum tells a compositor that paces by damage not to send faster than we read.
  spa_pod_builder_add(
      &b, SPA_FORMAT_VIDEO_framerate, SPA_POD_CHOICE_RANGE_Fraction(&rate, &noRate, &rate),
      SPA_FORMAT_VIDEO_maxFramerate, SPA_POD_CHOICE_RANGE_Fraction(&rate, &noRate, &rate), 0);
  return static_cast<const spa_pod*>(spa_pod_builder_pop(&b, &object));
}

// libpipewire's method macros cast in C style on the caller's side.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wold-style-cast"
void listen(pw_core* core, spa_hook& hook, void* data) {
  pw_core_add_listener(core, &hook, &coreEvents, data);
}
void listen(pw_registry* registry, spa_hook& hook, void* data) {
  pw_registry_add_listener(registry, &hook, &registryEvents, data);
}
int sync(pw_core* core) {
  return pw_core_sync(core, PW_ID_CORE, 0);
}
#pragma GCC diagnostic pop

class LoopLock {
 public:
  explicit LoopLock(pw_thread_loop* loop) : loop_(loop) { pw_thread_loop_lock(loop_); }
  ~LoopLock() { pw_thread_loop_unlock(loop_); }
  LoopLock(const LoopLock&) = delete;
  LoopLock& operator=(const LoopLock&) = delete;

 private:
  pw_thread_loop* loop_;
};

DisplayCaptureError systemFailure() {
  return DisplayCaptureError::captureFailed("PipeWire", -errno);
}

class Capture final : public PipeWireCapture {
 public:
  explicit Capture(std::shared_ptr<State> state) : state_(std::move(state)) {}

  std::optional<CapturedFrame> latest() override {
    auto lease = std::make_shared<Lease>();
    lease->state = state_;
    CapturedFrame frame;
    {
      std::lock_guard lock(state_->mutex);
      if (state_->failure) throw *state_->failure;
      const auto& slot = state_->current;
      if (!slot) return std::nullopt;
      ++slot->lent;
      lease->slot = slot;
      frame.width = slot->width;
      frame.height = slot->height;
      frame.bytesPerRow = slot->bytesPerRow;
      frame.pixels = slot->pixels;
    }
    frame.presentationTimeMicroseconds = monotonicMicroseconds();
    frame.owner = std::move(lease);
    return frame;
  }

  std::uint32_t width() const override {
    std::lock_guard lock(state_->mutex);
    return state_->width;
  }

  std::uint32_t height() const override {
    std::lock_guard lock(state_->mutex);
    return state_->height;
  }

 private:
  std::shared_ptr<State> state_;
};

class PipeWireFrameSource final : public FrameSource {
 public:
  PipeWireFrameSource(std::shared_ptr<PipeWireCapture> capture, std::shared_ptr<void> keepAlive)
      : keepAlive_(std::move(keepAlive)), capture_(std::move(capture)) {}
  std::optional<CapturedFrame> grab() override { return capture_->latest(); }

 private:
  // Declared first so the stream closes before the session it belongs to.
  std::shared_ptr<void> keepAlive_;
  std::shared_ptr<PipeWireCapture> capture_;
};

}  // namespace

std::unique_ptr<PipeWireCapture> PipeWireCapture::open(PipeWireTarget target,
                                                       std::chrono::milliseconds timeout) {
  std::call_once(pipeWireInitialised, [] { pw_init(nullptr, nullptr); });
  // The remote's descriptor is ours to close until PipeWire takes it over.
  int remoteFd = std::exchange(target.remoteFd, -1);
  auto closeRemote = [&] {
    if (remoteFd >= 0) ::close(std::exchange(remoteFd, -1));
  };

  auto state = std::make_shared<State>();
  state->target = target;
  state->loop = pw_thread_loop_new("orin.pipewire", nullptr);
  if (state->loop == nullptr) {
    auto error = systemFailure();
    closeRemote();
    throw error;
  }
  state->context = pw_context_new(pw_thread_loop_get_loop(state->loop),
                                  pw_properties_new(PW_KEY_APP_NAME, "Orin Link", nullptr), 0);
  if (state->context == nullptr || pw_thread_loop_start(state->loop) < 0) {
    auto error = systemFailure();
    closeRemote();
    throw error;
  }

  LoopLock lock(state->loop);
  pw_loop* loop = pw_thread_loop_get_loop(state->loop);
  state->returns = pw_loop_add_event(loop, onReturns, state.get());
  if (state->returns == nullptr) {
    auto error = systemFailure();
    closeRemote();
    throw error;
  }
  state->core = remoteFd >= 0
                    ? pw_context_connect_fd(state->context, std::exchange(remoteFd, -1), nullptr, 0)
                    : pw_context_connect(state->context, nullptr, 0);
  if (state->core == nullptr) throw DisplayCaptureError::pipeWireUnavailable();
  listen(state->core, state->coreListener, state.get());
  state->registry = pw_core_get_registry(state->core, PW_VERSION_REGISTRY, 0);
  if (state->registry == nullptr) throw systemFailure();
  listen(state->registry, state->registryListener, state.get());
  state->syncSequence = sync(state->core);

  state->stream = pw_stream_new(
      state->core, "Orin Link screen capture",
      pw_properties_new(PW_KEY_MEDIA_TYPE, "Video", PW_KEY_MEDIA_CATEGORY, "Capture",
                        PW_KEY_MEDIA_ROLE, "Screen", PW_KEY_NODE_DONT_RECONNECT, "true", nullptr));
  if (state->stream == nullptr) throw systemFailure();
  pw_stream_add_listener(state->stream, &state->streamListener, &streamEvents, state.get());

  std::uint8_t storage[1024];
  spa_pod_builder b{};
  spa_pod_builder_init(&b, storage, sizeof storage);
  const spa_pod* params[] = {enumFormat(b, target)};
  // Buffers are not mapped by the stream: shared memory is mapped per buffer above, so frames
  // can outlive the stream's hold on it.
  const int connected = pw_stream_connect(state->stream, PW_DIRECTION_INPUT, target.nodeId,
                                          PW_STREAM_FLAG_AUTOCONNECT, params, 1);
  if (connected < 0) throw DisplayCaptureError::captureFailed("PipeWire", connected);

  timespec deadline{};
  pw_thread_loop_get_time(state->loop, &deadline,
                          std::chrono::duration_cast<std::chrono::nanoseconds>(timeout).count());
  for (;;) {
    {
      std::lock_guard guard(state->mutex);
      if (state->failure) throw *state->failure;
      if (state->current) break;
    }
    if (pw_thread_loop_timed_wait_full(state->loop, &deadline) == -ETIMEDOUT) {
      std::lock_guard guard(state->mutex);
      if (state->failure) throw *state->failure;
      if (state->current) break;
      throw DisplayCaptureError::sharingSilent();
    }
  }
  return std::make_unique<Capture>(std::move(state));
}

std::unique_ptr<FrameSource> makePipeWireFrameSource(std::shared_ptr<PipeWireCapture> capture,
                                                     std::shared_ptr<void> keepAlive) {
  return std::make_unique<PipeWireFrameSource>(std::move(capture), std::move(keepAlive));
}

}  // namespace orin::screen
