# Wayland capture: a consumer of one PipeWire screen-cast stream (libpipewire-0.3).
pkg_check_modules(PipeWire REQUIRED IMPORTED_TARGET libpipewire-0.3)

add_library(OrinLinkPipeWireCapture PipeWireCapture.cpp)
target_link_libraries(OrinLinkPipeWireCapture PUBLIC OrinLinkCapture PRIVATE PkgConfig::PipeWire)
orin_set_warnings(OrinLinkPipeWireCapture)
