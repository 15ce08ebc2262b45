# The stream listener and its client sessions; integrated into the application by the stream
# service.
add_library(OrinLinkScreenServer ScreenStreamServer.cpp)
target_link_libraries(OrinLinkScreenServer PUBLIC OrinLinkScreenBase OrinLink::Server OrinLink::Transport
  PRIVATE OrinLink::Pairing OrinLink::Common)
orin_set_warnings(OrinLinkScreenServer)
