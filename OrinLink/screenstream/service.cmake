# The stream service: settings, the stream server's callbacks, and capture, encoding and the
# virtual display while a headset streams.
add_library(OrinLinkScreenService ScreenStreamService.cpp)
target_link_libraries(OrinLinkScreenService
  PUBLIC OrinLinkScreenServer OrinLinkCapture OrinLinkEncoder OrinLinkVirtualDisplay
         OrinLink::Pairing OrinLink::Settings OrinLink::System
  PRIVATE OrinLinkWaylandCapture OrinLink::Common)
orin_set_warnings(OrinLinkScreenService)
