# The virtual display: its logic against a fake RandR, and against Xorg's dummy driver and Xvfb
# started by the tests themselves (skipped when those servers are missing).
orin_add_test_executable(virtual_display_tests LINK OrinLinkVirtualDisplay
  SOURCES virtual_display_test.cpp)
orin_add_test_executable(x11_virtual_display_tests
  LINK OrinLinkVirtualDisplay OrinLinkCapture orin_x_test_support
  SOURCES x11_virtual_display_test.cpp)
target_compile_definitions(x11_virtual_display_tests PRIVATE
  WATCHDOG_PATH="$<TARGET_FILE:orinlink-display-watchdog>")
add_dependencies(x11_virtual_display_tests orinlink-display-watchdog)
