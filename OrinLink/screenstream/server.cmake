# The stream listener and its client sessions; integrated into the application by the stream
# service.
add_library(OrinLinkScreenServer ScreenStreamServer.cpp)
target_link_libraries(OrinLinkScreenServer PUBLIC OrinLink::Core OrinLinkScreenBase)
orin_set_warnings(OrinLinkScreenServer)
