# Display capture: the engine's logic against a fake backend, and the X11 binding against an
# Xvfb started by the test itself (skipped when Xvfb is missing).
add_executable(capture_tests display_capture_test.cpp test_stamp_test.cpp)
target_link_libraries(capture_tests PRIVATE OrinLinkCapture orin_test_stamp GTest::gtest
  GTest::gtest_main)
orin_set_warnings(capture_tests)
gtest_discover_tests(capture_tests DISCOVERY_TIMEOUT 60)

pkg_check_modules(XCBCaptureTest REQUIRED IMPORTED_TARGET xcb xcb-randr)
add_executable(x11_capture_tests x11_capture_test.cpp)
target_link_libraries(x11_capture_tests PRIVATE OrinLinkCapture orin_test_stamp
  PkgConfig::XCBCaptureTest GTest::gtest GTest::gtest_main)
target_compile_definitions(x11_capture_tests PRIVATE
  TEST_PATTERN_PATH="$<TARGET_FILE:orin-test-pattern>")
add_dependencies(x11_capture_tests orin-test-pattern)
orin_set_warnings(x11_capture_tests)
gtest_discover_tests(x11_capture_tests DISCOVERY_TIMEOUT 60)
