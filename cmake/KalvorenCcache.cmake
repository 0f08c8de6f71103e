# Compiles through ccache where it is installed and nothing else was asked for.
find_program(KALVOREN_CCACHE ccache)
if(KALVOREN_CCACHE AND NOT CMAKE_CXX_COMPILER_LAUNCHER)
  set(CMAKE_CXX_COMPILER_LAUNCHER "${KALVOREN_CCACHE}")
endif()
