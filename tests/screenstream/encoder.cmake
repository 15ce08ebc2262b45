# The encoder's tests decode what it produced, so they link libavcodec themselves.
pkg_check_modules(OrinEncoderTestLibAV REQUIRED IMPORTED_TARGET libavcodec libavutil)

orin_add_test_executable(orin_encoder_tests LINK OrinLinkEncoder PkgConfig::OrinEncoderTestLibAV
  SOURCES encoder_bitstream_test.cpp encoder_control_test.cpp video_encoder_test.cpp)
