# Helpers that keep every target of ours on the same rules: warnings are errors, sources
# are found from the folder, tests register with CTest under labels.

function(qvn_warnings target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Wpedantic -Werror -Wshadow
                                           -Wnon-virtual-dtor -Wno-missing-field-initializers)
endfunction()

# qvn_library(NAME SOURCES files... DEPS targets...)
function(qvn_library name)
  cmake_parse_arguments(ARG "" "" "SOURCES;DEPS;PRIVATE_DEPS" ${ARGN})
  if(NOT ARG_SOURCES)  # a folder of interfaces only, so far
    add_library(${name} INTERFACE)
    target_include_directories(${name} INTERFACE ${PROJECT_SOURCE_DIR}/src)
    target_link_libraries(${name} INTERFACE ${ARG_DEPS})
    return()
  endif()
  add_library(${name} STATIC ${ARG_SOURCES})
  target_include_directories(${name} PUBLIC ${PROJECT_SOURCE_DIR}/src)
  target_link_libraries(${name} PUBLIC ${ARG_DEPS} PRIVATE ${ARG_PRIVATE_DEPS})
  qvn_warnings(${name})
endfunction()

if(NOT TARGET qvn-tests)
  add_custom_target(qvn-tests)
  add_custom_target(qvn-tests-threads)
endif()

# qvn_test(NAME SOURCES files... DEPS targets... LABELS unit|e2e|slow|threads...)
function(qvn_test name)
  cmake_parse_arguments(ARG "" "" "SOURCES;DEPS;LABELS" ${ARGN})
  add_executable(${name} ${ARG_SOURCES})
  target_link_libraries(${name} PRIVATE ${ARG_DEPS} GTest::gmock_main Threads::Threads)
  target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR}/tests)
  qvn_warnings(${name})
  gtest_discover_tests(${name} DISCOVERY_MODE PRE_TEST DISCOVERY_TIMEOUT 30
                       PROPERTIES LABELS "${ARG_LABELS}")
  add_dependencies(qvn-tests ${name})
  if("threads" IN_LIST ARG_LABELS)
    add_dependencies(qvn-tests-threads ${name})
  endif()
endfunction()
