# Display capture: the engine's logic against a fake backend, and the X11 binding against an
# Xvfb started by each test (skipped when Xvfb is missing).
orin_add_test_executable(capture_tests LINK OrinLinkCapture orin_test_stamp
  SOURCES display_capture_test.cpp test_stamp_test.cpp)
orin_add_test_executable(x11_capture_tests LINK OrinLinkCapture orin_test_stamp orin_x_test_support
  SOURCES x11_capture_test.cpp)
