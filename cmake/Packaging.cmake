# Installation and the Debian package. The display watchdog is installed beside orinlink because
# the virtual display looks for it next to the running executable.
include(GNUInstallDirs)

set(ORIN_APP_ID app.orinlink.OrinLink)
set(ORIN_PACKAGING_DIR ${PROJECT_SOURCE_DIR}/packaging)
set(ORIN_PACKAGING_OUT ${PROJECT_BINARY_DIR}/packaging)

install(TARGETS orinlink orinlink-device orinlink-display-watchdog
        RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
# Loaded by orinlink when a stream first needs an encoder; a module, so not executable.
install(TARGETS orinlink-encoder LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}/orinlink
        PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
install(FILES ${ORIN_PACKAGING_DIR}/${ORIN_APP_ID}.desktop
        DESTINATION ${CMAKE_INSTALL_DATADIR}/applications)
install(FILES ${ORIN_PACKAGING_DIR}/${ORIN_APP_ID}.svg
        DESTINATION ${CMAKE_INSTALL_DATADIR}/icons/hicolor/scalable/apps)
# Not GNUInstallDirs' LIBDIR: systemd looks in lib/systemd/user whatever the architecture.
install(FILES ${ORIN_PACKAGING_DIR}/orinlink.service DESTINATION lib/systemd/user)

set(packaging_outputs ${ORIN_PACKAGING_OUT}/orinlink.1.gz)
add_custom_command(
  OUTPUT ${ORIN_PACKAGING_OUT}/orinlink.1.gz
  COMMAND ${CMAKE_COMMAND} -E make_directory ${ORIN_PACKAGING_OUT}
  COMMAND gzip -9nc ${ORIN_PACKAGING_DIR}/orinlink.1 > ${ORIN_PACKAGING_OUT}/orinlink.1.gz
  DEPENDS ${ORIN_PACKAGING_DIR}/orinlink.1
  VERBATIM)
install(FILES ${ORIN_PACKAGING_OUT}/orinlink.1.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)

# Bitmaps for the menus that do not draw SVG, when librsvg's converter is at hand.
find_program(RSVG_CONVERT rsvg-convert)
if(RSVG_CONVERT)
  foreach(size 48 64 128 256)
    set(png ${ORIN_PACKAGING_OUT}/${size}/${ORIN_APP_ID}.png)
    add_custom_command(
      OUTPUT ${png}
      COMMAND ${CMAKE_COMMAND} -E make_directory ${ORIN_PACKAGING_OUT}/${size}
      COMMAND ${RSVG_CONVERT} -w ${size} -h ${size} -o ${png} ${ORIN_PACKAGING_DIR}/${ORIN_APP_ID}.svg
      DEPENDS ${ORIN_PACKAGING_DIR}/${ORIN_APP_ID}.svg
      VERBATIM)
    list(APPEND packaging_outputs ${png})
    install(FILES ${png} DESTINATION ${CMAKE_INSTALL_DATADIR}/icons/hicolor/${size}x${size}/apps)
  endforeach()
endif()
add_custom_target(orin_packaging_files ALL DEPENDS ${packaging_outputs})

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME orinlink)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_VENDOR "Orin Link")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "lends this computer to your other devices")
set(CPACK_PACKAGE_DESCRIPTION
    "Orin Link serves paired devices from this computer: a local AI service
backed by the Ollama daemon, and a low-latency HEVC stream of this
computer's screen, optionally as a wide virtual desktop. Devices pair with
a six-digit code. A control panel on the loopback interface, a command
line and a login entry come with it.")
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "Orin Link maintainers <maintainers@orinlink.app>")
set(CPACK_DEBIAN_PACKAGE_SECTION net)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS "xdg-utils, avahi-daemon, sound-theme-freedesktop")
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
include(CPack)
