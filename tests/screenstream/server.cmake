# The stream server over loopback on port 0, driven by the reference device client.
orin_add_test_executable(screen_server_tests
  LINK OrinLinkScreenServer OrinLink::Pairing OrinLink::Concurrency orinlink_device_client
  SOURCES screen_stream_server_test.cpp screen_stream_client_test.cpp)
