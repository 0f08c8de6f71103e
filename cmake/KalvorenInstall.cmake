# Installs the library, its headers, and what find_package and pkg-config need to find them. Components are named like the
# Debian packages that they become.
include(CMakePackageConfigHelpers)

set(KALVOREN_CMAKE_DIR "${CMAKE_INSTALL_LIBDIR}/cmake/Kalvoren")

install(
  TARGETS kalvoren-sharedd
  EXPORT KalvorenTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
          COMPONENT libkalvoren1
          NAMELINK_COMPONENT libkalvoren-dev
  FILE_SET HEADERS
           DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/kalvoren
           COMPONENT libkalvoren-dev)
install(
  EXPORT KalvorenTargets
  NAMESPACE Kalvoren::
  DESTINATION ${KALVOREN_CMAKE_DIR}
  COMPONENT libkalvoren-dev)

configure_package_config_file(
  "${CMAKE_CURRENT_LIST_DIR}/KalvorenConfig.cmake.in" "${CMAKE_CURRENT_BINARY_DIR}/KalvorenConfig.cmake"
  INSTALL_DESTINATION ${KALVOREN_CMAKE_DIR})
write_basic_package_version_file("${CMAKE_CURRENT_BINARY_DIR}/KalvorenConfigVersion.cmake"
                                 COMPATIBILITY SameMajorVersion)
install(
  FILES "${CMAKE_CURRENT_BINARY_DIR}/KalvorenConfig.cmake" "${CMAKE_CURRENT_BINARY_DIR}/KalvorenConfigVersion.cmake"
  DESTINATION ${KALVOREN_CMAKE_DIR}
  COMPONENT libkalvoren-dev)

# The system's gdb loads by itself what lies below its own auto-load directory, under the path of the library: that is for
# the prefix /usr. With any other it looks beside the library, wherever that was installed or moved, and loads the file when
# it was told that the directory is safe; else it says so, and how.
set(KALVOREN_PRINTERS_DIR "${CMAKE_INSTALL_LIBDIR}")
if(CMAKE_INSTALL_PREFIX STREQUAL "/usr")
  set(KALVOREN_PRINTERS_DIR "${CMAKE_INSTALL_DATADIR}/gdb/auto-load${CMAKE_INSTALL_FULL_LIBDIR}")
endif()
install(
  FILES "${PROJECT_SOURCE_DIR}/tools/gdb/kalvoren_gdb.py"
  DESTINATION "${KALVOREN_PRINTERS_DIR}"
  RENAME libkalvoren-sharedd.so.${PROJECT_VERSION}-gdb.py
  COMPONENT libkalvoren-dev)

# The prefix is worked out from where the file lies, so that an installed tree can be moved.
set(KALVOREN_PC_DIR "${CMAKE_INSTALL_LIBDIR}/pkgconfig")
cmake_path(RELATIVE_PATH CMAKE_INSTALL_PREFIX BASE_DIRECTORY "${CMAKE_INSTALL_PREFIX}/${KALVOREN_PC_DIR}"
           OUTPUT_VARIABLE KALVOREN_PC_PREFIX)
configure_file("${CMAKE_CURRENT_LIST_DIR}/kalvoren.pc.in" "${CMAKE_CURRENT_BINARY_DIR}/kalvoren.pc" @ONLY)
install(
  FILES "${CMAKE_CURRENT_BINARY_DIR}/kalvoren.pc"
  DESTINATION ${KALVOREN_PC_DIR}
  COMPONENT libkalvoren-dev)
