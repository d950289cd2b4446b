# Debian packages, through CPack: libhutil0 for devices, libhutil-dev for those who build. scripts/package.sh makes and
# tries them. Version and maintainer are those of packaging/changelog's newest entry.
find_program(HUTIL_DPKG_ARCHITECTURE dpkg-architecture)
if(NOT HUTIL_DPKG_ARCHITECTURE)
  return()
endif()

set(changelog ${PROJECT_SOURCE_DIR}/packaging/changelog)
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${changelog})
file(READ ${changelog} entries)
string(REGEX MATCH "^hutil \\(([^-]+)-([^)]+)\\)" version "${entries}")
set(version ${CMAKE_MATCH_1})
set(CPACK_DEBIAN_PACKAGE_RELEASE ${CMAKE_MATCH_2})
if(NOT version STREQUAL PROJECT_VERSION)
  message(FATAL_ERROR "packaging/changelog begins with version '${version}', the project is at ${PROJECT_VERSION}: "
                      "add an entry (dch --changelog packaging/changelog)")
endif()
string(REGEX MATCH "\n -- ([^\n]+>)  " maintainer "${entries}")
set(CPACK_PACKAGE_CONTACT "${CMAKE_MATCH_1}")

# Documentation belongs to the packages only, not to a plain installation.
execute_process(COMMAND gzip -9n INPUT_FILE ${changelog}
  OUTPUT_FILE ${PROJECT_BINARY_DIR}/changelog.Debian.gz COMMAND_ERROR_IS_FATAL ANY)
foreach(component IN ITEMS runtime dev)
  set(package libhutil${PROJECT_VERSION_MAJOR})
  if(component STREQUAL dev)
    set(package libhutil-dev)
  endif()
  install(FILES ${PROJECT_SOURCE_DIR}/packaging/copyright ${PROJECT_BINARY_DIR}/changelog.Debian.gz
    DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/${package} COMPONENT ${component} EXCLUDE_FROM_ALL)
  if(component STREQUAL dev) # the guide, with what it links to
    set(folder ${CMAKE_INSTALL_DATAROOTDIR}/doc/${package})
    install(FILES docs/guide.md docs/architecture.md docs/operations.md
      DESTINATION ${folder}/docs COMPONENT dev EXCLUDE_FROM_ALL)
    install(DIRECTORY examples DESTINATION ${folder} COMPONENT dev EXCLUDE_FROM_ALL
      PATTERN check.sh EXCLUDE PATTERN snippets.h EXCLUDE PATTERN examples/CMakeLists.txt EXCLUDE)
  endif()
  string(TOUPPER ${component} prefix)
  set(CPACK_DEBIAN_${prefix}_PACKAGE_NAME ${package})
endforeach()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME hutil)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
  OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_STRIP_FILES ON)
set(CPACK_COMPONENTS_ALL runtime dev)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_PACKAGE_MULTIARCH same)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_RUNTIME_DESCRIPTION
"libhutil has what a gateway's daemons have in common: an event loop,
sockets, TLS, servers and clients, timers, network events, DHCP leases,
settings that survive a reboot, and HTTP requests.")
set(CPACK_DEBIAN_DEV_DESCRIPTION "${CPACK_DEBIAN_RUNTIME_DESCRIPTION}

This package has the headers, what CMake and pkg-config need, the guide
and the examples.")
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS
  "libhutil${PROJECT_VERSION_MAJOR} (= ${PROJECT_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE})")
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY >=)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA ${PROJECT_SOURCE_DIR}/packaging/triggers)

if(CMAKE_CROSSCOMPILING)
  execute_process(COMMAND ${HUTIL_DPKG_ARCHITECTURE} -t${CMAKE_LIBRARY_ARCHITECTURE} -qDEB_HOST_ARCH
    OUTPUT_VARIABLE CPACK_DEBIAN_PACKAGE_ARCHITECTURE OUTPUT_STRIP_TRAILING_WHITESPACE
    COMMAND_ERROR_IS_FATAL ANY)
  # dpkg-shlibdeps knows this machine's packages only.
  string(JOIN ", " CPACK_DEBIAN_RUNTIME_PACKAGE_DEPENDS "libc6 (>= 2.34)" "libcurl4 (>= 7.16.2)"
    "libgcc-s1 (>= 3.5)" "libssl3 (>= 3.0.0)" "libstdc++6 (>= 6)")
else()
  set(CPACK_DEBIAN_RUNTIME_PACKAGE_SHLIBDEPS ON)
endif()
include(CPack)
