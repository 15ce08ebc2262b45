# Display capture: the engine and its X11 binding (xcb with MIT-SHM, RandR 1.5 and XFixes).
pkg_check_modules(XCBCapture REQUIRED IMPORTED_TARGET xcb xcb-shm xcb-randr xcb-xfixes)

add_library(OrinLinkCapture
  DisplayCaptureEngine.cpp
  DisplayCaptureError.cpp
  FramePool.cpp
  X11DisplayBackend.cpp
)
target_link_libraries(OrinLinkCapture PUBLIC OrinLinkScreenBase OrinLink::Shared Threads::Threads
  PRIVATE PkgConfig::XCBCapture)
orin_set_warnings(OrinLinkCapture)
