# The stream service: settings, the stream server's callbacks, and capture, encoding and the
# virtual display while a headset streams.
add_library(OrinLinkScreenService ScreenStreamService.cpp EncoderModuleLoader.cpp)
target_link_libraries(OrinLinkScreenService
  PUBLIC OrinLinkScreenServer OrinLinkCapture OrinLinkVirtualDisplay
         OrinLink::Pairing OrinLink::Settings OrinLink::System
  PRIVATE OrinLinkWaylandCapture OrinLink::Common ${CMAKE_DL_LIBS})
# Where an installed app finds the encoder module, from its own folder whatever the prefix; a
# build finds it beside the executable.
file(RELATIVE_PATH ORIN_ENCODER_MODULE_FROM_BIN /${CMAKE_INSTALL_BINDIR}
     /${CMAKE_INSTALL_LIBDIR}/orinlink)
target_compile_definitions(OrinLinkScreenService
  PRIVATE ORIN_ENCODER_MODULE_FROM_BIN="${ORIN_ENCODER_MODULE_FROM_BIN}")
orin_set_warnings(OrinLinkScreenService)

# libavcodec and what it brings, loaded only once a stream needs an encoder.
add_library(orinlink-encoder MODULE EncoderModule.cpp)
target_link_libraries(orinlink-encoder PRIVATE OrinLinkEncoder)
set_target_properties(orinlink-encoder PROPERTIES PREFIX ""
  LIBRARY_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/OrinLink)
orin_set_warnings(orinlink-encoder)
