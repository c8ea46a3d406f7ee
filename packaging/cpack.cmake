# The Debian package: `cpack -G DEB` in a build configured with the prefix
# /usr (the "package" preset). Maintainer scripts are in packaging/debian.
set(CPACK_PACKAGE_NAME nightjar)
set(CPACK_PACKAGE_VENDOR "nightjar developers")
set(CPACK_PACKAGE_CONTACT "nightjar developers <nightjar@example.org>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "daemon that carries out scheduled power events")
set(CPACK_PACKAGE_DESCRIPTION
    "nightjard keeps a list of scheduled power events and carries them out:\n\
wake, start up or wake, sleep, shut down, restart, log the console user out,\n\
switch to the login screen; once at a date, daily at a time on chosen\n\
weekdays, or after a time without user input. Clients are warned ahead of\n\
each event and may delay or cancel it.\n\
.\n\
nightjarctl, the command-line client, lists, adds, changes and removes\n\
events, follows the daemon's broadcasts, and exports and applies the whole\n\
list as JSON for configuration tools.")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_STRIP_FILES ON)
# The tools' folder is absolute (the daemon starts them from there).
set(CPACK_SET_DESTDIR ON)
set(CPACK_PACKAGING_INSTALL_PREFIX ${CMAKE_INSTALL_PREFIX})

set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# The broadcasts need the system bus, the rights polkit (pkcheck and
# pkttyagent for nightjarctl too); power actions and idle time come from logind.
set(CPACK_DEBIAN_PACKAGE_DEPENDS "dbus, polkitd")
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS "default-logind | logind")
set(CPACK_DEBIAN_PACKAGE_SUGGESTS "bash-completion")
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA
    ${CMAKE_CURRENT_LIST_DIR}/debian/postinst
    ${CMAKE_CURRENT_LIST_DIR}/debian/prerm
    ${CMAKE_CURRENT_LIST_DIR}/debian/postrm)
# dpkg keeps an administrator's change to a file in /etc only when the package
# names it a conffile.
if(TARGET nightjar-agent)
  file(WRITE ${CMAKE_CURRENT_BINARY_DIR}/packaging/conffiles
       "${CMAKE_INSTALL_FULL_SYSCONFDIR}/xdg/autostart/nightjar-agent.desktop\n")
  list(APPEND CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA ${CMAKE_CURRENT_BINARY_DIR}/packaging/conffiles)
endif()
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)

set(CPACK_GENERATOR DEB)
include(CPack)
