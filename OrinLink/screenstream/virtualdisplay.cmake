# The virtual display: RandR through xcb, and the watchdog that restores the user's screens when
# the app dies. It sits next to the orinlink executable, where the display looks for it.
pkg_check_modules(XCBVirtualDisplay REQUIRED IMPORTED_TARGET xcb xcb-randr)

add_library(OrinLinkVirtualDisplay
  DisplayWatchdog.cpp
  OrinVirtualDisplay.cpp
  VirtualDisplayError.cpp
  VirtualDisplayLayout.cpp
  VirtualDisplayRecord.cpp
  XcbDisplayConfigurator.cpp
)
target_link_libraries(OrinLinkVirtualDisplay
  PUBLIC OrinLinkScreenBase OrinLink::Shared PkgConfig::XCBVirtualDisplay
  PRIVATE OrinLinkCapture nlohmann_json::nlohmann_json)
orin_set_warnings(OrinLinkVirtualDisplay)

add_executable(orinlink-display-watchdog DisplayWatchdogMain.cpp)
target_link_libraries(orinlink-display-watchdog PRIVATE OrinLinkVirtualDisplay)
set_target_properties(orinlink-display-watchdog PROPERTIES
  RUNTIME_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/OrinLink)
orin_set_warnings(orinlink-display-watchdog)
