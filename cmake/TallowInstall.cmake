# Where everything goes: cmake --install. The places are those that the bus, systemd and man look in
# below the prefix; packagers stage with DESTDIR, and take the components apart as TallowPackage.cmake does.
set(CMAKE_INSTALL_DEFAULT_COMPONENT_NAME service)

install(TARGETS tallowctl RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tool)
install(TARGETS tallow-devstore RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT devstore)
# Started by the bus, never by hand.
install(TARGETS tallowd RUNTIME DESTINATION ${CMAKE_INSTALL_LIBEXECDIR})

set(_packaging ${CMAKE_SOURCE_DIR}/packaging)
set(_dbus ${CMAKE_INSTALL_DATADIR}/dbus-1)

# tallow_install_configured(FILE.in DESTINATION): fills in the paths, installs as FILE.
function(tallow_install_configured template destination)
  cmake_parse_arguments(ARG "" "COMPONENT" "" ${ARGN})
  if(NOT ARG_COMPONENT)
    set(ARG_COMPONENT service)
  endif()
  string(REGEX REPLACE "\\.in$" "" name ${template})
  configure_file(${_packaging}/${template} ${CMAKE_BINARY_DIR}/packaging/${name} @ONLY)
  install(FILES ${CMAKE_BINARY_DIR}/packaging/${name} DESTINATION ${destination}
    COMPONENT ${ARG_COMPONENT})
endfunction()

tallow_install_configured(com.vantor.tallowd.service.in ${_dbus}/services)
tallow_install_configured(com.vantor.tallowd.daemon.service.in ${_dbus}/system-services)
install(FILES ${_packaging}/com.vantor.tallowd.daemon.conf DESTINATION ${_dbus}/system.d)
tallow_install_configured(tallowd.service.in lib/systemd/user)
tallow_install_configured(tallowd-daemon.service.in lib/systemd/system)
tallow_install_configured(tallowd-inspector@.service.in lib/systemd/system)
install(FILES ${_packaging}/tallowd-inspector.socket DESTINATION lib/systemd/system)
tallow_install_configured(clients.d/tallowctl.toml.in ${CMAKE_INSTALL_DATADIR}/tallowd/clients.d
  COMPONENT tool)
install(FILES ${_packaging}/sandbox/com.vantor.tallowd.toml
  DESTINATION ${CMAKE_INSTALL_DATADIR}/tallowd/sandbox)
# For who builds a machine-identity library.
install(FILES ${CMAKE_SOURCE_DIR}/platform/Orv/tallow-orv.h
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/tallow)
install(FILES ${CMAKE_SOURCE_DIR}/platform/Orv/example/example-orv.c
  DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples)
install(FILES ${_packaging}/tallowd.sysusers DESTINATION lib/sysusers.d RENAME tallowd.conf)

file(GLOB _interfaces CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/interfaces/*.xml)
install(FILES ${_interfaces} DESTINATION ${_dbus}/interfaces COMPONENT client-dev)

# For authors of store clients, who test without a service.
install(FILES ${CMAKE_SOURCE_DIR}/client/dbusmock/tallowd.py
  DESTINATION ${CMAKE_INSTALL_DATADIR}/tallowd/dbusmock COMPONENT client-dev)
file(GLOB _figures CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/docs/figures/*.svg)
install(FILES ${_figures} DESTINATION ${CMAKE_INSTALL_DOCDIR}/figures)

foreach(page tallowd.8 tallowd-clients.d.5 tallowctl.1 tallow-devstore.1)
  set(_component service)
  if(page STREQUAL "tallowctl.1")
    set(_component tool)
  elseif(page STREQUAL "tallow-devstore.1")
    set(_component devstore)
  endif()
  string(REGEX MATCH "[0-9]$" _section ${page})
  install(FILES ${_packaging}/man/${page} DESTINATION ${CMAKE_INSTALL_MANDIR}/man${_section}
    COMPONENT ${_component})
endforeach()

set(_completions ${CMAKE_BINARY_DIR}/completions)
install(FILES ${_completions}/tallowctl
  DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions COMPONENT tool)
install(FILES ${_completions}/_tallowctl
  DESTINATION ${CMAKE_INSTALL_DATADIR}/zsh/vendor-completions COMPONENT tool)
install(FILES ${_completions}/tallowctl.fish
  DESTINATION ${CMAKE_INSTALL_DATADIR}/fish/vendor_completions.d COMPONENT tool)

file(GLOB _documents CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/docs/*.md)
install(FILES ${_documents} ${CMAKE_SOURCE_DIR}/README.md ${CMAKE_SOURCE_DIR}/CHANGELOG.md
  ${CMAKE_SOURCE_DIR}/LICENSE DESTINATION ${CMAKE_INSTALL_DOCDIR})

include(TallowPackage)
