#include "OrinLink/screenstream/XcbDisplayConfigurator.h"

#include <cstdlib>
#include <sys/uio.h>
#include <xcb/xcbext.h>

#include "OrinLink/screenstream/VirtualDisplayError.h"
#include "OrinLink/screenstream/XcbSupport.h"

namespace orin::screen {

xcb_void_cookie_t sendSetMonitor(xcb_connection_t* connection, xcb_window_t root,
                                 xcb_randr_monitor_info_t monitor,
                                 std::span<const xcb_randr_output_t> outputs) {
  struct Request {
    std::uint8_t major = 0;
    std::uint8_t minor = XCB_RANDR_SET_MONITOR;
    std::uint16_t length = 0;
    xcb_window_t window = 0;
    xcb_randr_monitor_info_t info{};
  } request;
  static_assert(sizeof(Request) == 32);
  request.window = root;
  request.info = monitor;
  request.info.nOutput = static_cast<std::uint16_t>(outputs.size());
  // xcb_send_request needs two spare entries in front of the parts, and fills in the opcode
  // and the length itself.
  iovec parts[4] = {{},
                    {},
                    {&request, sizeof request},
                    {const_cast<xcb_randr_output_t*>(outputs.data()), outputs.size_bytes()}};
  xcb_protocol_request_t protocol{outputs.empty() ? 1u : 2u, &xcb_randr_id, XCB_RANDR_SET_MONITOR,
                                  1};
  return {xcb_send_request(connection, XCB_REQUEST_CHECKED, parts + 2, &protocol)};
}

namespace {}  // namespace

struct XcbDisplayConfigurator::State {
  xcb_connection_t* c = nullptr;
  xcb_window_t root = 0;
  bool randr = false;
  bool monitors = false;
  std::uint8_t eventBase = 0;
  // RandR reports the framebuffer's physical size only in events, so it is followed from the
  // connection's setup on.
  std::uint32_t widthMM = 0;
  std::uint32_t heightMM = 0;

  VirtualDisplayError failure(const xcb_generic_error_t* error) const {
    if (xcb_connection_has_error(c)) return VirtualDisplayError::connectionLost();
    return VirtualDisplayError::requestFailed("X11", error ? error->error_code : 0);
  }

  void requireRandR() const {
    if (!randr) throw VirtualDisplayError::unsupported();
  }

  void check(xcb_void_cookie_t cookie) const {
    Reply<xcb_generic_error_t> error(xcb_request_check(c, cookie));
    if (error || xcb_connection_has_error(c)) throw failure(error.get());
  }

  // Takes the reply of a request, throwing when there is none.
  template <typename T>
  Reply<T> take(T* reply, xcb_generic_error_t* error) const {
    Reply<xcb_generic_error_t> owned(error);
    if (!reply) throw failure(owned.get());
    return Reply<T>(reply);
  }

  void drainEvents() {
    while (Reply<xcb_generic_event_t> event{xcb_poll_for_event(c)}) {
      if ((event->response_type & 0x7F) != eventBase + XCB_RANDR_SCREEN_CHANGE_NOTIFY) continue;
      auto* change = reinterpret_cast<xcb_randr_screen_change_notify_event_t*>(event.get());
      bool sideways =
          change->rotation & (XCB_RANDR_ROTATION_ROTATE_90 | XCB_RANDR_ROTATION_ROTATE_270);
      widthMM = sideways ? change->mheight : change->mwidth;
      heightMM = sideways ? change->mwidth : change->mheight;
    }
    if (xcb_connection_has_error(c)) throw VirtualDisplayError::connectionLost();
  }

  Reply<xcb_randr_get_screen_resources_current_reply_t> resources() const {
    xcb_generic_error_t* error = nullptr;
    auto* reply = xcb_randr_get_screen_resources_current_reply(
        c, xcb_randr_get_screen_resources_current(c, root), &error);
    return take(reply, error);
  }

  xcb_atom_t atom(const std::string& name) const {
    xcb_generic_error_t* error = nullptr;
    auto reply =
        take(xcb_intern_atom_reply(
                 c, xcb_intern_atom(c, 0, static_cast<std::uint16_t>(name.size()), name.c_str()),
                 &error),
             error);
    return reply->atom;
  }
};

XcbDisplayConfigurator::XcbDisplayConfigurator(const std::string& displayName)
    : state_(std::make_unique<State>()) {
  std::string name = effectiveDisplayName(displayName);
  int screenNumber = 0;
  xcb_connection_t* c = xcb_connect(name.empty() ? nullptr : name.c_str(), &screenNumber);
  if (xcb_connection_has_error(c)) {
    xcb_disconnect(c);
    throw VirtualDisplayError::displayServerUnreachable(name);
  }
  state_->c = c;
  auto roots = xcb_setup_roots_iterator(xcb_get_setup(c));
  for (int i = 0; i < screenNumber && roots.rem > 0; ++i)
    xcb_screen_next(&roots);
  if (roots.rem == 0) {
    xcb_disconnect(c);
    throw VirtualDisplayError::displayServerUnreachable(name);
  }
  state_->root = roots.data->root;
  state_->widthMM = roots.data->width_in_millimeters;
  state_->heightMM = roots.data->height_in_millimeters;

  const auto* extension = xcb_get_extension_data(c, &xcb_randr_id);
  if (!extension || !extension->present) return;
  Reply<xcb_randr_query_version_reply_t> version(
      xcb_randr_query_version_reply(c, xcb_randr_query_version(c, 1, 5), nullptr));
  if (!version) return;
  state_->randr = version->major_version > 1 || version->minor_version >= 2;
  state_->monitors = version->major_version > 1 || version->minor_version >= 5;
  state_->eventBase = extension->first_event;
  if (state_->randr) {
    xcb_randr_select_input(c, state_->root, XCB_RANDR_NOTIFY_MASK_SCREEN_CHANGE);
  }
}

XcbDisplayConfigurator::~XcbDisplayConfigurator() {
  xcb_disconnect(state_->c);
}

bool XcbDisplayConfigurator::hasMonitors() {
  return state_->monitors;
}

ScreenLimits XcbDisplayConfigurator::limits() {
  state_->requireRandR();
  xcb_generic_error_t* error = nullptr;
  auto range =
      state_->take(xcb_randr_get_screen_size_range_reply(
                       state_->c, xcb_randr_get_screen_size_range(state_->c, state_->root), &error),
                   error);
  return {range->min_width, range->min_height, range->max_width, range->max_height};
}

ScreenState XcbDisplayConfigurator::screen() {
  state_->requireRandR();
  xcb_connection_t* c = state_->c;
  auto geometryCookie = xcb_get_geometry(c, state_->root);
  auto primaryCookie = xcb_randr_get_output_primary(c, state_->root);
  auto resources = state_->resources();
  const xcb_randr_crtc_t* crtcs = xcb_randr_get_screen_resources_current_crtcs(resources.get());
  int count = xcb_randr_get_screen_resources_current_crtcs_length(resources.get());
  std::vector<xcb_randr_get_crtc_info_cookie_t> cookies;
  for (int i = 0; i < count; ++i) {
    cookies.push_back(xcb_randr_get_crtc_info(c, crtcs[i], resources->config_timestamp));
  }

  ScreenState state;
  xcb_generic_error_t* error = nullptr;
  auto geometry = state_->take(xcb_get_geometry_reply(c, geometryCookie, &error), error);
  state.width = geometry->width;
  state.height = geometry->height;
  auto primary = state_->take(xcb_randr_get_output_primary_reply(c, primaryCookie, &error), error);
  state.primary = primary->output;
  for (int i = 0; i < count; ++i) {
    auto info = state_->take(
        xcb_randr_get_crtc_info_reply(c, cookies[static_cast<std::size_t>(i)], &error), error);
    const xcb_randr_output_t* outputs = xcb_randr_get_crtc_info_outputs(info.get());
    // A CRTC switched off keeps reporting where it was; that place means nothing any more.
    bool on = info->mode != XCB_NONE;
    state.crtcs.push_back(
        {crtcs[i],
         info->mode,
         on ? info->x : 0,
         on ? info->y : 0,
         info->rotation,
         {outputs, outputs + xcb_randr_get_crtc_info_outputs_length(info.get())}});
  }
  state_->drainEvents();
  state.widthMM = state_->widthMM;
  state.heightMM = state_->heightMM;
  return state;
}

std::vector<OutputInfo> XcbDisplayConfigurator::outputs() {
  state_->requireRandR();
  xcb_connection_t* c = state_->c;
  auto resources = state_->resources();
  const xcb_randr_output_t* ids = xcb_randr_get_screen_resources_current_outputs(resources.get());
  int count = xcb_randr_get_screen_resources_current_outputs_length(resources.get());
  std::vector<xcb_randr_get_output_info_cookie_t> cookies;
  for (int i = 0; i < count; ++i) {
    cookies.push_back(xcb_randr_get_output_info(c, ids[i], resources->config_timestamp));
  }
  std::vector<OutputInfo> result;
  for (int i = 0; i < count; ++i) {
    xcb_generic_error_t* error = nullptr;
    auto info = state_->take(
        xcb_randr_get_output_info_reply(c, cookies[static_cast<std::size_t>(i)], &error), error);
    const auto* name = reinterpret_cast<const char*>(xcb_randr_get_output_info_name(info.get()));
    const xcb_randr_crtc_t* possible = xcb_randr_get_output_info_crtcs(info.get());
    const xcb_randr_mode_t* modes = xcb_randr_get_output_info_modes(info.get());
    result.push_back(
        {ids[i],
         {name, static_cast<std::size_t>(xcb_randr_get_output_info_name_length(info.get()))},
         info->connection == XCB_RANDR_CONNECTION_CONNECTED,
         info->crtc,
         {possible, possible + xcb_randr_get_output_info_crtcs_length(info.get())},
         {modes, modes + xcb_randr_get_output_info_modes_length(info.get())},
         info->num_preferred});
  }
  return result;
}

std::vector<ModeInfo> XcbDisplayConfigurator::modes() {
  state_->requireRandR();
  auto resources = state_->resources();
  const xcb_randr_mode_info_t* infos =
      xcb_randr_get_screen_resources_current_modes(resources.get());
  int count = xcb_randr_get_screen_resources_current_modes_length(resources.get());
  const auto* names =
      reinterpret_cast<const char*>(xcb_randr_get_screen_resources_current_names(resources.get()));
  std::vector<ModeInfo> result;
  for (int i = 0; i < count; ++i) {
    const xcb_randr_mode_info_t& m = infos[i];
    result.push_back({m.id,
                      {names, m.name_len},
                      {m.width, m.height, m.dot_clock, m.hsync_start, m.hsync_end, m.htotal,
                       m.vsync_start, m.vsync_end, m.vtotal, m.mode_flags}});
    names += m.name_len;
  }
  return result;
}

std::vector<MonitorInfo> XcbDisplayConfigurator::monitors() {
  if (!state_->monitors) return {};
  xcb_connection_t* c = state_->c;
  xcb_generic_error_t* error = nullptr;
  auto reply = state_->take(
      xcb_randr_get_monitors_reply(c, xcb_randr_get_monitors(c, state_->root, 1), &error), error);
  std::vector<MonitorInfo> result;
  std::vector<xcb_get_atom_name_cookie_t> names;
  for (auto it = xcb_randr_get_monitors_monitors_iterator(reply.get()); it.rem > 0;
       xcb_randr_monitor_info_next(&it)) {
    const xcb_randr_monitor_info_t* m = it.data;
    const xcb_randr_output_t* outputs = xcb_randr_monitor_info_outputs(m);
    result.push_back({{},
                      m->x,
                      m->y,
                      m->width,
                      m->height,
                      m->width_in_millimeters,
                      m->height_in_millimeters,
                      {outputs, outputs + xcb_randr_monitor_info_outputs_length(m)}});
    names.push_back(xcb_get_atom_name(c, m->name));
  }
  for (std::size_t i = 0; i < names.size(); ++i) {
    auto name = state_->take(xcb_get_atom_name_reply(c, names[i], &error), error);
    result[i].name.assign(xcb_get_atom_name_name(name.get()),
                          static_cast<std::size_t>(xcb_get_atom_name_name_length(name.get())));
  }
  return result;
}

RandRId XcbDisplayConfigurator::createMode(const std::string& name, const ModeTiming& t) {
  state_->requireRandR();
  xcb_randr_mode_info_t info{};
  info.width = t.width;
  info.height = t.height;
  info.dot_clock = t.dotClock;
  info.hsync_start = t.hSyncStart;
  info.hsync_end = t.hSyncEnd;
  info.htotal = t.hTotal;
  info.vsync_start = t.vSyncStart;
  info.vsync_end = t.vSyncEnd;
  info.vtotal = t.vTotal;
  info.name_len = static_cast<std::uint16_t>(name.size());
  info.mode_flags = t.flags;
  xcb_generic_error_t* error = nullptr;
  auto reply =
      state_->take(xcb_randr_create_mode_reply(
                       state_->c,
                       xcb_randr_create_mode(state_->c, state_->root, info,
                                             static_cast<std::uint32_t>(name.size()), name.data()),
                       &error),
                   error);
  return reply->mode;
}

void XcbDisplayConfigurator::destroyMode(RandRId mode) {
  state_->requireRandR();
  state_->check(xcb_randr_destroy_mode_checked(state_->c, mode));
}

void XcbDisplayConfigurator::addOutputMode(RandRId output, RandRId mode) {
  state_->requireRandR();
  state_->check(xcb_randr_add_output_mode_checked(state_->c, output, mode));
}

void XcbDisplayConfigurator::deleteOutputMode(RandRId output, RandRId mode) {
  state_->requireRandR();
  state_->check(xcb_randr_delete_output_mode_checked(state_->c, output, mode));
}

void XcbDisplayConfigurator::setScreenSize(std::uint32_t width, std::uint32_t height,
                                           std::uint32_t widthMM, std::uint32_t heightMM) {
  state_->requireRandR();
  state_->check(
      xcb_randr_set_screen_size_checked(state_->c, state_->root, static_cast<std::uint16_t>(width),
                                        static_cast<std::uint16_t>(height), widthMM, heightMM));
  state_->widthMM = widthMM;
  state_->heightMM = heightMM;
}

void XcbDisplayConfigurator::setCrtc(const CrtcState& s) {
  state_->requireRandR();
  auto resources = state_->resources();
  xcb_generic_error_t* error = nullptr;
  auto reply = state_->take(
      xcb_randr_set_crtc_config_reply(
          state_->c,
          xcb_randr_set_crtc_config(state_->c, s.crtc, XCB_CURRENT_TIME,
                                    resources->config_timestamp, static_cast<std::int16_t>(s.x),
                                    static_cast<std::int16_t>(s.y), s.mode, s.rotation,
                                    static_cast<std::uint32_t>(s.outputs.size()), s.outputs.data()),
          &error),
      error);
  if (reply->status != XCB_RANDR_SET_CONFIG_SUCCESS) {
    throw VirtualDisplayError::requestFailed("RandR", reply->status);
  }
}

void XcbDisplayConfigurator::setPrimary(RandRId output) {
  state_->requireRandR();
  state_->check(xcb_randr_set_output_primary_checked(state_->c, state_->root, output));
}

void XcbDisplayConfigurator::setMonitor(const MonitorInfo& m) {
  if (!state_->monitors) throw VirtualDisplayError::unsupported();
  xcb_connection_t* c = state_->c;
  xcb_generic_error_t* error = nullptr;
  auto listed = state_->take(
      xcb_randr_get_monitors_reply(c, xcb_randr_get_monitors(c, state_->root, 0), &error), error);
  xcb_atom_t name = state_->atom(m.name);
  bool exists = false;
  for (auto it = xcb_randr_get_monitors_monitors_iterator(listed.get()); it.rem > 0;
       xcb_randr_monitor_info_next(&it)) {
    exists = exists || it.data->name == name;
  }
  // The server refuses a monitor whose name is taken (BadValue), so an existing one is deleted
  // first, under a grab so that no client sees it missing.
  struct Grab {
    xcb_connection_t* c;
    bool held;
    ~Grab() {
      if (!held) return;
      xcb_ungrab_server(c);
      xcb_flush(c);
    }
  } grab{c, exists};
  if (exists) {
    xcb_grab_server(c);
    state_->check(xcb_randr_delete_monitor_checked(c, state_->root, name));
  }
  xcb_randr_monitor_info_t info{};
  info.name = name;
  info.x = static_cast<std::int16_t>(m.x);
  info.y = static_cast<std::int16_t>(m.y);
  info.width = static_cast<std::uint16_t>(m.width);
  info.height = static_cast<std::uint16_t>(m.height);
  info.width_in_millimeters = m.widthMM;
  info.height_in_millimeters = m.heightMM;
  state_->check(sendSetMonitor(c, state_->root, info, m.outputs));
}

void XcbDisplayConfigurator::deleteMonitor(const std::string& name) {
  if (!state_->monitors) throw VirtualDisplayError::unsupported();
  state_->check(xcb_randr_delete_monitor_checked(state_->c, state_->root, state_->atom(name)));
}

}  // namespace orin::screen
