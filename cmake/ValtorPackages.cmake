# What is installed, and the Debian packages made of it: valtor-remote (component "daemon"),
# valtor-remote-tools (component "tools") and valtor-status (component "status").
include(GNUInstallDirs)

set(VALTOR_UNIT_DIR "lib/systemd/system" CACHE STRING
    "Where the systemd unit goes; relative to the prefix, absolute in packages")
set(VALTOR_INIT_DIR "etc/init.d" CACHE STRING
    "Where the start script for machines without systemd goes; the same")
set(packaging "${CMAKE_SOURCE_DIR}/packaging")

# valtor_install_compressed(<component> <file> <folder> <name>): as <name>.gz, the way Debian has
# manual pages and change logs.
function(valtor_install_compressed component file folder name)
  string(MAKE_C_IDENTIFIER "compressed_${folder}_${name}" target)
  set(compressed "${CMAKE_BINARY_DIR}/compressed/${folder}/${name}.gz")
  cmake_path(GET compressed PARENT_PATH parent)
  add_custom_command(
    OUTPUT "${compressed}"
    COMMAND ${CMAKE_COMMAND} -E make_directory "${parent}"
    COMMAND gzip -9nc "${file}" > "${compressed}"
    DEPENDS "${file}")
  add_custom_target(${target} ALL DEPENDS "${compressed}")
  install(FILES "${compressed}" DESTINATION "${folder}" COMPONENT ${component})
endfunction()

# valtor_install_papers(<component> <package>): what every Debian package has.
function(valtor_install_papers component package)
  set(documents "${CMAKE_INSTALL_DATAROOTDIR}/doc/${package}")
  install(FILES "${packaging}/copyright" DESTINATION "${documents}" COMPONENT ${component})
  valtor_install_compressed(${component} "${packaging}/changelog" "${documents}" changelog.Debian)
  install(FILES "${packaging}/lintian/${package}"
          DESTINATION "${CMAKE_INSTALL_DATAROOTDIR}/lintian/overrides" COMPONENT ${component})
endfunction()

# valtor_install_manual(<component> <page>): docs/man/<page>, into the section that its name ends in.
function(valtor_install_manual component page)
  string(REGEX MATCH "[0-9]$" section "${page}")
  valtor_install_compressed(${component} "${CMAKE_SOURCE_DIR}/docs/man/${page}"
                            "${CMAKE_INSTALL_DATAROOTDIR}/man/man${section}" "${page}")
endfunction()

install(TARGETS valtor-remote RUNTIME DESTINATION "${CMAKE_INSTALL_SBINDIR}" COMPONENT daemon)
configure_file("${packaging}/valtor-remote.service.in" "${CMAKE_BINARY_DIR}/valtor-remote.service"
               @ONLY)
install(FILES "${CMAKE_BINARY_DIR}/valtor-remote.service" DESTINATION "${VALTOR_UNIT_DIR}"
        COMPONENT daemon)
configure_file("${packaging}/valtor-remote.init.in" "${CMAKE_BINARY_DIR}/valtor-remote.init" @ONLY)
install(PROGRAMS "${CMAKE_BINARY_DIR}/valtor-remote.init" DESTINATION "${VALTOR_INIT_DIR}"
        RENAME valtor-remote COMPONENT daemon)
install(FILES "${packaging}/valtor-remote.tmpfiles" DESTINATION lib/tmpfiles.d
        RENAME valtor-remote.conf COMPONENT daemon)
install(DIRECTORY "${packaging}/examples"
        DESTINATION "${CMAKE_INSTALL_DATAROOTDIR}/doc/valtor-remote" COMPONENT daemon)
install(FILES docs/operating.md docs/bridging.md docs/bus-protocol.md
        DESTINATION "${CMAKE_INSTALL_DATAROOTDIR}/doc/valtor-remote" COMPONENT daemon)
valtor_install_manual(daemon valtor-remote.8)
valtor_install_papers(daemon valtor-remote)
set(CPACK_COMPONENTS_ALL daemon)

foreach(tool valtor-node valtor-bus)
  if(TARGET ${tool})
    install(TARGETS ${tool} RUNTIME DESTINATION "${CMAKE_INSTALL_BINDIR}" COMPONENT tools)
    valtor_install_manual(tools ${tool}.1)
    set(completion "${CMAKE_SOURCE_DIR}/tools/${tool}/${tool}.bash-completion")
    if(EXISTS "${completion}")
      install(FILES "${completion}"
              DESTINATION "${CMAKE_INSTALL_DATAROOTDIR}/bash-completion/completions"
              RENAME ${tool} COMPONENT tools)
    endif()
    set(has_tools TRUE)
  endif()
endforeach()
if(has_tools)
  valtor_install_papers(tools valtor-remote-tools)
  install(DIRECTORY tools/message-node/examples
          DESTINATION "${CMAKE_INSTALL_DATAROOTDIR}/doc/valtor-remote-tools" COMPONENT tools)
  list(APPEND CPACK_COMPONENTS_ALL tools)
endif()

if(TARGET valtor-status)
  install(TARGETS valtor-status RUNTIME DESTINATION "${CMAKE_INSTALL_SBINDIR}" COMPONENT status)
  configure_file("${packaging}/valtor-status.service.in" "${CMAKE_BINARY_DIR}/valtor-status.service"
                 @ONLY)
  install(FILES "${CMAKE_BINARY_DIR}/valtor-status.service" DESTINATION "${VALTOR_UNIT_DIR}"
          COMPONENT status)
  valtor_install_manual(status valtor-status.8)
  # Beside the text that shows them.
  install(DIRECTORY docs/images DESTINATION "${CMAKE_INSTALL_DATAROOTDIR}/doc/valtor-remote"
          COMPONENT status)
  valtor_install_papers(status valtor-status)
  list(APPEND CPACK_COMPONENTS_ALL status)
endif()

set(CPACK_GENERATOR DEB)
# Each package has a summary of its own.
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "")
set(CPACK_PACKAGE_DIRECTORY "${CMAKE_BINARY_DIR}/packages")
set(CPACK_PACKAGING_INSTALL_PREFIX "/usr")
set(CPACK_STRIP_FILES ON)
# Whatever the mask of the one who builds.
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_MAINTAINER
    "Valtor Remote maintainers <maintainers@valtor-remote.example>")
set(CPACK_DEBIAN_PACKAGE_SECTION net)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# That of the compiler, not of the machine that builds.
execute_process(
  COMMAND dpkg-architecture -t "${CMAKE_LIBRARY_ARCHITECTURE}" -qDEB_HOST_ARCH
  OUTPUT_VARIABLE CPACK_DEBIAN_PACKAGE_ARCHITECTURE OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)

set(CPACK_DEBIAN_DAEMON_PACKAGE_NAME valtor-remote)
set(CPACK_DEBIAN_DAEMON_DESCRIPTION "bridge between a router controller and remote routers
The daemon is one client of the controller's message bus and one client of
every remote router's bus, and carries messages both ways through named filter
rules. It follows the controller's active or standby role, announces every
change of a connection and comes back by itself after every outage.")
set(CPACK_DEBIAN_DAEMON_PACKAGE_SUGGESTS valtor-remote-tools)
set(CPACK_DEBIAN_DAEMON_PACKAGE_CONTROL_EXTRA
    "${packaging}/conffiles;${packaging}/postinst;${packaging}/prerm;${packaging}/postrm")

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME valtor-remote-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SOURCE valtor-remote)
set(CPACK_DEBIAN_TOOLS_DESCRIPTION "tools for the message bus of router controllers
For those who run or integrate valtor-remote: a client that watches, asks,
sends, records and replays on any message bus, and a stand-in message node to
develop and test against.")

set(CPACK_DEBIAN_STATUS_PACKAGE_NAME valtor-status)
set(CPACK_DEBIAN_STATUS_PACKAGE_SOURCE valtor-remote)
set(CPACK_DEBIAN_STATUS_DESCRIPTION "live page of the bridge between a controller and routers
Shows in a browser what valtor-remote on this machine does: the state and the
traffic of every router, what is blocked and by which rule, and the messages of
a router as they pass. The same is there as JSON and for Prometheus. It serves
on the loopback address, and only once its unit has been enabled.")
set(CPACK_DEBIAN_STATUS_PACKAGE_DEPENDS libjs-chart.js)
set(CPACK_DEBIAN_STATUS_PACKAGE_RECOMMENDS valtor-remote)
set(CPACK_DEBIAN_STATUS_PACKAGE_CONTROL_EXTRA
    "${packaging}/status/postinst;${packaging}/status/prerm;${packaging}/status/postrm")

include(CPack)
