# The portal client against a stand-in portal on a private dbus-daemon (the system tests'
# fixture); with the PipeWire test support, one case reads frames from a real node through it.
add_executable(portal_screencast_tests
  portal_screencast_test.cpp
  PortalStandIn.cpp
  ${PROJECT_SOURCE_DIR}/tests/system/SystemFixture.cpp
)
target_include_directories(portal_screencast_tests PRIVATE ${PROJECT_SOURCE_DIR})
# The fixture also starts the system tests' stand-in; these tests never do.
target_compile_definitions(portal_screencast_tests PRIVATE
  ORIN_BUS_STANDIN="$<TARGET_FILE:bus_standin>")
target_link_libraries(portal_screencast_tests PRIVATE OrinLinkPortalScreenCast GTest::gtest
  GTest::gtest_main)
if(TARGET orin_pipewire_test_support AND TARGET OrinLinkPipeWireCapture)
  target_compile_definitions(portal_screencast_tests PRIVATE ORIN_PORTAL_WITH_PIPEWIRE)
  target_link_libraries(portal_screencast_tests PRIVATE OrinLinkPipeWireCapture
    orin_pipewire_test_support)
endif()
orin_set_warnings(portal_screencast_tests)
gtest_discover_tests(portal_screencast_tests DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT 120)
