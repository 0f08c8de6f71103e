# Debian packages: the library, what programs are built with, and the tools. `cpack -G DEB` makes them; scripts/package
# does so for both architectures, configured for the paths of a Debian system.

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME kalvoren)
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "foundation library for device software")
set(CPACK_PACKAGE_VENDOR "The Kalvoren Authors")
set(CPACK_PACKAGE_CONTACT "The Kalvoren Authors <authors@kalvoren.example>")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ
    OWNER_WRITE
    OWNER_EXECUTE
    GROUP_READ
    GROUP_EXECUTE
    WORLD_READ
    WORLD_EXECUTE)
set(CPACK_STRIP_FILES ON)
set(CPACK_COMPONENTS_ALL libkalvoren1 libkalvoren-dev)
if(KALVOREN_BUILD_TOOLS)
  list(APPEND CPACK_COMPONENTS_ALL kalvoren-tools)
endif()

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
if(CMAKE_SYSTEM_PROCESSOR MATCHES "^arm")
  set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE armhf)
endif()

# The oldest versions that have what the library refers to; a test compares them with the built file.
set(KALVOREN_DEBIAN_NEEDS "libc6 (>= 2.34), libgcc-s1 (>= 3.5), libstdc++6 (>= 5.2)")
set(KALVOREN_DEBIAN_TEXT
    "Strings, lists, memory blocks, paths, files, directories, time, mutexes,
threads, sockets, local channels, queues, messages, property lists, system
information, dynamic loading, an assertion switch and a debug log, for device
software on Linux with glibc.
.
")

set(CPACK_DEBIAN_LIBKALVOREN1_PACKAGE_NAME libkalvoren1)
set(CPACK_DEBIAN_LIBKALVOREN1_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_LIBKALVOREN1_PACKAGE_DEPENDS "${KALVOREN_DEBIAN_NEEDS}")
set(CPACK_DEBIAN_LIBKALVOREN1_DESCRIPTION
    "${KALVOREN_DEBIAN_TEXT}This package has the shared library.")
set(CPACK_DEBIAN_LIBKALVOREN1_PACKAGE_SHLIBDEPS OFF)
set(CPACK_DEBIAN_LIBKALVOREN1_PACKAGE_CONTROL_EXTRA "${PROJECT_SOURCE_DIR}/packaging/debian/triggers"
                                                    "${PROJECT_BINARY_DIR}/packaging/shlibs")

set(CPACK_DEBIAN_LIBKALVOREN-DEV_PACKAGE_NAME libkalvoren-dev)
set(CPACK_DEBIAN_LIBKALVOREN-DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_LIBKALVOREN-DEV_PACKAGE_DEPENDS "libkalvoren1 (= ${PROJECT_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE})")
set(CPACK_DEBIAN_LIBKALVOREN-DEV_DESCRIPTION
    "${KALVOREN_DEBIAN_TEXT}This package has the headers, the files for CMake and pkg-config, and the\npretty-printers for gdb."
)

set(CPACK_DEBIAN_KALVOREN-TOOLS_PACKAGE_NAME kalvoren-tools)
set(CPACK_DEBIAN_KALVOREN-TOOLS_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_KALVOREN-TOOLS_PACKAGE_DEPENDS
    "libkalvoren1 (>= ${PROJECT_VERSION}), ${KALVOREN_DEBIAN_NEEDS}")
set(CPACK_DEBIAN_KALVOREN-TOOLS_DESCRIPTION
    "${KALVOREN_DEBIAN_TEXT}This package has kplist, which prints and checks property lists.")

# Programs that are linked against the library get their dependency from here.
file(WRITE "${PROJECT_BINARY_DIR}/packaging/shlibs"
     "libkalvoren-sharedd ${PROJECT_VERSION_MAJOR} libkalvoren1 (>= ${PROJECT_VERSION})\n")

# What only the packages have: each its copyright and change log. A full installation leaves them out.
set(compressed)
# kalvoren_compress(<file> <output>): adds a compressed copy to the build, the same whenever it is made.
function(kalvoren_compress file output)
  add_custom_command(
    OUTPUT "${output}"
    COMMAND gzip -9nc "${file}" > "${output}"
    DEPENDS "${file}"
    VERBATIM)
  set(compressed ${compressed} "${output}" PARENT_SCOPE)
endfunction()
kalvoren_compress("${PROJECT_SOURCE_DIR}/packaging/debian/changelog"
                  "${PROJECT_BINARY_DIR}/packaging/changelog.Debian.gz")
kalvoren_compress("${PROJECT_SOURCE_DIR}/CHANGELOG.md" "${PROJECT_BINARY_DIR}/packaging/changelog.gz")
kalvoren_compress("${PROJECT_SOURCE_DIR}/tools/kplist/kplist.1" "${PROJECT_BINARY_DIR}/packaging/kplist.1.gz")
add_custom_target(kalvoren-packaging ALL DEPENDS ${compressed})
foreach(package IN LISTS CPACK_COMPONENTS_ALL)
  install(
    FILES "${PROJECT_SOURCE_DIR}/packaging/debian/copyright" "${PROJECT_BINARY_DIR}/packaging/changelog.Debian.gz"
          "${PROJECT_BINARY_DIR}/packaging/changelog.gz"
    DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${package}
    COMPONENT ${package}
    EXCLUDE_FROM_ALL)
endforeach()
install(
  FILES "${PROJECT_BINARY_DIR}/kalvoren.spdx.json"
  DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/libkalvoren1
  COMPONENT libkalvoren1
  EXCLUDE_FROM_ALL)
install(
  FILES "${PROJECT_SOURCE_DIR}/packaging/debian/libkalvoren1.lintian-overrides"
  DESTINATION ${CMAKE_INSTALL_DATADIR}/lintian/overrides
  COMPONENT libkalvoren1
  RENAME libkalvoren1
  EXCLUDE_FROM_ALL)
if(KALVOREN_BUILD_TOOLS)
  install(
    FILES "${PROJECT_BINARY_DIR}/packaging/kplist.1.gz"
    DESTINATION ${CMAKE_INSTALL_MANDIR}/man1
    COMPONENT kalvoren-tools
    EXCLUDE_FROM_ALL)
endif()

include(CPack)
