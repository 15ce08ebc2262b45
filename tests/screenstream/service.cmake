# The stream service with a real stream server on loopback and fakes for capture, encoding and
# the virtual display.
orin_add_test_executable(screen_service_tests
  LINK OrinLinkScreenService OrinLinkEncoder OrinLink::Concurrency orinlink_device_client
  SOURCES screen_stream_service_test.cpp)
