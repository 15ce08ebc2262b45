# Wayland capture: the PipeWire consumer against a session bus, pipewire and wireplumber that each
# test process starts in a runtime directory of its own (skipped when they are not installed), fed
# by a test source. The daemons and the source are a library for the other Wayland tests too.
pkg_check_modules(PipeWire REQUIRED IMPORTED_TARGET libpipewire-0.3)

add_library(orin_pipewire_test_support STATIC
  ${PROJECT_SOURCE_DIR}/tests/support/PipeWireDaemon.cpp
  ${PROJECT_SOURCE_DIR}/tests/support/PipeWireProducer.cpp
)
target_include_directories(orin_pipewire_test_support PUBLIC ${PROJECT_SOURCE_DIR})
target_link_libraries(orin_pipewire_test_support PUBLIC GTest::gtest orin_wayland_test_support
  PRIVATE PkgConfig::PipeWire Threads::Threads)
orin_set_warnings(orin_pipewire_test_support)

orin_add_test_executable(pipewire_capture_tests
  LINK OrinLinkPipeWireCapture orin_pipewire_test_support
  SOURCES pipewire_capture_test.cpp
  PROPERTIES TIMEOUT 120)
