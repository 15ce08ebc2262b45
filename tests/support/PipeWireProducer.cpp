#include "tests/support/PipeWireProducer.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <mutex>
#include <pipewire/pipewire.h>
#include <spa/param/video/format-utils.h>
#include <sys/mman.h>
#include <unistd.h>

#include "tests/support/PipeWireDaemon.h"

namespace orin::testing_support {

// The stream and its loop; callbacks run on the loop thread, under its lock.
struct ProducerStream {
  PipeWireProducer::Options options;
  pw_thread_loop* loop = nullptr;
  pw_context* context = nullptr;
  pw_core* core = nullptr;
  pw_stream* stream = nullptr;
  spa_source* timer = nullptr;
  spa_hook listener{};
  spa_video_info_raw format{};
  std::uint32_t stride = 0;
  // Under the loop's lock.
  bool negotiated = false;
  bool paused = false;
  std::uint64_t sent = 0;

  ~ProducerStream() {
    if (loop == nullptr) return;
    pw_thread_loop_lock(loop);
    // The stream first: its last state change still sets the timer.
    if (stream != nullptr) pw_stream_destroy(stream);
    if (timer != nullptr) pw_loop_destroy_source(pw_thread_loop_get_loop(loop), timer);
    if (core != nullptr) pw_core_disconnect(core);
    pw_thread_loop_unlock(loop);
    pw_thread_loop_stop(loop);
    if (context != nullptr) pw_context_destroy(context);
    pw_thread_loop_destroy(loop);
  }
};

namespace {

using State = ProducerStream;

class Lock {
 public:
  explicit Lock(pw_thread_loop* loop) : loop_(loop) { pw_thread_loop_lock(loop_); }
  ~Lock() { pw_thread_loop_unlock(loop_); }
  Lock(const Lock&) = delete;
  Lock& operator=(const Lock&) = delete;

 private:
  pw_thread_loop* loop_;
};

void onTimer(void* data, std::uint64_t) {
  auto& s = *static_cast<State*>(data);
  if (!s.paused) pw_stream_trigger_process(s.stream);
}

void onStateChanged(void* data, pw_stream_state, pw_stream_state state, const char*) {
  auto& s = *static_cast<State*>(data);
  timespec interval{0, 1'000'000'000 / std::max(1, s.options.framesPerSecond)};
  timespec soon{0, 1};
  const bool streaming = state == PW_STREAM_STATE_STREAMING;
  pw_loop_update_timer(pw_thread_loop_get_loop(s.loop), s.timer, streaming ? &soon : nullptr,
                       streaming ? &interval : nullptr, false);
  pw_thread_loop_signal(s.loop, false);
}

void onParamChanged(void* data, std::uint32_t id, const spa_pod* param) {
  auto& s = *static_cast<State*>(data);
  if (id != SPA_PARAM_Format || param == nullptr) return;
  spa_format_video_raw_parse(param, &s.format);
  s.stride = s.format.size.width * 4;
  s.negotiated = true;
  std::uint8_t storage[512];
  spa_pod_builder b{};
  spa_pod_builder_init(&b, storage, sizeof storage);
  const spa_pod* params[2];
  params[0] = static_cast<const spa_pod*>(spa_pod_builder_add_object(
      &b, SPA_TYPE_OBJECT_ParamBuffers, SPA_PARAM_Buffers, SPA_PARAM_BUFFERS_buffers,
      SPA_POD_CHOICE_RANGE_Int(8, 2, 16), SPA_PARAM_BUFFERS_blocks, SPA_POD_Int(1),
      SPA_PARAM_BUFFERS_size, SPA_POD_Int(static_cast<int>(s.stride * s.format.size.height)),
      SPA_PARAM_BUFFERS_stride, SPA_POD_Int(static_cast<int>(s.stride)), SPA_PARAM_BUFFERS_dataType,
      SPA_POD_CHOICE_FLAGS_Int(s.options.memfd ? 1 << SPA_DATA_MemFd : 1 << SPA_DATA_MemPtr)));
  params[1] = static_cast<const spa_pod*>(
      spa_pod_builder_add_object(&b, SPA_TYPE_OBJECT_ParamMeta, SPA_PARAM_Meta, SPA_PARAM_META_type,
                                 SPA_POD_Id(SPA_META_Header), SPA_PARAM_META_size,
                                 SPA_POD_Int(static_cast<int>(sizeof(spa_meta_header)))));
  pw_stream_update_params(s.stream, params, 2);
  pw_thread_loop_signal(s.loop, false);
}

// Memory of its own for each buffer, as a compositor provides it.
void onAddBuffer(void* data, pw_buffer* buffer) {
  auto& s = *static_cast<State*>(data);
  spa_data& d = buffer->buffer->datas[0];
  if (!s.options.memfd || (d.type & (1u << SPA_DATA_MemFd)) == 0) return;
  const int fd = ::memfd_create("orin-test-source", MFD_CLOEXEC | MFD_ALLOW_SEALING);
  d.type = SPA_DATA_MemFd;
  d.flags = SPA_DATA_FLAG_READWRITE;
  d.fd = fd;
  d.mapoffset = 0;
  d.maxsize = s.stride * s.format.size.height;
  if (fd < 0 || ::ftruncate(fd, d.maxsize) < 0) return;
  ::fcntl(fd, F_ADD_SEALS, F_SEAL_GROW | F_SEAL_SHRINK | F_SEAL_SEAL);
  void* map = ::mmap(nullptr, d.maxsize, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  d.data = map == MAP_FAILED ? nullptr : map;
}

void onRemoveBuffer(void* data, pw_buffer* buffer) {
  if (!static_cast<State*>(data)->options.memfd) return;
  spa_data& d = buffer->buffer->datas[0];
  if (d.data != nullptr) ::munmap(d.data, d.maxsize);
  if (d.fd >= 0) ::close(static_cast<int>(d.fd));
  d.data = nullptr;
  d.fd = -1;
}

void onProcess(void* data) {
  auto& s = *static_cast<State*>(data);
  pw_buffer* b = pw_stream_dequeue_buffer(s.stream);
  if (b == nullptr) return;
  spa_data& d = b->buffer->datas[0];
  if (d.data == nullptr) {
    pw_stream_queue_buffer(s.stream, b);
    return;
  }
  const std::uint64_t n = s.sent++;
  auto* row = static_cast<std::uint8_t*>(d.data);
  for (std::uint32_t y = 0; y < s.format.size.height; ++y, row += s.stride) {
    for (std::uint32_t x = 0; x < s.format.size.width; ++x) {
      const auto p = PipeWireProducer::pixel(x, y, n);
      std::copy(p.begin(), p.end(), row + x * 4);
    }
  }
  if (auto* h = static_cast<spa_meta_header*>(
          spa_buffer_find_meta_data(b->buffer, SPA_META_Header, sizeof(spa_meta_header)))) {
    *h = {};
    h->pts = -1;
    h->seq = n;
  }
  d.chunk->offset = 0;
  d.chunk->size = s.stride * s.format.size.height;
  d.chunk->stride = static_cast<std::int32_t>(s.stride);
  d.chunk->flags = 0;
  pw_stream_queue_buffer(s.stream, b);
}

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

}  // namespace

std::unique_ptr<PipeWireProducer> PipeWireProducer::start(const PipeWireDaemon& daemon,
                                                          Options options,
                                                          std::chrono::milliseconds timeout) {
  static std::once_flag initialised;
  std::call_once(initialised, [] { pw_init(nullptr, nullptr); });
  auto state = std::make_unique<ProducerStream>();
  state->options = options;
  state->loop = pw_thread_loop_new("orin.test-source", nullptr);
  state->context = pw_context_new(pw_thread_loop_get_loop(state->loop), nullptr, 0);
  if (state->context == nullptr || pw_thread_loop_start(state->loop) < 0) return nullptr;

  Lock lock(state->loop);
  state->timer = pw_loop_add_timer(pw_thread_loop_get_loop(state->loop), onTimer, state.get());
  const int fd = daemon.connect();
  if (fd < 0) return nullptr;
  state->core = pw_context_connect_fd(state->context, fd, nullptr, 0);
  if (state->core == nullptr) return nullptr;
  state->stream = pw_stream_new(
      state->core, "Orin test source",
      pw_properties_new(PW_KEY_MEDIA_CLASS, "Video/Source", PW_KEY_MEDIA_ROLE, "Screen", nullptr));
  if (state->stream == nullptr) return nullptr;
  pw_stream_add_listener(state->stream, &state->listener, &streamEvents, state.get());

  std::uint8_t storage[1024];
  spa_pod_builder b{};
  spa_pod_builder_init(&b, storage, sizeof storage);
  const spa_rectangle preferred{options.width, options.height};
  const spa_rectangle smallest{1, 1};
  const spa_rectangle largest{8192, 8192};
  const spa_fraction rate{static_cast<std::uint32_t>(options.framesPerSecond), 1};
  spa_pod_frame object{};
  spa_pod_builder_push_object(&b, &object, SPA_TYPE_OBJECT_Format, SPA_PARAM_EnumFormat);
  spa_pod_builder_add(&b, SPA_FORMAT_mediaType, SPA_POD_Id(SPA_MEDIA_TYPE_video),
                      SPA_FORMAT_mediaSubtype, SPA_POD_Id(SPA_MEDIA_SUBTYPE_raw),
                      SPA_FORMAT_VIDEO_format, SPA_POD_Id(SPA_VIDEO_FORMAT_BGRx),
                      SPA_FORMAT_VIDEO_framerate, SPA_POD_Fraction(&rate), 0);
  if (options.anySize) {
    spa_pod_builder_add(&b, SPA_FORMAT_VIDEO_size,
                        SPA_POD_CHOICE_RANGE_Rectangle(&preferred, &smallest, &largest), 0);
  } else {
    spa_pod_builder_add(&b, SPA_FORMAT_VIDEO_size, SPA_POD_Rectangle(&preferred), 0);
  }
  const spa_pod* params[] = {static_cast<const spa_pod*>(spa_pod_builder_pop(&b, &object))};
  if (pw_stream_connect(state->stream, PW_DIRECTION_OUTPUT, PW_ID_ANY,
                        options.memfd ? static_cast<pw_stream_flags>(PW_STREAM_FLAG_DRIVER |
                                                                     PW_STREAM_FLAG_ALLOC_BUFFERS)
                                      : PW_STREAM_FLAG_DRIVER,
                        params, 1) < 0) {
    return nullptr;
  }

  timespec deadline{};
  pw_thread_loop_get_time(state->loop, &deadline,
                          std::chrono::duration_cast<std::chrono::nanoseconds>(timeout).count());
  while (pw_stream_get_node_id(state->stream) == SPA_ID_INVALID) {
    if (pw_thread_loop_timed_wait_full(state->loop, &deadline) == -ETIMEDOUT) return nullptr;
  }
  return std::unique_ptr<PipeWireProducer>(new PipeWireProducer(std::move(state)));
}

PipeWireProducer::PipeWireProducer(std::unique_ptr<ProducerStream> state)
    : state_(std::move(state)) {}

PipeWireProducer::~PipeWireProducer() = default;

std::uint32_t PipeWireProducer::nodeId() const {
  Lock lock(state_->loop);
  return pw_stream_get_node_id(state_->stream);
}

std::optional<std::pair<std::uint32_t, std::uint32_t>> PipeWireProducer::size() const {
  Lock lock(state_->loop);
  if (!state_->negotiated) return std::nullopt;
  return std::pair{state_->format.size.width, state_->format.size.height};
}

std::uint64_t PipeWireProducer::framesSent() const {
  Lock lock(state_->loop);
  return state_->sent;
}

void PipeWireProducer::setPaused(bool paused) {
  Lock lock(state_->loop);
  state_->paused = paused;
}

void PipeWireProducer::disconnect() {
  Lock lock(state_->loop);
  pw_stream_disconnect(state_->stream);
}

std::array<std::uint8_t, 4> PipeWireProducer::pixel(std::uint32_t x, std::uint32_t y,
                                                    std::uint64_t frame) {
  return {static_cast<std::uint8_t>(x), static_cast<std::uint8_t>(y),
          static_cast<std::uint8_t>(frame), 255};
}

}  // namespace orin::testing_support
