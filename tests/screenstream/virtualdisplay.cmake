# The virtual display: its logic against a fake RandR, and against Xorg's dummy driver and Xvfb
# started by the tests themselves (skipped when those servers are missing).
add_executable(virtual_display_tests virtual_display_test.cpp)
target_link_libraries(virtual_display_tests PRIVATE OrinLinkVirtualDisplay GTest::gtest
  GTest::gtest_main)
orin_set_warnings(virtual_display_tests)
gtest_discover_tests(virtual_display_tests DISCOVERY_TIMEOUT 60)

add_executable(x11_virtual_display_tests x11_virtual_display_test.cpp)
target_link_libraries(x11_virtual_display_tests PRIVATE OrinLinkVirtualDisplay OrinLinkCapture
  orin_x_test_support GTest::gtest GTest::gtest_main)
target_compile_definitions(x11_virtual_display_tests PRIVATE
  WATCHDOG_PATH="$<TARGET_FILE:orinlink-display-watchdog>")
add_dependencies(x11_virtual_display_tests orinlink-display-watchdog)
orin_set_warnings(x11_virtual_display_tests)
gtest_discover_tests(x11_virtual_display_tests DISCOVERY_TIMEOUT 60)
