# A module is a directory of sources whose headers are included as "Module/Header.hpp". Its include
# path holds that one directory and nothing else, so a target sees the headers of what it links and
# of nothing more: a forbidden dependency does not compile. The views lie outside the presets' own
# folders, so that every preset compiles with the same paths and ccache serves them all.

function(stillow_include_view target name directory)
  set(view "${PROJECT_SOURCE_DIR}/build/include/${name}")
  get_filename_component(parent "${view}/${name}" DIRECTORY)
  file(MAKE_DIRECTORY "${parent}")
  if(NOT EXISTS "${view}/${name}")
    file(CREATE_LINK "${directory}" "${view}/${name}" SYMBOLIC)
  endif()
  target_include_directories(${target} PUBLIC "${view}")
endfunction()

# stillow_module(NAME [INCLUDE_AS name] [EXCLUDE subdirectories...] [LINK libraries...]
#                [PRIVATE_LINK libraries...])
function(stillow_module name)
  cmake_parse_arguments(ARG "" "INCLUDE_AS" "EXCLUDE;LINK;PRIVATE_LINK" ${ARGN})
  file(GLOB_RECURSE sources CONFIGURE_DEPENDS
    "${CMAKE_CURRENT_SOURCE_DIR}/*.cpp" "${CMAKE_CURRENT_SOURCE_DIR}/*.mm")
  foreach(directory IN LISTS ARG_EXCLUDE)
    list(FILTER sources EXCLUDE REGEX "^${CMAKE_CURRENT_SOURCE_DIR}/${directory}/")
  endforeach()
  if(NOT sources)
    file(WRITE "${CMAKE_CURRENT_BINARY_DIR}/empty.cpp" "")
    set(sources "${CMAKE_CURRENT_BINARY_DIR}/empty.cpp")
  endif()
  add_library(${name} STATIC ${sources})
  if(NOT ARG_INCLUDE_AS)
    set(ARG_INCLUDE_AS "${name}")
  endif()
  stillow_include_view(${name} "${ARG_INCLUDE_AS}" "${CMAKE_CURRENT_SOURCE_DIR}")
  target_link_libraries(${name} PUBLIC ${ARG_LINK} PRIVATE stillow_options ${ARG_PRIVATE_LINK})
endfunction()

# stillow_program(NAME [LINK libraries...]): an executable of every source in the current directory.
function(stillow_program name)
  cmake_parse_arguments(ARG "" "" "LINK" ${ARGN})
  file(GLOB sources CONFIGURE_DEPENDS
    "${CMAKE_CURRENT_SOURCE_DIR}/*.cpp" "${CMAKE_CURRENT_SOURCE_DIR}/*.mm")
  add_executable(${name} ${sources})
  target_link_libraries(${name} PRIVATE stillow_options ${ARG_LINK})
endfunction()

# stillow_tests(NAME [LINK libraries...]): a GoogleTest executable of every source in the current directory.
function(stillow_tests name)
  cmake_parse_arguments(ARG "" "" "LINK;LABELS" ${ARGN})
  file(GLOB sources CONFIGURE_DEPENDS "${CMAKE_CURRENT_SOURCE_DIR}/*.cpp")
  if(NOT sources)
    return()
  endif()
  add_executable(${name} ${sources})
  # Tests say what they mean in names of their own, which need not differ from another file's.
  set_target_properties(${name} PROPERTIES UNITY_BUILD OFF)
  target_link_libraries(${name} PRIVATE stillow_options TestSupport ${ARG_LINK} GTest::gmock GTest::gtest_main)
  target_compile_definitions(${name} PRIVATE
    STILLOW_FIXTURES="${PROJECT_SOURCE_DIR}/Tests/Fixtures"
    STILLOW_BIN="${CMAKE_RUNTIME_OUTPUT_DIRECTORY}")
  gtest_discover_tests(${name} DISCOVERY_MODE PRE_TEST DISCOVERY_TIMEOUT 60
    PROPERTIES TIMEOUT 600 LABELS "${ARG_LABELS}")
endfunction()
