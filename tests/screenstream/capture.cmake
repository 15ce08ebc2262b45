# Display capture: the engine's logic against a fake backend, and the X11 binding against an
# Xvfb started by each test (skipped when Xvfb is missing).
add_executable(capture_tests display_capture_test.cpp test_stamp_test.cpp)
target_link_libraries(capture_tests PRIVATE OrinLinkCapture orin_test_stamp GTest::gtest
  GTest::gtest_main)
orin_set_warnings(capture_tests)
gtest_discover_tests(capture_tests DISCOVERY_TIMEOUT 60)

add_executable(x11_capture_tests x11_capture_test.cpp)
target_link_libraries(x11_capture_tests PRIVATE OrinLinkCapture orin_test_stamp
  orin_x_test_support GTest::gtest GTest::gtest_main)
orin_set_warnings(x11_capture_tests)
gtest_discover_tests(x11_capture_tests DISCOVERY_TIMEOUT 60)
