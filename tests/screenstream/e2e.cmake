# End to end: the orinlink application on an X server that each test starts, with the headset
# client in the test. Skipped without Xvfb, Xorg's dummy driver or ffprobe. Serial: each keeps an
# encoder busy, and two at once would only slow each other down.
orin_add_test_executable(e2e_screen_tests
  LINK orinlink_device_client orin_test_support orin_process_test_support orin_x_test_support
  SOURCES e2e_screen_test.cpp
  PROPERTIES RUN_SERIAL TRUE TIMEOUT 120)
target_compile_definitions(e2e_screen_tests PRIVATE ORINLINK_PATH="$<TARGET_FILE:orinlink>")
add_dependencies(e2e_screen_tests orinlink orinlink-display-watchdog)
