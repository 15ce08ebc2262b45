# Capture on Wayland desktops: GNOME's screen-cast service or the desktop portal, read through
# PipeWire, with virtual monitors where the desktop makes them.
add_library(OrinLinkWaylandCapture MutterScreenCast.cpp WaylandCapture.cpp)
target_link_libraries(OrinLinkWaylandCapture
  PUBLIC OrinLinkCapture OrinLinkSdBus
  PRIVATE OrinLinkPipeWireCapture OrinLinkPortalScreenCast)
orin_set_warnings(OrinLinkWaylandCapture)
