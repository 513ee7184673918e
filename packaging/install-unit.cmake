# Installs the systemd user unit with ExecStart pointing at the installed executable.
# TERANO_UNIT_SOURCE is set by the install step just before this script.
set(bindir "${CMAKE_INSTALL_PREFIX}/bin")
set(destination "$ENV{DESTDIR}${CMAKE_INSTALL_PREFIX}/lib/systemd/user")
file(READ "${TERANO_UNIT_SOURCE}" unit)
string(REPLACE "ExecStart=/usr/local/bin/" "ExecStart=${bindir}/" unit "${unit}")
file(MAKE_DIRECTORY "${destination}")
message(STATUS "Installing: ${destination}/teranocounter.service")
file(WRITE "${destination}/teranocounter.service" "${unit}")
file(CHMOD "${destination}/teranocounter.service" PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
