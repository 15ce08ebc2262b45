# HEVC encoding through libavcodec (libx265, or NVENC / VAAPI where the hardware is present).
pkg_check_modules(OrinEncoderLibAV REQUIRED IMPORTED_TARGET libavcodec libavutil libswscale)

add_library(OrinLinkEncoder
  HEVCBitstream.cpp
  KeyframePolicy.cpp
  LibavHEVCEncoder.cpp
  VideoEncoder.cpp
)
target_link_libraries(OrinLinkEncoder
  PUBLIC OrinLinkScreenBase OrinLink::Shared Threads::Threads
  PRIVATE PkgConfig::OrinEncoderLibAV)
orin_set_warnings(OrinLinkEncoder)
