#include "OrinLink/screenstream/LibavHEVCEncoder.h"

#include <algorithm>
#include <condition_variable>
#include <cstdarg>
#include <filesystem>
#include <functional>
#include <limits>
#include <mutex>
#include <pthread.h>
#include <string>
#include <thread>

#include "OrinLink/screenstream/PixelConversion.h"
#include "OrinLink/screenstream/ThreadPriority.h"
#include "OrinLink/screenstream/VideoEncoder.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/frame.h>
#include <libavutil/hwcontext.h>
#include <libavutil/opt.h>
#include <libswscale/swscale.h>
}

namespace orin::screen {

namespace {

constexpr std::string_view nvenc = "hevc_nvenc";
constexpr std::string_view vaapi = "hevc_vaapi";
constexpr std::string_view x265 = "libx265";
constexpr AVRational microseconds{1, 1'000'000};

// Probing hardware encoders on a machine without them is expected to fail; libavcodec would
// report each failure as an error on stderr.
thread_local bool probing = false;

void probeAwareLog(void* context, int level, const char* format, va_list arguments) {
  if (probing && level > AV_LOG_FATAL) return;
  av_log_default_callback(context, level, format, arguments);
}

void installLogFilter() {
  static std::once_flag once;
  std::call_once(once, [] { av_log_set_callback(probeAwareLog); });
}

struct ProbeScope {
  explicit ProbeScope(bool quiet) : previous(probing) { probing = quiet; }
  ~ProbeScope() { probing = previous; }
  ProbeScope(const ProbeScope&) = delete;
  ProbeScope& operator=(const ProbeScope&) = delete;
  bool previous;
};

std::vector<std::string> renderNodes() {
  std::vector<std::string> nodes;
  std::error_code error;
  for (const auto& entry : std::filesystem::directory_iterator("/dev/dri", error)) {
    if (entry.path().filename().string().starts_with("renderD"))
      nodes.push_back(entry.path().string());
  }
  std::sort(nodes.begin(), nodes.end());
  return nodes;
}

void setOption(AVCodecContext* context, const char* key, const std::string& value) {
  // Option names differ between encoder versions; one that is missing is not worth failing for.
  av_opt_set(context, key, value.c_str(), AV_OPT_SEARCH_CHILDREN);
}

void configureCommon(AVCodecContext* context, const EncoderSettings& settings) {
  context->width = settings.width;
  context->height = settings.height;
  context->time_base = microseconds;
  context->framerate = AVRational{settings.framesPerSecond, 1};
  context->gop_size = 2 * settings.framesPerSecond;
  context->max_b_frames = 0;
  context->bit_rate = settings.averageBitrate;
  // A quarter second of buffer: enough for a sharp keyframe of a desktop, little enough that a
  // link running at the average rate drains a burst quickly.
  context->rc_max_rate = settings.averageBitrate;
  context->rc_buffer_size = static_cast<int>(
      std::min<std::int64_t>(settings.averageBitrate / 4, std::numeric_limits<int>::max()));
  context->colorspace = AVCOL_SPC_BT709;
  context->color_primaries = AVCOL_PRI_BT709;
  context->color_trc = AVCOL_TRC_BT709;
  context->color_range = AVCOL_RANGE_MPEG;
  context->flags |= AV_CODEC_FLAG_LOW_DELAY;
}

void configureX265(AVCodecContext* context, const EncoderSettings& settings) {
  context->pix_fmt = AV_PIX_FMT_YUV420P;
  setOption(context, "preset", "ultrafast");
  setOption(context, "tune", "zerolatency");
  setOption(context, "forced-idr", "1");
  const std::int64_t kbps = std::max<std::int64_t>(settings.averageBitrate / 1000, 1);
  // Closed GOPs make every keyframe an IDR picture; headers repeat with each so that a client
  // can join at any of them. Coding units of 32 pixels only (the preset also tries 16): a quarter
  // less work a picture, keyframes included, for about 0.2 dB on scrolling text. No
  // psycho-visual weighting: it keeps grain-like texture, which a desktop lacks; without it
  // pictures are faster and closer to the source (0.5 dB on scrolling text at 1080p).
  setOption(context, "x265-params",
            "keyint=" + std::to_string(2 * settings.framesPerSecond) +
                ":bframes=0:rc-lookahead=0:scenecut=0:open-gop=0:repeat-headers=1:info=0"
                ":min-cu-size=32:psy-rd=0"
                ":log-level=error:vbv-maxrate=" +
                std::to_string(kbps) +
                ":vbv-bufsize=" + std::to_string(std::max<std::int64_t>(kbps / 4, 1)));
}

void configureNvenc(AVCodecContext* context) {
  context->pix_fmt = AV_PIX_FMT_YUV420P;
  setOption(context, "preset", "p1");
  setOption(context, "tune", "ull");
  setOption(context, "rc", "cbr");
  setOption(context, "zerolatency", "1");
  setOption(context, "delay", "0");
  setOption(context, "forced-idr", "1");
  setOption(context, "no-scenecut", "1");
}

struct CodecContextDeleter {
  void operator()(AVCodecContext* context) const { avcodec_free_context(&context); }
};
struct BufferDeleter {
  void operator()(AVBufferRef* buffer) const { av_buffer_unref(&buffer); }
};
struct FrameDeleter {
  void operator()(AVFrame* frame) const { av_frame_free(&frame); }
};
struct PacketDeleter {
  void operator()(AVPacket* packet) const { av_packet_free(&packet); }
};

// The encoder waits while a frame is converted, so the conversion may use every core.
int conversionThreads() {
  return static_cast<int>(std::clamp(std::thread::hardware_concurrency(), 1u, 4u));
}

AVPixelFormat pixelFormat(YUVConverter::Layout layout) {
  return layout == YUVConverter::Layout::nv12 ? AV_PIX_FMT_NV12 : AV_PIX_FMT_YUV420P;
}

}  // namespace

YUVConverter::YUVConverter(int width, int height, Layout layout, int threads)
    : width_(width),
      height_(height),
      layout_(layout),
      threads_(threads),
      source_(av_frame_alloc()),
      target_(av_frame_alloc()) {
  if (!target_) return;
  target_->format = pixelFormat(layout);
  target_->width = width;
  target_->height = height;
  target_->color_range = AVCOL_RANGE_MPEG;
  target_->colorspace = AVCOL_SPC_BT709;
  target_->color_primaries = AVCOL_PRI_BT709;
  target_->color_trc = AVCOL_TRC_BT709;
  if (av_frame_get_buffer(target_, 0) < 0) av_frame_free(&target_);
}

class YUVConverter::HalfWorker {
 public:
  HalfWorker() : thread_([this] { run(); }) {}
  ~HalfWorker() {
    {
      std::lock_guard lock(mutex_);
      stopping_ = true;
    }
    changed_.notify_all();
    thread_.join();
  }
  HalfWorker(const HalfWorker&) = delete;
  HalfWorker& operator=(const HalfWorker&) = delete;

  // Runs `lower` here and `upper` on the calling thread; returns when both are done.
  void split(const std::function<void()>& upper, std::function<void()> lower) {
    {
      std::lock_guard lock(mutex_);
      job_ = std::move(lower);
    }
    changed_.notify_all();
    upper();
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [this] { return !job_; });
  }

 private:
  void run() {
    pthread_setname_np(pthread_self(), "orin.convert");
    std::unique_lock lock(mutex_);
    for (;;) {
      changed_.wait(lock, [this] { return stopping_ || job_; });
      if (stopping_) return;
      lock.unlock();
      job_();
      lock.lock();
      job_ = nullptr;
      changed_.notify_all();
    }
  }

  std::mutex mutex_;
  std::condition_variable changed_;
  std::function<void()> job_;
  bool stopping_ = false;
  std::thread thread_;
};

YUVConverter::~YUVConverter() {
  sws_freeContext(scaler_);
  av_frame_free(&source_);
  av_frame_free(&target_);
}

std::shared_ptr<AVFrame> YUVConverter::share() const {
  AVFrame* reference = av_frame_clone(target_);
  if (!reference) return nullptr;
  return {reference, [](AVFrame* frame) { av_frame_free(&frame); }};
}

int YUVConverter::prepareScaler(int sourceWidth, int sourceHeight) {
  sws_freeContext(scaler_);
  scaler_ = sws_alloc_context();
  if (!scaler_) return AVERROR(ENOMEM);
  av_opt_set_int(scaler_, "srcw", sourceWidth, 0);
  av_opt_set_int(scaler_, "srch", sourceHeight, 0);
  av_opt_set_int(scaler_, "src_format", AV_PIX_FMT_BGRA, 0);
  av_opt_set_int(scaler_, "dstw", width_, 0);
  av_opt_set_int(scaler_, "dsth", height_, 0);
  av_opt_set_int(scaler_, "dst_format", pixelFormat(layout_), 0);
  av_opt_set_int(scaler_, "sws_flags", SWS_BILINEAR, 0);
  av_opt_set_int(scaler_, "threads", threads_, 0);
  if (const int status = sws_init_context(scaler_, nullptr, nullptr); status < 0) {
    sws_freeContext(scaler_);
    scaler_ = nullptr;
    return status;
  }
  // Full-range RGB in, BT.709 limited range out, as the stream's colour description says.
  const int* bt709 = sws_getCoefficients(SWS_CS_ITU709);
  sws_setColorspaceDetails(scaler_, bt709, 1, bt709, 0, 0, 1 << 16, 1 << 16);
  sourceWidth_ = sourceWidth;
  sourceHeight_ = sourceHeight;
  return 0;
}

void YUVConverter::convertSameSize(const CapturedFrame& source) {
  AVFrame* picture = target_;
  const auto rows = [&](int first, int count) {
    convertBGRAToI420(
        source.pixels + static_cast<std::ptrdiff_t>(first) * source.bytesPerRow, source.bytesPerRow,
        width_, count,
        {picture->data[0] + static_cast<std::ptrdiff_t>(first) * picture->linesize[0],
         picture->data[1] + static_cast<std::ptrdiff_t>(first / 2) * picture->linesize[1],
         picture->data[2] + static_cast<std::ptrdiff_t>(first / 2) * picture->linesize[2],
         picture->linesize[0], picture->linesize[1], picture->linesize[2]});
  };
  // The encoder waits for the picture, so both cores may share the work; halves start on an
  // even row so each chroma row comes from one of them.
  const int half = (height_ / 2) & ~1;
  if (threads_ < 2 || half == 0) {
    rows(0, height_);
    return;
  }
  if (!worker_) worker_ = std::make_unique<HalfWorker>();
  worker_->split([&] { rows(0, half); }, [&] { rows(half, height_ - half); });
}

int YUVConverter::convert(const CapturedFrame& source) {
  if (!target_ || !source_) return AVERROR(ENOMEM);
  if (!source.pixels || source.width <= 0 || source.height <= 0 ||
      source.bytesPerRow < source.width * 4) {
    return AVERROR(EINVAL);
  }
  if (layout_ == Layout::planar && source.width == width_ && source.height == height_) {
    if (const int status = av_frame_make_writable(target_); status < 0) return status;
    convertSameSize(source);
    return 0;
  }
  if (!scaler_ || source.width != sourceWidth_ || source.height != sourceHeight_) {
    if (const int status = prepareScaler(source.width, source.height); status < 0) return status;
  }
  if (const int status = av_frame_make_writable(target_); status < 0) return status;

  // The pixels belong to the capture; a buffer that does not free them lets libswscale read
  // them in place instead of copying the frame.
  av_frame_unref(source_);
  const auto size =
      static_cast<std::size_t>(source.bytesPerRow) * static_cast<std::size_t>(source.height);
  source_->buf[0] = av_buffer_create(
      const_cast<std::uint8_t*>(source.pixels), size, [](void*, std::uint8_t*) {}, nullptr,
      AV_BUFFER_FLAG_READONLY);
  if (!source_->buf[0]) return AVERROR(ENOMEM);
  source_->data[0] = source_->buf[0]->data;
  source_->linesize[0] = source.bytesPerRow;
  source_->width = source.width;
  source_->height = source.height;
  source_->format = AV_PIX_FMT_BGRA;
  const int status = sws_scale_frame(scaler_, target_, source_);
  av_frame_unref(source_);
  return status < 0 ? status : 0;
}

struct LibavHEVCEncoder::State {
  std::unique_ptr<AVCodecContext, CodecContextDeleter> context;
  std::unique_ptr<AVBufferRef, BufferDeleter> device;
  std::unique_ptr<AVBufferRef, BufferDeleter> hardwareFrames;
  std::unique_ptr<YUVConverter> converter;
  std::unique_ptr<AVFrame, FrameDeleter> upload;
  std::unique_ptr<AVPacket, PacketDeleter> packet{av_packet_alloc()};
  ThreadPriorityKeeper encoderThreads;
};

int LibavHEVCEncoder::openCandidate(std::string_view name, const EncoderSettings& settings,
                                    const std::string& renderNode, State& state) {
  const AVCodec* codec = avcodec_find_encoder_by_name(std::string(name).c_str());
  if (!codec) return AVERROR_ENCODER_NOT_FOUND;
  state.context.reset(avcodec_alloc_context3(codec));
  if (!state.context || !state.packet) return AVERROR(ENOMEM);
  AVCodecContext* context = state.context.get();
  configureCommon(context, settings);

  auto layout = YUVConverter::Layout::planar;
  if (name == x265) {
    configureX265(context, settings);
  } else if (name == nvenc) {
    configureNvenc(context);
  } else if (name == vaapi) {
    AVBufferRef* device = nullptr;
    if (const int status =
            av_hwdevice_ctx_create(&device, AV_HWDEVICE_TYPE_VAAPI, renderNode.c_str(), nullptr, 0);
        status < 0) {
      return status;
    }
    state.device.reset(device);
    state.hardwareFrames.reset(av_hwframe_ctx_alloc(device));
    if (!state.hardwareFrames) return AVERROR(ENOMEM);
    auto* frames = reinterpret_cast<AVHWFramesContext*>(state.hardwareFrames->data);
    frames->format = AV_PIX_FMT_VAAPI;
    frames->sw_format = AV_PIX_FMT_NV12;
    frames->width = settings.width;
    frames->height = settings.height;
    frames->initial_pool_size = 4;
    if (const int status = av_hwframe_ctx_init(state.hardwareFrames.get()); status < 0) {
      return status;
    }
    context->pix_fmt = AV_PIX_FMT_VAAPI;
    context->hw_frames_ctx = av_buffer_ref(state.hardwareFrames.get());
    if (!context->hw_frames_ctx) return AVERROR(ENOMEM);
    setOption(context, "async_depth", "1");
    layout = YUVConverter::Layout::nv12;
    state.upload.reset(av_frame_alloc());
    if (!state.upload) return AVERROR(ENOMEM);
  } else {
    return AVERROR_ENCODER_NOT_FOUND;
  }

  if (const int status = avcodec_open2(context, codec, nullptr); status < 0) return status;
  state.converter =
      std::make_unique<YUVConverter>(settings.width, settings.height, layout, conversionThreads());
  if (!state.converter->target()) return AVERROR(ENOMEM);
  return 0;
}

std::vector<std::string_view> LibavHEVCEncoder::defaultCandidates() {
  return {nvenc, vaapi, x265};
}

LibavHEVCEncoder::LibavHEVCEncoder(const EncoderSettings& settings,
                                   std::span<const std::string_view> candidates) {
  if (settings.width <= 0 || settings.height <= 0 || settings.width % 2 != 0 ||
      settings.height % 2 != 0 || settings.framesPerSecond <= 0 || settings.averageBitrate <= 0) {
    throw VideoEncoderError::sessionCreationFailed(AVERROR(EINVAL));
  }
  installLogFilter();
  const std::vector<std::string> nodes = renderNodes();
  const std::vector<pid_t> threadsBefore = ThreadPriorityKeeper::threads();
  int status = AVERROR_ENCODER_NOT_FOUND;
  for (std::size_t i = 0; i < candidates.size(); ++i) {
    const std::string_view name = candidates[i];
    const bool last = i + 1 == candidates.size();
    std::vector<std::string> devices{""};
    if (name == vaapi) devices = nodes;
    for (const auto& device : devices) {
      ProbeScope quiet(!last);
      auto state = std::make_unique<State>();
      status = openCandidate(name, settings, device, *state);
      if (status == 0) {
        state->encoderThreads.adoptStartedBetween(threadsBefore, ThreadPriorityKeeper::threads());
        state_ = std::move(state);
        name_ = name;
        return;
      }
    }
  }
  throw VideoEncoderError::sessionCreationFailed(status);
}

LibavHEVCEncoder::~LibavHEVCEncoder() = default;

std::span<const std::uint8_t> LibavHEVCEncoder::globalHeader() const {
  const AVCodecContext* context = state_->context.get();
  if (!context->extradata || context->extradata_size <= 0) return {};
  return {context->extradata, static_cast<std::size_t>(context->extradata_size)};
}

int LibavHEVCEncoder::prepare(const CapturedFrame& frame, Picture& picture) {
  YUVConverter& converter = *state_->converter;
  if (const int status = converter.convert(frame); status < 0) return status;
  picture.frame = converter.share();
  if (!picture.frame) return AVERROR(ENOMEM);
  picture.presentationTimeMicroseconds = frame.presentationTimeMicroseconds;
  return 0;
}

int LibavHEVCEncoder::encode(const Picture& prepared, bool forceKeyframe, const PacketSink& sink) {
  State& state = *state_;
  int status = 0;
  AVFrame* picture = prepared.frame.get();
  if (state.hardwareFrames) {
    av_frame_unref(state.upload.get());
    status = av_hwframe_get_buffer(state.hardwareFrames.get(), state.upload.get(), 0);
    if (status < 0) return status;
    status = av_hwframe_transfer_data(state.upload.get(), picture, 0);
    if (status < 0) return status;
    picture = state.upload.get();
  }
  picture->pts = static_cast<std::int64_t>(std::min<std::uint64_t>(
      prepared.presentationTimeMicroseconds,
      static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())));
  picture->pict_type = forceKeyframe ? AV_PICTURE_TYPE_I : AV_PICTURE_TYPE_NONE;

  AVCodecContext* context = state.context.get();
  status = avcodec_send_frame(context, picture);
  if (status < 0) return status;
  state.encoderThreads.restore();

  AVPacket* packet = state.packet.get();
  for (;;) {
    status = avcodec_receive_packet(context, packet);
    if (status == AVERROR(EAGAIN) || status == AVERROR_EOF) return 0;
    if (status < 0) return status;
    hevc::EncodedPacket encoded;
    encoded.annexB = {packet->data, static_cast<std::size_t>(packet->size)};
    encoded.keyFlag = (packet->flags & AV_PKT_FLAG_KEY) != 0;
    if (packet->pts != AV_NOPTS_VALUE) encoded.pts = packet->pts;
    encoded.timeBase = {context->time_base.num, context->time_base.den};
    sink(encoded);
    av_packet_unref(packet);
  }
}

}  // namespace orin::screen
