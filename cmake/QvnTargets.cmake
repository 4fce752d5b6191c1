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
  add_custom_target(qvn-fuzzers)
endif()

# qvn_test(NAME SOURCES files... DEPS targets... LABELS unit|e2e|slow|threads...)
function(qvn_test name)
  cmake_parse_arguments(ARG "" "" "SOURCES;DEPS;LABELS" ${ARGN})
  add_executable(${name} ${ARG_SOURCES})
  target_link_libraries(${name} PRIVATE ${ARG_DEPS} GTest::gmock_main Threads::Threads)
  target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR}/tests)
  qvn_warnings(${name})
  # One CTest entry per program: its GoogleTest output names every case, and labels stay
  # a plain list.
  add_test(NAME ${name} COMMAND ${name} --gtest_brief=1)
  set_tests_properties(${name} PROPERTIES LABELS "${ARG_LABELS}")
  add_dependencies(qvn-tests ${name})
  if("threads" IN_LIST ARG_LABELS)
    add_dependencies(qvn-tests-threads ${name})
  endif()
endfunction()

# qvn_fuzz(NAME SOURCES files... DEPS targets...): a libFuzzer program with a seed corpus in
# corpus/<name without qvn-fuzz->, run briefly by CTest under the label fuzz.
function(qvn_fuzz name)
  cmake_parse_arguments(ARG "" "" "SOURCES;DEPS" ${ARGN})
  add_executable(${name} ${ARG_SOURCES})
  target_link_libraries(${name} PRIVATE ${ARG_DEPS})
  target_link_options(${name} PRIVATE -fsanitize=fuzzer)
  qvn_warnings(${name})
  string(REPLACE "qvn-fuzz-" "" corpus ${name})
  string(REPLACE "-" "_" corpus ${corpus})
  # New inputs go to a folder in the build tree; the seeds in the source tree stay as they are.
  set(work ${CMAKE_CURRENT_BINARY_DIR}/corpus/${corpus})
  file(MAKE_DIRECTORY ${work})
  add_test(NAME ${name} COMMAND ${name} -max_total_time=20 -max_len=4096
           ${work} ${CMAKE_CURRENT_SOURCE_DIR}/corpus/${corpus})
  set_tests_properties(${name} PROPERTIES LABELS fuzz)
  add_dependencies(qvn-fuzzers ${name})
endfunction()
