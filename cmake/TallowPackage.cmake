# Debian packages: `cpack -G DEB` in a release's build folder. One package for each component of
# cmake --install; what a program loads by itself (LazyLibrary) is named here, the rest is found.

set(CPACK_PACKAGE_NAME tallowd)
set(CPACK_PACKAGE_VENDOR "tallowd")
set(CPACK_PACKAGE_CONTACT "The tallowd maintainers <maintainers@tallowd.example>")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_DIRECTORY ${CMAKE_BINARY_DIR}/packages)
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "")  # each package has its own
set(CPACK_VERBATIM_VARIABLES ON)
set(CPACK_STRIP_FILES ON)
set(CPACK_SET_DESTDIR ON)
set(CPACK_INSTALL_PREFIX ${CMAKE_INSTALL_PREFIX})

set(CPACK_COMPONENTS_ALL service tool devstore client client-dev)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_GROUPING IGNORE)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_BINARY_DIR}/client)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY "=")
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)
set(CPACK_PRE_BUILD_SCRIPTS ${CMAKE_CURRENT_LIST_DIR}/CompressManualPages.cmake)

# The libraries that are loaded when they are needed, at the versions that were built against.
find_package(ICU REQUIRED COMPONENTS uc)
string(REGEX MATCH "^[0-9]+" _icu ${ICU_VERSION})
set(_loaded "libcurl4, libpsl5, libicu${_icu}")

# tallow_package(COMPONENT NAME SECTION DEPENDS SUMMARY DESCRIPTION)
function(tallow_package component name section depends summary description)
  string(TOUPPER ${component} upper)
  set(prefix CPACK_DEBIAN_${upper})
  set(${prefix}_PACKAGE_NAME ${name} PARENT_SCOPE)
  set(${prefix}_PACKAGE_SECTION ${section} PARENT_SCOPE)
  set(${prefix}_PACKAGE_DEPENDS "${depends}" PARENT_SCOPE)
  set(${prefix}_DESCRIPTION "${summary}\n${description}" PARENT_SCOPE)

  # What Debian asks of every package.
  set(folder ${CMAKE_BINARY_DIR}/packaging/${name})
  file(MAKE_DIRECTORY ${folder})
  configure_file(${CMAKE_SOURCE_DIR}/packaging/debian/copyright ${folder}/copyright COPYONLY)
  file(WRITE ${folder}/changelog.Debian
    "${name} (${PROJECT_VERSION}-1) unstable; urgency=medium\n\n"
    "  * See CHANGELOG.md.\n\n"
    " -- ${CPACK_PACKAGE_CONTACT}  Thu, 01 Jan 2026 00:00:00 +0000\n")
  execute_process(COMMAND gzip -9nf ${folder}/changelog.Debian)
  install(FILES ${folder}/copyright ${folder}/changelog.Debian.gz
    DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/${name} COMPONENT ${component})
endfunction()

set(_same "(= ${PROJECT_VERSION}-1)")
tallow_package(service tallowd misc "${_loaded}, default-dbus-session-bus | dbus-session-bus | dbus, systemd | systemd-standalone-sysusers | systemd-sysusers"
  "account service of a digital store"
  "tallowd keeps a store's state for one machine (accounts, the signed bag of\nservice addresses and policies, cookies, storefront, machine identity, push\nregistration) and serves it over D-Bus to the store's other programs, which\nstart it on demand.")
tallow_package(tool tallowctl utils "${_loaded}, tallowd ${_same}"
  "command line to the account service of a digital store"
  "tallowctl asks tallowd about accounts, bags, cookies and request headers,\nsigns people in and out, and changes preferences.")
tallow_package(devstore tallow-devstore devel "${_loaded}, openssl"
  "digital store to develop and test store programs against"
  "tallow-devstore answers what a store's servers answer: signed bags, cookies,\nsign-in, machine identity, push and password settings, well or badly as it\nis told to.")
tallow_package(client libtallow-client0 libs "${_loaded}"
  "typed C++ client of the account service - shared library"
  "libtallow-client is the D-Bus interface of tallowd as C++ classes.")
tallow_package(client-dev libtallow-client-dev libdevel "libtallow-client0 ${_same}"
  "typed C++ client of the account service - development files"
  "Headers, pkg-config and CMake package files of libtallow-client, and the\nintrospection data of the interface.")

set(CPACK_DEBIAN_SERVICE_PACKAGE_CONTROL_EXTRA
  ${CMAKE_SOURCE_DIR}/packaging/debian/postinst ${CMAKE_SOURCE_DIR}/packaging/debian/prerm
  ${CMAKE_SOURCE_DIR}/packaging/debian/postrm)

set(CPACK_DEBIAN_CLIENT_PACKAGE_CONTROL_EXTRA ${CMAKE_SOURCE_DIR}/packaging/debian/triggers)

include(CPack)
