# Compiler and linker flags of this project's own targets. None of them reaches a program that uses the library.

# What every target of the project compiles with; link it PRIVATE.
add_library(kalvoren-private-flags INTERFACE)
set(KALVOREN_WARNINGS -Wall -Wextra -Wpedantic -Wshadow -Wconversion)
if(KALVOREN_WERROR)
  list(APPEND KALVOREN_WARNINGS -Werror)
endif()
target_compile_options(kalvoren-private-flags INTERFACE ${KALVOREN_WARNINGS})
if(CMAKE_SIZEOF_VOID_P EQUAL 4)
  # Without it readdir and stat fail on file systems with 64-bit inode numbers. No public header depends on it.
  target_compile_definitions(kalvoren-private-flags INTERFACE _FILE_OFFSET_BITS=64)
endif()

# GCC 7 changed how ARM passes some records; whatever was compiled before it is of no interest here.
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_SYSTEM_PROCESSOR MATCHES "^arm")
  target_compile_options(kalvoren-private-flags INTERFACE -Wno-psabi)
endif()

# Debian's valgrind 3.19 ends at the debug information that Clang 14 makes by itself.
if(CMAKE_CXX_COMPILER_ID MATCHES "Clang")
  add_compile_options($<$<CONFIG:Debug>:-gdwarf-4>)
endif()

# Sanitizers and coverage are for the whole build, the test framework included: a thread sanitizer that sees only half of
# the program reports what is not there.
if(KALVOREN_SANITIZE)
  list(JOIN KALVOREN_SANITIZE "," KALVOREN_SANITIZE_NAMES)
  set(KALVOREN_SANITIZE_FLAGS -fsanitize=${KALVOREN_SANITIZE_NAMES} -fno-omit-frame-pointer)
  if("undefined" IN_LIST KALVOREN_SANITIZE)
    list(APPEND KALVOREN_SANITIZE_FLAGS -fno-sanitize-recover=all)
    if(CMAKE_CXX_COMPILER_ID MATCHES "Clang")
      list(APPEND KALVOREN_SANITIZE_FLAGS "-fsanitize-ignorelist=${PROJECT_SOURCE_DIR}/tests/ubsan.ignore")
    endif()
  endif()
  add_compile_options(${KALVOREN_SANITIZE_FLAGS})
  add_link_options(${KALVOREN_SANITIZE_FLAGS})
endif()
if(KALVOREN_COVERAGE)
  # The counters are updated atomically, or tests with threads lose counts.
  add_compile_options(--coverage -fprofile-update=atomic)
  add_link_options(--coverage)
  # The parts of templates are functions of their own, counted once and not once for each place that they become part of.
  add_compile_definitions(KALVOREN_INLINE=inline)
endif()

# kalvoren_harden(<target>): what makes a memory error in a device's software harder to use against it. Sanitizers and
# coverage do without, they look closer themselves.
function(kalvoren_harden target)
  # Level 3 of glibc's checked calls, which some compilers have from home, takes it for a mistake that a text uses all that
  # malloc gave it.
  target_compile_options(${target} PRIVATE -U_FORTIFY_SOURCE)
  if(KALVOREN_SANITIZE OR KALVOREN_COVERAGE)
    return()
  endif()
  # The strong form looks after every function whose locals have an address that is taken; the plain one, after those
  # with an array of characters.
  target_compile_options(${target} PRIVATE $<IF:$<BOOL:${KALVOREN_SMALL}>,-fstack-protector,-fstack-protector-strong>)
  # The checked calls need an optimising compiler, and warn without one.
  string(TOUPPER "${CMAKE_BUILD_TYPE}" config)
  if("${CMAKE_CXX_FLAGS} ${CMAKE_CXX_FLAGS_${config}}" MATCHES "-O([1-3sgz]|fast)")
    target_compile_options(${target} PRIVATE -D_FORTIFY_SOURCE=2)
  endif()
  target_link_options(${target} PRIVATE "LINKER:-z,relro,-z,now,-z,noexecstack")
endfunction()

if(KALVOREN_BUILD_FUZZERS)
  # What the fuzzer is led by. Its main function goes to the targets alone.
  add_compile_options(-fsanitize=fuzzer-no-link)
  add_link_options(-fsanitize=fuzzer-no-link)
endif()

# kalvoren_link_defs(<target>): an undefined symbol is an error when the library is linked, not when it is loaded.
function(kalvoren_link_defs target)
  # Clang links its sanitizers' runtime into programs only, so that a shared library has to leave its symbols open.
  if(KALVOREN_SANITIZE AND CMAKE_CXX_COMPILER_ID MATCHES "Clang")
    return()
  endif()
  target_link_options(${target} PRIVATE "LINKER:-z,defs")
endfunction()

# kalvoren_link_realtime(<target>): shm_open is part of libc since glibc 2.34 and of librt before.
include(CheckCXXSymbolExists)
check_cxx_symbol_exists(shm_open "sys/mman.h" KALVOREN_SHM_OPEN_IN_LIBC)
function(kalvoren_link_realtime target)
  if(NOT KALVOREN_SHM_OPEN_IN_LIBC)
    target_link_libraries(${target} PRIVATE rt)
  endif()
endfunction()

# What the tests of programs with sanitizers are started by, if anything; scripts/lib.sh tells why.
if(KALVOREN_SANITIZE AND NOT CMAKE_CROSSCOMPILING)
  execute_process(
    COMMAND bash -c "source scripts/lib.sh && sanitized_start"
    WORKING_DIRECTORY "${PROJECT_SOURCE_DIR}"
    OUTPUT_VARIABLE KALVOREN_START
    OUTPUT_STRIP_TRAILING_WHITESPACE)
  if(KALVOREN_START)
    message(STATUS "Starting the tests with '${KALVOREN_START}': addresses may be too random for the sanitizers")
    separate_arguments(CMAKE_CROSSCOMPILING_EMULATOR UNIX_COMMAND "${KALVOREN_START}")
  endif()
endif()
