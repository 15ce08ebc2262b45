#include "OrinLink/screenstream/X11DisplayBackend.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <sys/ipc.h>
#include <sys/mman.h>
#include <sys/shm.h>
#include <unistd.h>
#include <vector>
#include <xcb/randr.h>
#include <xcb/shm.h>
#include <xcb/xcb.h>
#include <xcb/xfixes.h>

#include "OrinLink/screenstream/DisplayCaptureError.h"
#include "OrinLink/screenstream/FramePool.h"
#include "OrinLink/screenstream/XcbSupport.h"

namespace orin::screen {

std::uint32_t displayIdForMonitorName(std::string_view name) {
  std::uint32_t hash = 2166136261u;
  for (char c : name) {
    hash ^= static_cast<std::uint8_t>(c);
    hash *= 16777619u;
  }
  return hash <= wholeScreenDisplayID ? hash + 2 : hash;
}

std::uint32_t displayIdForMonitorName(std::string_view name,
                                      std::span<const std::uint32_t> earlier) {
  std::uint32_t id = displayIdForMonitorName(name);
  while (std::find(earlier.begin(), earlier.end(), id) != earlier.end()) {
    id = id + 1 > wholeScreenDisplayID ? id + 1 : wholeScreenDisplayID + 1;
  }
  return id;
}

std::optional<std::string> edidMonitorName(std::span<const std::uint8_t> edid) {
  constexpr std::size_t descriptors[] = {54, 72, 90, 108};
  if (edid.size() < 128) return std::nullopt;
  for (std::size_t at : descriptors) {
    const std::uint8_t* d = edid.data() + at;
    if (d[0] != 0 || d[1] != 0 || d[2] != 0 || d[3] != 0xFC) continue;
    std::string name;
    for (std::size_t i = 5; i < 18 && d[i] != 0x0A && d[i] != 0; ++i) {
      name.push_back(static_cast<char>(d[i]));
    }
    while (!name.empty() && name.back() == ' ')
      name.pop_back();
    if (!name.empty()) return name;
  }
  return std::nullopt;
}

void blendCursor(std::uint8_t* bgra, int width, int height, int bytesPerRow,
                 const std::uint32_t* argb, int cursorWidth, int cursorHeight, int left, int top) {
  int x0 = std::max(0, -left);
  int y0 = std::max(0, -top);
  int x1 = std::min(cursorWidth, width - left);
  int y1 = std::min(cursorHeight, height - top);
  for (int y = y0; y < y1; ++y) {
    const std::uint32_t* src = argb + static_cast<std::ptrdiff_t>(y) * cursorWidth;
    std::uint8_t* row = bgra + static_cast<std::ptrdiff_t>(y + top) * bytesPerRow;
    for (int x = x0; x < x1; ++x) {
      std::uint32_t p = src[x];
      std::uint32_t alpha = p >> 24;
      if (alpha == 0) continue;
      std::uint8_t* dst = row + static_cast<std::ptrdiff_t>(x + left) * 4;
      std::uint32_t keep = 255 - alpha;
      for (int c = 0; c < 3; ++c) {
        std::uint32_t s = (p >> (8 * c)) & 0xFF;
        std::uint32_t blended = s + (dst[c] * keep + 127) / 255;
        dst[c] = static_cast<std::uint8_t>(std::min<std::uint32_t>(blended, 255));
      }
    }
  }
}

namespace {

DisplayCaptureError xError(const xcb_generic_error_t* error) {
  return DisplayCaptureError::captureFailed("X11", error ? error->error_code : 0);
}

class Connection {
 public:
  explicit Connection(const std::string& displayName) {
    std::string name = effectiveDisplayName(displayName);
    int screenNumber = 0;
    connection_ = xcb_connect(name.empty() ? nullptr : name.c_str(), &screenNumber);
    if (xcb_connection_has_error(connection_)) {
      xcb_disconnect(connection_);
      throw DisplayCaptureError::displayServerUnreachable(name);
    }
    auto roots = xcb_setup_roots_iterator(xcb_get_setup(connection_));
    for (int i = 0; i < screenNumber && roots.rem > 0; ++i)
      xcb_screen_next(&roots);
    if (roots.rem == 0) {
      xcb_disconnect(connection_);
      throw DisplayCaptureError::displayServerUnreachable(name);
    }
    screen_ = roots.data;
  }
  ~Connection() { xcb_disconnect(connection_); }
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  xcb_connection_t* get() const { return connection_; }
  const xcb_screen_t& screen() const { return *screen_; }
  xcb_window_t root() const { return screen_->root; }

  // A request that got no reply either failed or lost the connection; this tells which.
  DisplayCaptureError failure(const xcb_generic_error_t* error) const {
    if (xcb_connection_has_error(connection_)) return DisplayCaptureError::connectionLost();
    return xError(error);
  }

  bool hasExtension(xcb_extension_t* extension) const {
    const auto* data = xcb_get_extension_data(connection_, extension);
    return data && data->present;
  }

 private:
  xcb_connection_t* connection_ = nullptr;
  const xcb_screen_t* screen_ = nullptr;
};

struct Monitor {
  BackendDisplay display;
  int x = 0;
  int y = 0;
};

bool hasMonitors(const Connection& c) {
  if (!c.hasExtension(&xcb_randr_id)) return false;
  Reply<xcb_randr_query_version_reply_t> version(
      xcb_randr_query_version_reply(c.get(), xcb_randr_query_version(c.get(), 1, 5), nullptr));
  return version && (version->major_version > 1 || version->minor_version >= 5);
}

std::string atomName(const Connection& c, xcb_atom_t atom) {
  Reply<xcb_get_atom_name_reply_t> reply(
      xcb_get_atom_name_reply(c.get(), xcb_get_atom_name(c.get(), atom), nullptr));
  if (!reply) return {};
  return {xcb_get_atom_name_name(reply.get()),
          static_cast<std::size_t>(xcb_get_atom_name_name_length(reply.get()))};
}

std::optional<std::string> outputName(const Connection& c, xcb_randr_output_t output,
                                      xcb_atom_t edidAtom) {
  if (edidAtom != XCB_ATOM_NONE) {
    Reply<xcb_randr_get_output_property_reply_t> edid(xcb_randr_get_output_property_reply(
        c.get(),
        xcb_randr_get_output_property(c.get(), output, edidAtom, XCB_ATOM_ANY, 0, 64, 0, 0),
        nullptr));
    if (edid && edid->format == 8) {
      auto name = edidMonitorName({xcb_randr_get_output_property_data(edid.get()),
                                   static_cast<std::size_t>(edid->num_items)});
      if (name) return name;
    }
  }
  Reply<xcb_randr_get_output_info_reply_t> info(xcb_randr_get_output_info_reply(
      c.get(), xcb_randr_get_output_info(c.get(), output, XCB_CURRENT_TIME), nullptr));
  if (!info || xcb_randr_get_output_info_name_length(info.get()) == 0) return std::nullopt;
  return std::string(reinterpret_cast<const char*>(xcb_randr_get_output_info_name(info.get())),
                     static_cast<std::size_t>(xcb_randr_get_output_info_name_length(info.get())));
}

// Throws when the connection fails on the way; a server without monitors yields the screen.
std::vector<Monitor> queryMonitors(const Connection& c, bool randr, bool withNames) {
  std::vector<Monitor> monitors;
  if (randr) {
    Reply<xcb_randr_get_monitors_reply_t> reply(xcb_randr_get_monitors_reply(
        c.get(), xcb_randr_get_monitors(c.get(), c.root(), 1), nullptr));
    if (!reply) throw c.failure(nullptr);
    xcb_atom_t edidAtom = XCB_ATOM_NONE;
    if (withNames) {
      Reply<xcb_intern_atom_reply_t> atom(
          xcb_intern_atom_reply(c.get(), xcb_intern_atom(c.get(), 1, 4, "EDID"), nullptr));
      if (atom) edidAtom = atom->atom;
    }
    std::vector<std::uint32_t> ids;
    for (auto it = xcb_randr_get_monitors_monitors_iterator(reply.get()); it.rem > 0;
         xcb_randr_monitor_info_next(&it)) {
      const xcb_randr_monitor_info_t* info = it.data;
      if (info->width == 0 || info->height == 0) continue;
      std::string monitorName = atomName(c, info->name);
      std::uint32_t id = displayIdForMonitorName(monitorName, ids);
      ids.push_back(id);
      Monitor monitor{{id, std::nullopt, info->width, info->height}, info->x, info->y};
      if (withNames) {
        if (xcb_randr_monitor_info_outputs_length(info) > 0) {
          monitor.display.screenName =
              outputName(c, xcb_randr_monitor_info_outputs(info)[0], edidAtom);
        }
        if (!monitor.display.screenName && !monitorName.empty()) {
          monitor.display.screenName = monitorName;
        }
      }
      monitors.push_back(std::move(monitor));
    }
  }
  if (monitors.empty()) {
    monitors.push_back({{wholeScreenDisplayID, std::nullopt, c.screen().width_in_pixels,
                         c.screen().height_in_pixels},
                        0,
                        0});
  }
  return monitors;
}

// Only 32-bit little-endian pixels with 8-bit channels in BGRX order can be handed on as is.
void checkPixelFormat(const Connection& c) {
  const xcb_setup_t* setup = xcb_get_setup(c.get());
  const xcb_screen_t& screen = c.screen();
  int depth = screen.root_depth;
  bool bpp32 = false;
  for (auto it = xcb_setup_pixmap_formats_iterator(setup); it.rem > 0; xcb_format_next(&it)) {
    if (it.data->depth == depth) bpp32 = it.data->bits_per_pixel == 32;
  }
  bool bgrx = false;
  for (auto d = xcb_screen_allowed_depths_iterator(&screen); d.rem > 0; xcb_depth_next(&d)) {
    for (auto v = xcb_depth_visuals_iterator(d.data); v.rem > 0; xcb_visualtype_next(&v)) {
      if (v.data->visual_id == screen.root_visual) {
        bgrx = v.data->red_mask == 0xFF0000 && v.data->green_mask == 0xFF00 &&
               v.data->blue_mask == 0xFF;
      }
    }
  }
  if (!bpp32 || !bgrx || setup->image_byte_order != XCB_IMAGE_ORDER_LSB_FIRST ||
      (depth != 24 && depth != 32)) {
    throw DisplayCaptureError::unsupportedFormat(depth);
  }
}

// Shared-memory segments mapped into this process; unmapped once the pool and every frame lent
// from it are gone, which may be after the capture and its connection ended.
struct Segments {
  std::vector<std::uint8_t*> maps;
  std::size_t bytes = 0;
  bool systemV = false;

  Segments() = default;
  Segments(const Segments&) = delete;
  Segments& operator=(const Segments&) = delete;
  ~Segments() {
    for (std::uint8_t* p : maps) {
      if (systemV) {
        shmdt(p);
      } else {
        munmap(p, bytes);
      }
    }
  }
};

class X11FrameSource : public FrameSource {
 public:
  X11FrameSource(std::unique_ptr<Connection> connection, Monitor monitor, bool randr,
                 std::size_t bufferCount)
      : connection_(std::move(connection)),
        monitor_(std::move(monitor)),
        randr_(randr),
        bufferCount_(bufferCount) {
    const Connection& c = *connection_;
    checkPixelFormat(c);
    if (c.hasExtension(&xcb_shm_id)) {
      Reply<xcb_shm_query_version_reply_t> version(
          xcb_shm_query_version_reply(c.get(), xcb_shm_query_version(c.get()), nullptr));
      if (version) {
        shm_ = true;
        fdPassing_ = version->major_version > 1 || version->minor_version >= 2;
      }
    }
    if (c.hasExtension(&xcb_xfixes_id)) {
      Reply<xcb_xfixes_query_version_reply_t> version(xcb_xfixes_query_version_reply(
          c.get(), xcb_xfixes_query_version(c.get(), 4, 0), nullptr));
      cursor_ = version && version->major_version >= 1;
    }
    if (randr_) {
      xcb_randr_select_input(c.get(), c.root(),
                             XCB_RANDR_NOTIFY_MASK_SCREEN_CHANGE |
                                 XCB_RANDR_NOTIFY_MASK_CRTC_CHANGE |
                                 XCB_RANDR_NOTIFY_MASK_OUTPUT_CHANGE);
      randrEventBase_ = xcb_get_extension_data(c.get(), &xcb_randr_id)->first_event;
    }
    nextCheck_ = std::chrono::steady_clock::now() + checkInterval;
  }

  std::optional<CapturedFrame> grab() override {
    watchDisplay();
    std::size_t bytes = frameBytes();
    if (shm_ && bytes > capacity_) allocate(bytes);
    if (!shm_) return grabWithoutSharedMemory();

    auto lease = pool_->acquire();
    if (!lease) return std::nullopt;
    xcb_connection_t* c = connection_->get();
    const BackendDisplay& d = monitor_.display;
    auto imageCookie = xcb_shm_get_image(
        c, connection_->root(), static_cast<std::int16_t>(monitor_.x),
        static_cast<std::int16_t>(monitor_.y), static_cast<std::uint16_t>(d.pointWidth),
        static_cast<std::uint16_t>(d.pointHeight), ~0u, XCB_IMAGE_FORMAT_Z_PIXMAP,
        segments_[lease->index], 0);
    xcb_xfixes_get_cursor_image_cookie_t cursorCookie{};
    if (cursor_) cursorCookie = xcb_xfixes_get_cursor_image(c);

    xcb_generic_error_t* error = nullptr;
    Reply<xcb_shm_get_image_reply_t> image(xcb_shm_get_image_reply(c, imageCookie, &error));
    // Stamped once the pixels are ours: whatever they show was drawn before this moment, however
    // long the server took to get to the request.
    const std::uint64_t time = monotonicMicroseconds();
    Reply<xcb_generic_error_t> imageError(error);
    if (cursor_) drawCursor(cursorCookie, lease->data);
    if (!image) throw vanishedOr(imageError.get());

    return CapturedFrame{d.pointWidth, d.pointHeight, d.pointWidth * 4,
                         lease->data,  time,          std::move(lease->owner)};
  }

 private:
  static constexpr auto checkInterval = std::chrono::milliseconds(500);

  std::size_t frameBytes() const {
    return static_cast<std::size_t>(monitor_.display.pointWidth) *
           static_cast<std::size_t>(monitor_.display.pointHeight) * 4;
  }

  // Follows the monitor through RandR changes. Monitor edits do not always raise an event, so
  // the list is also read again twice a second.
  void watchDisplay() {
    xcb_connection_t* c = connection_->get();
    bool changed = false;
    while (Reply<xcb_generic_event_t> event{xcb_poll_for_event(c)}) {
      std::uint8_t type = event->response_type & 0x7F;
      if (randr_ && (type == randrEventBase_ + XCB_RANDR_SCREEN_CHANGE_NOTIFY ||
                     type == randrEventBase_ + XCB_RANDR_NOTIFY)) {
        changed = true;
      }
    }
    if (xcb_connection_has_error(c)) throw DisplayCaptureError::connectionLost();
    auto now = std::chrono::steady_clock::now();
    if (!changed && now < nextCheck_) return;
    nextCheck_ = now + checkInterval;
    refreshGeometry();
  }

  void refreshGeometry() {
    auto monitors = queryMonitors(*connection_, randr_, false);
    auto found = std::find_if(monitors.begin(), monitors.end(), [&](const Monitor& m) {
      return m.display.id == monitor_.display.id;
    });
    if (found == monitors.end()) throw DisplayCaptureError::displayNotFound();
    monitor_.x = found->x;
    monitor_.y = found->y;
    monitor_.display.pointWidth = found->display.pointWidth;
    monitor_.display.pointHeight = found->display.pointHeight;
  }

  // A grab refused by the server usually means the screen shrank under the monitor.
  DisplayCaptureError vanishedOr(const xcb_generic_error_t* error) {
    if (xcb_connection_has_error(connection_->get())) {
      return DisplayCaptureError::connectionLost();
    }
    refreshGeometry();
    return xError(error);
  }

  void drawCursor(xcb_xfixes_get_cursor_image_cookie_t cookie, std::uint8_t* pixels) {
    Reply<xcb_xfixes_get_cursor_image_reply_t> cursor(
        xcb_xfixes_get_cursor_image_reply(connection_->get(), cookie, nullptr));
    if (!cursor) return;
    const BackendDisplay& d = monitor_.display;
    blendCursor(pixels, d.pointWidth, d.pointHeight, d.pointWidth * 4,
                xcb_xfixes_get_cursor_image_cursor_image(cursor.get()), cursor->width,
                cursor->height, cursor->x - cursor->xhot - monitor_.x,
                cursor->y - cursor->yhot - monitor_.y);
  }

  // Segments are sized for the display as it is now and replaced when it grows; frames still
  // out keep the old ones alive.
  void allocate(std::size_t bytes) {
    xcb_connection_t* c = connection_->get();
    for (xcb_shm_seg_t seg : segments_)
      xcb_shm_detach(c, seg);
    segments_.clear();
    pool_.reset();
    capacity_ = 0;

    auto storage = std::make_shared<Segments>();
    storage->bytes = bytes;
    storage->systemV = !fdPassing_;
    for (std::size_t i = 0; i < bufferCount_; ++i) {
      std::uint8_t* map = nullptr;
      xcb_shm_seg_t seg = xcb_generate_id(c);
      xcb_void_cookie_t cookie{};
      if (fdPassing_) {
        int fd = memfd_create("orinlink-capture", MFD_CLOEXEC);
        if (fd < 0) throw DisplayCaptureError::captureFailed("system", errno);
        if (ftruncate(fd, static_cast<off_t>(bytes)) != 0) {
          int code = errno;
          close(fd);
          throw DisplayCaptureError::captureFailed("system", code);
        }
        void* p = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_POPULATE, fd, 0);
        if (p == MAP_FAILED) {
          int code = errno;
          close(fd);
          throw DisplayCaptureError::captureFailed("system", code);
        }
        map = static_cast<std::uint8_t*>(p);
        storage->maps.push_back(map);
        cookie = xcb_shm_attach_fd_checked(c, seg, fd, 0);  // xcb closes the descriptor
      } else {
        int id = shmget(IPC_PRIVATE, bytes, IPC_CREAT | 0600);
        if (id < 0) throw DisplayCaptureError::captureFailed("system", errno);
        void* p = shmat(id, nullptr, 0);
        if (p == reinterpret_cast<void*>(-1)) {
          int code = errno;
          shmctl(id, IPC_RMID, nullptr);
          throw DisplayCaptureError::captureFailed("system", code);
        }
        map = static_cast<std::uint8_t*>(p);
        storage->maps.push_back(map);
        cookie = xcb_shm_attach_checked(c, seg, static_cast<std::uint32_t>(id), 0);
        // Marked for removal once the server has attached, so nothing outlives a crash.
        Reply<xcb_generic_error_t> attachError(xcb_request_check(c, cookie));
        shmctl(id, IPC_RMID, nullptr);
        if (attachError) return fallBackToCopies();
        segments_.push_back(seg);
        continue;
      }
      Reply<xcb_generic_error_t> attachError(xcb_request_check(c, cookie));
      if (attachError) return fallBackToCopies();
      segments_.push_back(seg);
    }
    pool_ = FramePool::create(storage->maps, storage);
    capacity_ = bytes;
  }

  // A server that cannot share our memory (another host or IPC namespace) is captured through
  // plain GetImage instead.
  void fallBackToCopies() {
    if (xcb_connection_has_error(connection_->get())) throw DisplayCaptureError::connectionLost();
    for (xcb_shm_seg_t seg : segments_)
      xcb_shm_detach(connection_->get(), seg);
    segments_.clear();
    shm_ = false;
  }

  // The reply's own buffer carries the pixels onwards, so this path copies nothing either.
  std::optional<CapturedFrame> grabWithoutSharedMemory() {
    xcb_connection_t* c = connection_->get();
    const BackendDisplay& d = monitor_.display;
    auto imageCookie = xcb_get_image(
        c, XCB_IMAGE_FORMAT_Z_PIXMAP, connection_->root(), static_cast<std::int16_t>(monitor_.x),
        static_cast<std::int16_t>(monitor_.y), static_cast<std::uint16_t>(d.pointWidth),
        static_cast<std::uint16_t>(d.pointHeight), ~0u);
    xcb_xfixes_get_cursor_image_cookie_t cursorCookie{};
    if (cursor_) cursorCookie = xcb_xfixes_get_cursor_image(c);
    xcb_generic_error_t* error = nullptr;
    std::shared_ptr<xcb_get_image_reply_t> image(xcb_get_image_reply(c, imageCookie, &error),
                                                 FreeReply{});
    const std::uint64_t time = monotonicMicroseconds();
    Reply<xcb_generic_error_t> imageError(error);
    if (!image || static_cast<std::size_t>(xcb_get_image_data_length(image.get())) < frameBytes()) {
      if (cursor_) xcb_discard_reply(c, cursorCookie.sequence);
      throw vanishedOr(imageError.get());
    }
    std::uint8_t* pixels = xcb_get_image_data(image.get());
    if (cursor_) drawCursor(cursorCookie, pixels);
    return CapturedFrame{d.pointWidth, d.pointHeight, d.pointWidth * 4,
                         pixels,       time,          std::shared_ptr<const void>(image, pixels)};
  }

  std::unique_ptr<Connection> connection_;
  Monitor monitor_;
  bool randr_ = false;
  std::size_t bufferCount_;
  bool shm_ = false;
  bool fdPassing_ = false;
  bool cursor_ = false;
  std::uint8_t randrEventBase_ = 0;
  std::chrono::steady_clock::time_point nextCheck_;
  std::vector<xcb_shm_seg_t> segments_;
  std::shared_ptr<FramePool> pool_;
  std::size_t capacity_ = 0;
};

}  // namespace

X11DisplayBackend::X11DisplayBackend(std::string displayName, std::size_t bufferCount)
    : displayName_(std::move(displayName)), bufferCount_(std::max<std::size_t>(bufferCount, 1)) {}

std::vector<BackendDisplay> X11DisplayBackend::displays() {
  Connection connection(displayName_);
  std::vector<BackendDisplay> result;
  for (auto& monitor : queryMonitors(connection, hasMonitors(connection), true)) {
    result.push_back(std::move(monitor.display));
  }
  return result;
}

std::unique_ptr<FrameSource> X11DisplayBackend::open(std::uint32_t displayID) {
  auto connection = std::make_unique<Connection>(displayName_);
  bool randr = hasMonitors(*connection);
  auto monitors = queryMonitors(*connection, randr, false);
  auto found = std::find_if(monitors.begin(), monitors.end(),
                            [&](const Monitor& m) { return m.display.id == displayID; });
  if (found == monitors.end()) throw DisplayCaptureError::displayNotFound();
  return std::make_unique<X11FrameSource>(std::move(connection), *found, randr, bufferCount_);
}

}  // namespace orin::screen
