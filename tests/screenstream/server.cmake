# The stream server over loopback on port 0, driven by the reference device client.
orin_add_test_executable(screen_server_tests screen_stream_server_test.cpp
  screen_stream_client_test.cpp)
target_link_libraries(screen_server_tests PRIVATE OrinLinkScreenServer orinlink_device_client)
