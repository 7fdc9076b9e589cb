# What `make package` ships. Linux: a Debian package with the program, the page's static files and a
# systemd unit. Windows (cross build): a zip with tavrel.exe and a README.txt.
#
# The static files are built into the program, which writes the missing ones into its home on every
# start. The package carries the same bytes in /usr/share/tavrel/HTML for reference (to restore or
# restyle the page): a small helper linked to the program's own copies writes them at build time.

if(WIN32)
  install(TARGETS tavrel RUNTIME DESTINATION .)
  configure_file(packaging/README-windows.txt ${CMAKE_BINARY_DIR}/package/README.txt @ONLY NEWLINE_STYLE CRLF)
  install(FILES ${CMAKE_BINARY_DIR}/package/README.txt DESTINATION .)
  set(CPACK_GENERATOR ZIP)
  set(CPACK_SYSTEM_NAME win64)
else()
  add_executable(tavrel-static-files packaging/WriteStaticFiles.cpp)
  target_link_libraries(tavrel-static-files PRIVATE tavrel_pages)
  set(static_dir ${CMAKE_BINARY_DIR}/package/HTML)
  # A fresh folder every time: the helper leaves files that exist alone.
  add_custom_command(OUTPUT ${CMAKE_BINARY_DIR}/package/HTML.stamp
                     COMMAND ${CMAKE_COMMAND} -E rm -rf ${static_dir}
                     COMMAND tavrel-static-files ${static_dir}
                     COMMAND ${CMAKE_COMMAND} -E touch ${CMAKE_BINARY_DIR}/package/HTML.stamp
                     DEPENDS tavrel-static-files
                     COMMENT "Writing the page's static files for the package")
  add_custom_target(tavrel-package-files ALL DEPENDS ${CMAKE_BINARY_DIR}/package/HTML.stamp)

  install(TARGETS tavrel RUNTIME DESTINATION bin)
  install(DIRECTORY ${static_dir}/ DESTINATION share/tavrel/HTML)
  install(FILES README.md DESTINATION share/doc/tavrel)
  install(FILES packaging/tavrel.service DESTINATION /lib/systemd/system)
  set(CPACK_GENERATOR DEB)
endif()

set(CPACK_PACKAGE_NAME tavrel)
set(CPACK_PACKAGE_VENDOR "Tavrel")
set(CPACK_PACKAGE_CONTACT "Tavrel maintainers <tavrel@example.org>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "home-network computer table, Wake-on-LAN and xAP node")
set(CPACK_PACKAGE_DESCRIPTION
    "Tavrel keeps a table of the computers on the local subnets (filled by a LAN sweep and the ARP cache),\n"
    "wakes them with Wake-on-LAN, asks their agents to reboot or shut down, and is a node of an xAP\n"
    "home-automation network. A management page is served at http://localhost:8019/wol.\n"
    "The systemd unit tavrel.service runs it headless with its home in /var/lib/tavrel.")
string(REPLACE ";" "" CPACK_PACKAGE_DESCRIPTION "${CPACK_PACKAGE_DESCRIPTION}")
set(CPACK_STRIP_FILES ON)

set(CPACK_DEBIAN_PACKAGE_SECTION net)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA ${CMAKE_CURRENT_SOURCE_DIR}/packaging/deb/postinst
                                       ${CMAKE_CURRENT_SOURCE_DIR}/packaging/deb/prerm
                                       ${CMAKE_CURRENT_SOURCE_DIR}/packaging/deb/postrm)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)

include(CPack)
