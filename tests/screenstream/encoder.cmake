# The encoder's tests decode what it produced, so they link libavcodec themselves.
pkg_check_modules(OrinEncoderTestLibAV REQUIRED IMPORTED_TARGET libavcodec libavutil)

add_executable(orin_encoder_tests
  encoder_bitstream_test.cpp
  encoder_control_test.cpp
  video_encoder_test.cpp
)
target_link_libraries(orin_encoder_tests PRIVATE
  OrinLinkEncoder PkgConfig::OrinEncoderTestLibAV GTest::gtest GTest::gtest_main)
orin_set_warnings(orin_encoder_tests)
gtest_discover_tests(orin_encoder_tests DISCOVERY_TIMEOUT 60)
