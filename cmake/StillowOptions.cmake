# What every target of this project is compiled with, and the choices a packager has.

option(STILLOW_BUILD_TESTS "Build the tests" ON)
option(STILLOW_BUILD_FUZZERS "Build the libFuzzer targets (clang only)" OFF)
option(STILLOW_BUILD_BENCHMARKS "Build the benchmarks" OFF)
set(STILLOW_SANITIZERS "" CACHE STRING "Value of -fsanitize= for every target, empty for none")
set(STILLOW_STATE_DIRECTORY "/Library/Application Support/Stillow" CACHE STRING
    "Directory of the checkpoints and the directive; fixed at build time, nobody can change it at run time")
set(STILLOW_RUNTIME_DIRECTORY "/run/stillow" CACHE STRING "Directory of the daemon's socket (Linux)")

set(CMAKE_CXX_STANDARD 23)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_OBJCXX_STANDARD 23)
set(CMAKE_OBJCXX_STANDARD_REQUIRED ON)
set(CMAKE_OBJCXX_EXTENSIONS OFF)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_RUNTIME_OUTPUT_DIRECTORY "${PROJECT_BINARY_DIR}/bin")

find_program(STILLOW_CCACHE ccache)
if(STILLOW_CCACHE AND NOT CMAKE_CXX_COMPILER_LAUNCHER)
  set(CMAKE_CXX_COMPILER_LAUNCHER "${STILLOW_CCACHE}")
endif()

add_library(stillow_options INTERFACE)
target_compile_options(stillow_options INTERFACE
  -Wall -Wextra -Wpedantic -Wconversion -Wshadow -Werror
  $<$<CXX_COMPILER_ID:Clang,AppleClang>:-Wno-missing-field-initializers>
  $<$<CXX_COMPILER_ID:GNU>:-Wno-missing-field-initializers>)
if(CMAKE_SYSTEM_NAME STREQUAL "Darwin")
  target_compile_options(stillow_options INTERFACE
    -Wunguarded-availability
    "$<$<COMPILE_LANGUAGE:OBJCXX>:SHELL:-fobjc-arc -Woverriding-method-mismatch -Wundeclared-selector>")
endif()
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  # GCC 12 warns about its own inlined std::string and std::variant code at -O2 (bugs 105329, 105562).
  target_compile_options(stillow_options INTERFACE
    $<$<NOT:$<CONFIG:Debug>>:-Wno-restrict> -Wno-maybe-uninitialized -Wno-mismatched-new-delete)
endif()
if(NOT CMAKE_CXX_COMPILER_ID MATCHES "AppleClang" AND NOT STILLOW_SANITIZERS)
  target_compile_definitions(stillow_options INTERFACE $<$<NOT:$<CONFIG:Debug>>:_FORTIFY_SOURCE=2>)
endif()
if(CMAKE_UNITY_BUILD)
  # Sources that are compiled as one see the names of the others' anonymous namespaces, and GCC takes
  # such a namespace for a header's. The presets that compile each by itself check both.
  target_compile_options(stillow_options INTERFACE -Wno-shadow
    $<$<CXX_COMPILER_ID:GNU>:-Wno-subobject-linkage>)
endif()
if(STILLOW_SANITIZERS)
  target_compile_options(stillow_options INTERFACE
    -fsanitize=${STILLOW_SANITIZERS} -fno-sanitize-recover=all -fno-omit-frame-pointer)
  target_link_options(stillow_options INTERFACE -fsanitize=${STILLOW_SANITIZERS})
  if(STILLOW_SANITIZERS MATCHES "undefined")
    # It makes a pipe to look at memory, and reports each object where a test has left no descriptor.
    target_compile_options(stillow_options INTERFACE -fno-sanitize=vptr)
    target_link_options(stillow_options INTERFACE -fno-sanitize=vptr)
  endif()
  if(STILLOW_SANITIZERS MATCHES "thread")
    # With the standard atomics Asio counts owners by way of a fence, which the sanitizer does not
    # know: it reports the last owner's destruction as a race.
    target_compile_definitions(stillow_options INTERFACE BOOST_ASIO_DISABLE_STD_ATOMIC)
  endif()
endif()
if(CMAKE_SYSTEM_NAME STREQUAL "Linux")
  # An executable names just the libraries that it uses.
  target_link_options(stillow_options INTERFACE -Wl,--as-needed)
endif()
