# The desktop portal's ScreenCast client, for Wayland desktops other than GNOME.
add_library(OrinLinkPortalScreenCast PortalScreenCast.cpp)
target_link_libraries(OrinLinkPortalScreenCast PUBLIC OrinLinkCapture OrinLinkSdBus)
orin_set_warnings(OrinLinkPortalScreenCast)
