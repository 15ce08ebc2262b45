# HEVC encoding through libavcodec (libx265, or NVENC / VAAPI where the hardware is present).
pkg_check_modules(OrinEncoderLibAV REQUIRED IMPORTED_TARGET libavcodec libavutil libswscale)

add_library(OrinLinkEncoder
  HEVCBitstream.cpp
  KeyframePolicy.cpp
  LibavHEVCEncoder.cpp
  PixelConversion.cpp
  ThreadPriority.cpp
  VideoEncoder.cpp
)
# Its loops are written for the vectorizer, which needs -O3 to take them on; in every build type,
# as a debug build's tests stream in real time too.
set_source_files_properties(PixelConversion.cpp PROPERTIES COMPILE_OPTIONS -O3)
target_link_libraries(OrinLinkEncoder
  PUBLIC OrinLinkScreenBase OrinLink::Shared Threads::Threads
  PRIVATE PkgConfig::OrinEncoderLibAV)
orin_set_warnings(OrinLinkEncoder)
