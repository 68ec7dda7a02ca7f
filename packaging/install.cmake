# Install rules and the Debian package. Included from the top-level
# CMakeLists.txt after the targets exist.
#
# The host reads its data from fixed places under the root it runs on
# (/usr/share/hubwardend/..., /etc/hubwarden/..., /var/lib/hubwarden/...),
# the same layout a sandbox root mirrors. So the install prefix defaults to
# /usr (anything else installs files the binary does not look at), and the
# folders outside /usr are named as they stand rather than derived from the
# prefix, which a build tree may have cached as /usr/local.
if(CMAKE_INSTALL_PREFIX_INITIALIZED_TO_DEFAULT)
  set(CMAKE_INSTALL_PREFIX /usr CACHE PATH "Install prefix" FORCE)
endif()
include(GNUInstallDirs)
if(NOT CMAKE_INSTALL_FULL_DATADIR STREQUAL "/usr/share")
  # A note, not a warning: build trees made before this default carry
  # /usr/local and only ever run from the tree.
  message(STATUS "hubwardend reads its data from /usr/share/hubwardend; "
                 "installing under ${CMAKE_INSTALL_PREFIX} leaves it there unused")
endif()

set(HUBWARDEN_BUILD_VERSION "" CACHE STRING "Build identifier recorded in the server version record")
set(HUBWARDEN_BUILD_VERSION_ENTRY "")
if(HUBWARDEN_BUILD_VERSION)
  set(HUBWARDEN_BUILD_VERSION_ENTRY
      "\n\t<key>ProductBuildVersion</key>\n\t<string>${HUBWARDEN_BUILD_VERSION}</string>")
endif()
configure_file(${CMAKE_CURRENT_LIST_DIR}/ServerVersion.plist.in ${CMAKE_BINARY_DIR}/ServerVersion.plist @ONLY)

# Installing needs the host alone, not every test and benchmark: build the
# hubwardend target, then cmake --install or cpack.
set(CMAKE_SKIP_INSTALL_ALL_DEPENDENCY ON)

set(HUBWARDEN_DATA ${CMAKE_INSTALL_DATADIR}/hubwardend)
if(TARGET hubwardend)
  install(TARGETS hubwardend RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR})
endif()
if(TARGET hubwarden)
  install(TARGETS hubwarden RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
endif()
install(FILES ${CMAKE_SOURCE_DIR}/src/hubwarden_info/Resources/sacl_list.plist
              ${CMAKE_SOURCE_DIR}/src/hubwarden_info/Resources/tacl_list.plist
        DESTINATION ${HUBWARDEN_DATA}/bundles/hubwarden_info.bundle/Contents/Resources)
install(FILES ${CMAKE_BINARY_DIR}/ServerVersion.plist
              ${CMAKE_SOURCE_DIR}/src/hubwardend/config/hubwardend.conf.plist
        DESTINATION ${HUBWARDEN_DATA})
# The administrator's file starts empty, so upgrades bring new defaults in
# through the shipped copy while local changes stay put (a conffile).
install(FILES ${CMAKE_CURRENT_LIST_DIR}/hubwardend.conf.plist DESTINATION /etc/hubwarden)
install(FILES ${CMAKE_CURRENT_LIST_DIR}/hubwarden.tmpfiles
        DESTINATION lib/tmpfiles.d RENAME hubwarden.conf)
# The service and its PAM stack. The PAM file is the administrator's to
# tighten (a conffile); the unit is overridden with drop-ins instead.
install(FILES ${CMAKE_CURRENT_LIST_DIR}/hubwardend.service DESTINATION lib/systemd/system)
install(FILES ${CMAKE_CURRENT_LIST_DIR}/pam.d/hubwardend DESTINATION /etc/pam.d)
# The places the shipped "paths" table maps the module's folders to.
install(DIRECTORY DESTINATION /var/lib/hubwarden/preferences)
install(DIRECTORY DESTINATION /var/lib/hubwarden/db)
install(DIRECTORY DESTINATION /var/log/hubwarden)

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME hubwarden)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "Hubwarden maintainers <maintainers@hubwarden.invalid>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "server administration daemon: identity, services, load and logs")
string(CONCAT CPACK_PACKAGE_DESCRIPTION
       "hubwardend answers administration requests about the server as a whole: its names and clock, "
       "the services and who may use them, live and historical load, the process table, system logs "
       "and software updates.")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA ${CMAKE_CURRENT_LIST_DIR}/conffiles)
include(CPack)
