# Checks on the lists of files: no source, header, test or benchmark is left out unnoticed.

# kalvoren_require_listed(<kind> <glob>... LISTED <file>...)
#
# Ends the configure step when a file below the current directory matches one of the patterns and is not listed. Patterns
# reach into subdirectories. The build system asks again before each build, so that a new file is noticed at once.
function(kalvoren_require_listed kind)
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "" "LISTED")
  list(TRANSFORM arg_UNPARSED_ARGUMENTS PREPEND "${CMAKE_CURRENT_SOURCE_DIR}/" OUTPUT_VARIABLE patterns)
  file(
    GLOB_RECURSE found
    RELATIVE "${CMAKE_CURRENT_SOURCE_DIR}"
    CONFIGURE_DEPENDS ${patterns})
  if(arg_LISTED)
    list(REMOVE_ITEM found ${arg_LISTED})
  endif()
  if(found)
    list(JOIN found "\n  " names)
    message(
      FATAL_ERROR "Every ${kind} must be listed in ${CMAKE_CURRENT_LIST_FILE}; missing there:\n  ${names}\n")
  endif()
endfunction()
