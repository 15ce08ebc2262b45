# End to end on a Wayland desktop: orinlink in a headless GNOME session (scripts/wayland-session.sh)
# with the headset client in the test. Skipped without mutter, PipeWire, Xwayland or ffmpeg.
# Serial, as the X11 ones are.
orin_add_test_executable(e2e_wayland_tests
  LINK orinlink_device_client orin_test_support orin_process_test_support orin_x_test_support
       orin_wayland_test_support orin_pipewire_test_support orin_portal_standin
  SOURCES e2e_wayland_test.cpp
  PROPERTIES RUN_SERIAL TRUE TIMEOUT 120)
target_compile_definitions(e2e_wayland_tests PRIVATE ORINLINK_PATH="$<TARGET_FILE:orinlink>")
add_dependencies(e2e_wayland_tests orinlink orin-test-pattern)
