# The stream service with a real stream server on loopback and fakes for capture, encoding and
# the virtual display.
orin_add_test_executable(screen_service_tests screen_stream_service_test.cpp)
target_link_libraries(screen_service_tests PRIVATE OrinLinkScreenService orinlink_device_client)
