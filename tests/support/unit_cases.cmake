# kestrel_add_unit_cases(target LABEL label TIMEOUT seconds [PREFIX text])
#
# Registers the GoogleTest cases of a target with ctest, each a case of its own. A program with a
# sanitizer takes longer to start than most tests run, so there the cases of a suite share a
# process, and PREFIX + suite is a ctest case.
#
# kestrel_precompile_googletest(target)
#
# For targets of many files: reading GoogleTest's header takes half of the time of a small one.
include_guard(GLOBAL)

function(kestrel_add_unit_cases target)
  cmake_parse_arguments(ARG "" "LABEL;TIMEOUT;PREFIX" "" ${ARGN})
  set(prefix "${KESTREL_TEST_PREFIX}${ARG_PREFIX}")
  if(NOT KESTREL_SANITIZE)
    gtest_discover_tests(${target} TEST_PREFIX "${prefix}"
      PROPERTIES LABELS ${ARG_LABEL} TIMEOUT ${ARG_TIMEOUT} DISCOVERY_TIMEOUT 60)
    return()
  endif()
  get_target_property(files ${target} SOURCES)
  list(FILTER files INCLUDE REGEX "_test\\.cpp$")
  foreach(file ${files})
    set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${file})
    file(STRINGS ${file} lines REGEX "^TEST(_F|_P)?\\([A-Za-z0-9_]+,")
    foreach(line ${lines})
      string(REGEX REPLACE "^[A-Z_]+\\(([A-Za-z0-9_]+),.*" "\\1" suite ${line})
      list(APPEND suites ${suite})
    endforeach()
  endforeach()
  list(REMOVE_DUPLICATES suites)
  foreach(suite ${suites})
    add_test(NAME ${prefix}${suite}
      COMMAND ${target} --gtest_filter=${suite}.*:*/${suite}.*)
    set_tests_properties(${prefix}${suite} PROPERTIES LABELS ${ARG_LABEL} TIMEOUT ${ARG_TIMEOUT}
      FAIL_REGULAR_EXPRESSION "Running 0 tests")
  endforeach()
endfunction()

function(kestrel_precompile_googletest target)
  target_precompile_headers(${target} PRIVATE <gtest/gtest.h>)
  # Compiler caches need it.
  target_compile_options(${target} PRIVATE $<$<CXX_COMPILER_ID:GNU>:-fpch-preprocess>)
endfunction()
