# The portal client against a stand-in portal on a private dbus-daemon.
add_library(orin_portal_standin STATIC PortalStandIn.cpp)
target_include_directories(orin_portal_standin PUBLIC ${PROJECT_SOURCE_DIR})
target_link_libraries(orin_portal_standin PUBLIC OrinLinkSdBus Threads::Threads)
orin_set_warnings(orin_portal_standin)

orin_add_test_executable(portal_screencast_tests
  LINK OrinLinkPortalScreenCast orin_portal_standin orin_process_test_support
  SOURCES portal_screencast_test.cpp
  PROPERTIES TIMEOUT 120)
