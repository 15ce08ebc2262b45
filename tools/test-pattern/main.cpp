// Draws an animated test picture over the whole X screen at a given rate, with a time stamp
// (TestStamp.h) at the top-left corner of every monitor, until it is terminated or the X server
// goes away. Prints "ready" once the first frame is on the screen.
//
//   orin-test-pattern [--fps N] [--cell PIXELS] [--display NAME]

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <string>
#include <vector>
#include <xcb/randr.h>
#include <xcb/xcb.h>

#include "TestStamp.h"

namespace {

std::atomic<bool> stopRequested = false;

struct FreeReply {
  void operator()(void* p) const { std::free(p); }
};
template <typename T>
using Reply = std::unique_ptr<T, FreeReply>;

struct Options {
  int fps = 60;
  int cell = orin::teststamp::defaultCellSize;
  std::string display;
};

bool parse(int argc, char** argv, Options& options) {
  for (int i = 1; i < argc; ++i) {
    std::string arg = argv[i];
    if (i + 1 >= argc) return false;
    std::string value = argv[++i];
    if (arg == "--fps") {
      options.fps = std::atoi(value.c_str());
    } else if (arg == "--cell") {
      options.cell = std::atoi(value.c_str());
    } else if (arg == "--display") {
      options.display = value;
    } else {
      return false;
    }
  }
  return options.fps > 0 && options.fps <= 1000 && options.cell >= 2 && options.cell <= 256;
}

std::uint64_t nowMicroseconds() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<std::uint64_t>(now.tv_sec) * 1'000'000u +
         static_cast<std::uint64_t>(now.tv_nsec) / 1'000u;
}

struct Point {
  std::int16_t x = 0;
  std::int16_t y = 0;
};

class Pattern {
 public:
  Pattern(xcb_connection_t* c, const xcb_screen_t& screen, int cell)
      : c_(c), screen_(screen), cell_(cell) {
    const auto* randr = xcb_get_extension_data(c_, &xcb_randr_id);
    if (randr && randr->present) {
      Reply<xcb_randr_query_version_reply_t> version(
          xcb_randr_query_version_reply(c_, xcb_randr_query_version(c_, 1, 5), nullptr));
      monitors_ = version && (version->major_version > 1 || version->minor_version >= 5);
      randrEvents_ = randr->first_event;
      xcb_randr_select_input(c_, screen_.root, XCB_RANDR_NOTIFY_MASK_SCREEN_CHANGE);
    }
    window_ = xcb_generate_id(c_);
    std::uint32_t values[] = {screen_.black_pixel, 1};
    xcb_create_window(c_, XCB_COPY_FROM_PARENT, window_, screen_.root, 0, 0,
                      screen_.width_in_pixels, screen_.height_in_pixels, 0,
                      XCB_WINDOW_CLASS_INPUT_OUTPUT, screen_.root_visual,
                      XCB_CW_BACK_PIXEL | XCB_CW_OVERRIDE_REDIRECT, values);
    xcb_map_window(c_, window_);
    gc_ = xcb_generate_id(c_);
    xcb_create_gc(c_, gc_, window_, 0, nullptr);
    stamp_ = xcb_generate_id(c_);
    xcb_create_pixmap(c_, screen_.root_depth, stamp_, window_,
                      static_cast<std::uint16_t>(cell_ * orin::teststamp::columns),
                      static_cast<std::uint16_t>(cell_ * orin::teststamp::rows));
    layOut();
  }

  void draw(std::uint32_t frame) {
    followScreenChanges();
    drawMotion(frame);
    // Everything queued so far is on screen once this returns, so the stamp's time is the time
    // the stamp itself appears.
    Reply<xcb_get_input_focus_reply_t> sync(
        xcb_get_input_focus_reply(c_, xcb_get_input_focus(c_), nullptr));
    drawStamp({nowMicroseconds(), frame});
    xcb_flush(c_);
  }

 private:
  void layOut() {
    Reply<xcb_get_geometry_reply_t> geometry(
        xcb_get_geometry_reply(c_, xcb_get_geometry(c_, screen_.root), nullptr));
    if (geometry) {
      width_ = geometry->width;
      height_ = geometry->height;
    }
    std::uint32_t size[] = {width_, height_};
    xcb_configure_window(c_, window_, XCB_CONFIG_WINDOW_WIDTH | XCB_CONFIG_WINDOW_HEIGHT, size);
    origins_.assign(1, Point{});
    if (!monitors_) return;
    Reply<xcb_randr_get_monitors_reply_t> reply(
        xcb_randr_get_monitors_reply(c_, xcb_randr_get_monitors(c_, screen_.root, 1), nullptr));
    if (!reply || xcb_randr_get_monitors_monitors_length(reply.get()) == 0) return;
    origins_.clear();
    for (auto it = xcb_randr_get_monitors_monitors_iterator(reply.get()); it.rem > 0;
         xcb_randr_monitor_info_next(&it)) {
      origins_.push_back({it.data->x, it.data->y});
    }
  }

  void followScreenChanges() {
    bool changed = false;
    while (Reply<xcb_generic_event_t> event{xcb_poll_for_event(c_)}) {
      if ((event->response_type & 0x7F) == randrEvents_ + XCB_RANDR_SCREEN_CHANGE_NOTIFY) {
        changed = true;
      }
    }
    if (changed) layOut();
  }

  void fill(xcb_drawable_t target, std::uint32_t color, const std::vector<xcb_rectangle_t>& rects) {
    if (rects.empty()) return;
    xcb_change_gc(c_, gc_, XCB_GC_FOREGROUND, &color);
    xcb_poly_fill_rectangle(c_, target, gc_, static_cast<std::uint32_t>(rects.size()),
                            rects.data());
  }

  // Sixteen stripes whose colours rotate, and a bright square sweeping across: content that
  // changes everywhere without costing the server much.
  void drawMotion(std::uint32_t frame) {
    static constexpr std::uint32_t palette[] = {
        0x1F77B4, 0xFF7F0E, 0x2CA02C, 0xD62728, 0x9467BD, 0x8C564B, 0xE377C2, 0x7F7F7F,
        0xBCBD22, 0x17BECF, 0x393B79, 0x637939, 0x8C6D31, 0x843C39, 0x7B4173, 0x3182BD};
    constexpr std::uint32_t stripes = 16;
    for (std::uint32_t i = 0; i < stripes; ++i) {
      auto x0 = width_ * i / stripes;
      auto x1 = width_ * (i + 1) / stripes;
      fill(window_, palette[(i + frame / 4) % stripes],
           {{static_cast<std::int16_t>(x0), 0, static_cast<std::uint16_t>(x1 - x0),
             static_cast<std::uint16_t>(height_)}});
    }
    std::uint32_t side = std::max<std::uint32_t>(height_ / 6, 8);
    std::uint32_t travel = width_ > side ? width_ - side : 1;
    std::uint32_t x = (frame * 12) % travel;
    std::uint32_t y = height_ / 2 - side / 2 + (frame * 5) % (height_ / 3 + 1) - height_ / 6;
    fill(window_, 0xF5F5F5,
         {{static_cast<std::int16_t>(x), static_cast<std::int16_t>(y),
           static_cast<std::uint16_t>(side), static_cast<std::uint16_t>(side)}});
  }

  // Drawn off screen and copied in one request, so no grab ever sees half a stamp.
  void drawStamp(const orin::teststamp::Stamp& stamp) {
    auto bits = orin::teststamp::stampBits(stamp);
    std::vector<xcb_rectangle_t> white;
    for (std::size_t i = 0; i < bits.size(); ++i) {
      if (!bits[i]) continue;
      auto column = static_cast<int>(i) % orin::teststamp::columns;
      auto row = static_cast<int>(i) / orin::teststamp::columns;
      white.push_back({static_cast<std::int16_t>(column * cell_),
                       static_cast<std::int16_t>(row * cell_), static_cast<std::uint16_t>(cell_),
                       static_cast<std::uint16_t>(cell_)});
    }
    auto stampWidth = static_cast<std::uint16_t>(cell_ * orin::teststamp::columns);
    auto stampHeight = static_cast<std::uint16_t>(cell_ * orin::teststamp::rows);
    fill(stamp_, 0x000000, {{0, 0, stampWidth, stampHeight}});
    fill(stamp_, 0xFFFFFF, white);
    for (Point origin : origins_) {
      xcb_copy_area(c_, stamp_, window_, gc_, 0, 0, origin.x, origin.y, stampWidth, stampHeight);
    }
  }

  xcb_connection_t* c_;
  const xcb_screen_t& screen_;
  int cell_;
  bool monitors_ = false;
  std::uint8_t randrEvents_ = 0;
  xcb_window_t window_ = 0;
  xcb_gcontext_t gc_ = 0;
  xcb_pixmap_t stamp_ = 0;
  std::uint32_t width_ = 0;
  std::uint32_t height_ = 0;
  std::vector<Point> origins_;
};

}  // namespace

int main(int argc, char** argv) {
  Options options;
  if (!parse(argc, argv, options)) {
    std::fprintf(stderr, "usage: %s [--fps 1-1000] [--cell 2-256] [--display NAME]\n", argv[0]);
    return 2;
  }
  int screenNumber = 0;
  xcb_connection_t* c =
      xcb_connect(options.display.empty() ? nullptr : options.display.c_str(), &screenNumber);
  if (xcb_connection_has_error(c)) {
    std::fprintf(stderr, "orin-test-pattern: cannot connect to the X display\n");
    xcb_disconnect(c);
    return 1;
  }
  auto roots = xcb_setup_roots_iterator(xcb_get_setup(c));
  for (int i = 0; i < screenNumber && roots.rem > 0; ++i)
    xcb_screen_next(&roots);

  struct sigaction action {};
  action.sa_handler = [](int) { stopRequested = true; };
  sigaction(SIGTERM, &action, nullptr);
  sigaction(SIGINT, &action, nullptr);

  Pattern pattern(c, *roots.data, options.cell);
  const long interval = 1'000'000'000L / options.fps;
  timespec next{};
  clock_gettime(CLOCK_MONOTONIC, &next);
  for (std::uint32_t frame = 0; !stopRequested && !xcb_connection_has_error(c); ++frame) {
    pattern.draw(frame);
    // The first frame's round trip came back after the map request, so the window is up; scripts
    // wait for this line before they tell their callers the screen is ready.
    if (frame == 0) {
      std::puts("ready");
      std::fflush(stdout);
    }
    // Frames missed while the server was busy are skipped, keeping the rate and the phase.
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    do {
      next.tv_nsec += interval;
      if (next.tv_nsec >= 1'000'000'000L) {
        next.tv_nsec -= 1'000'000'000L;
        ++next.tv_sec;
      }
    } while (next.tv_sec < now.tv_sec || (next.tv_sec == now.tv_sec && next.tv_nsec < now.tv_nsec));
    clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &next, nullptr);
  }
  int status = xcb_connection_has_error(c) ? 1 : 0;
  xcb_disconnect(c);
  return status;
}
