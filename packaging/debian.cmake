# The Debian packages: `teranocounter` for a shop computer and `teranocounter-tools` (the device
# simulator and the STOMP test server) for a POS developer. scripts/package.sh builds both
# with `cpack -G DEB` from a build directory.

include(GNUInstallDirs)

# Debian wants the manual page and the changelog compressed, without a timestamp in the
# gzip header so that the same source gives the same package.
find_program(GZIP_EXECUTABLE gzip REQUIRED)
set(packaging_out ${CMAKE_BINARY_DIR}/packaging)
file(MAKE_DIRECTORY ${packaging_out})
foreach(source teranocounter.1 teranocounter-devsim.1 stomp-test-server.1 changelog)
  add_custom_command(OUTPUT ${packaging_out}/${source}.gz
    COMMAND ${GZIP_EXECUTABLE} -9nc ${PROJECT_SOURCE_DIR}/packaging/${source} > ${packaging_out}/${source}.gz
    DEPENDS ${PROJECT_SOURCE_DIR}/packaging/${source} VERBATIM)
  list(APPEND packaging_gz ${packaging_out}/${source}.gz)
endforeach()
add_custom_target(packaging_files ALL DEPENDS ${packaging_gz})

install(FILES ${packaging_out}/teranocounter.1.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man1
        COMPONENT teranocounter)
install(FILES ${packaging_out}/teranocounter-devsim.1.gz ${packaging_out}/stomp-test-server.1.gz
        DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT tools)
foreach(component teranocounter tools)
  set(package teranocounter)
  if(component STREQUAL "tools")
    set(package teranocounter-tools)
  endif()
  install(FILES ${PROJECT_SOURCE_DIR}/packaging/copyright ${packaging_out}/changelog.gz
          DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${package} COMPONENT ${component})
endforeach()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME teranocounter)
set(CPACK_PACKAGE_VERSION ${TERANO_VERSION})
set(CPACK_PACKAGE_VENDOR "Teranosoft")
set(CPACK_PACKAGE_CONTACT "Terano Counter developers <teranocounter@teranosoft.example>")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
# Debian's own file names: teranocounter_<version>_amd64.deb.
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL teranocounter tools)
# Dependencies on libraries come from the binaries (dpkg-shlibdeps): Qt's core, GUI (with the
# xcb and offscreen platform plugins), network, SQL, WebSockets and serial port libraries.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SECTION misc)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_HOMEPAGE "https://teranosoft.example/teranocounter")
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS OFF)

set(CPACK_DEBIAN_TERANOCOUNTER_PACKAGE_NAME teranocounter)
set(CPACK_DEBIAN_TERANOCOUNTER_FILE_NAME DEB-DEFAULT)
# What the binaries cannot tell: Qt loads its SQLite driver as a plugin (the pending store),
# and the pages and questions are in Korean, which needs a font that has Hangul.
set(CPACK_DEBIAN_TERANOCOUNTER_PACKAGE_DEPENDS "libqt6sql6-sqlite, fonts-nanum")
# A Wayland desktop gets Qt's Wayland platform plugin; X11 and headless need nothing more.
set(CPACK_DEBIAN_TERANOCOUNTER_PACKAGE_RECOMMENDS "qt6-wayland")
set(CPACK_DEBIAN_TERANOCOUNTER_DESCRIPTION
"POS companion service: card terminals and kitchen printers
Terano Counter runs beside a point-of-sale program or page on a shop
computer. The POS talks to it in JSON over a WebSocket on this computer
(port 49999); it prints kitchen orders on network receipt printers and
passes payments to Korean card terminals (KICC, KIS, SMARTRO) over TCP
or USB serial. Its settings live in the tray; it also runs headless as
a systemd user service.")
set(CPACK_COMPONENT_TERANOCOUNTER_DESCRIPTION "${CPACK_DEBIAN_TERANOCOUNTER_DESCRIPTION}")

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME teranocounter-tools)
set(CPACK_DEBIAN_TOOLS_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION devel)
set(CPACK_COMPONENT_TOOLS_DESCRIPTION
"Terano Counter simulated devices and STOMP test server
Tools for developing a POS against Terano Counter without hardware:
teranocounter-devsim simulates a kitchen printer and KICC, KIS and
SMARTRO card terminals over TCP or a pseudo-terminal; stomp-test-server
is a small STOMP-over-WebSocket server for trying a POS's messaging.
A shop computer does not need them.")

include(CPack)
