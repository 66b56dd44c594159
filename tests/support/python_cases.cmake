# kestrel_add_python_cases(LABEL label TIMEOUT seconds [FILES file...] [ENVIRONMENT NAME=value...]
#                          [PROPERTIES name value...] [GROUP name] [INTERPRETER file])
#
# Registers each test method of the NAME_test.py files (all of the current folder by default) as a
# ctest case of its own, LABEL.NAME.method: cases run side by side, each with its own time limit.
# Those of a file with a line "# Runs alone: REASON" have the machine to themselves; with
# "# Few others beside it: REASON" they share it with cases that wait (see places.cmake). Files that
# are not for this build's sanitizer are left out (see suites.cmake), and so is a case below an
# indented line of that kind. Those of a group run only with "ctest -C name".
find_package(Python3 REQUIRED COMPONENTS Interpreter)
include(${CMAKE_CURRENT_LIST_DIR}/places.cmake)
include(${CMAKE_CURRENT_LIST_DIR}/suites.cmake)

# The interpreter itself: a launcher that looks for it costs as much again, for each case.
execute_process(COMMAND ${Python3_EXECUTABLE} -c "import sys; print(sys.executable, end='')"
  OUTPUT_VARIABLE KESTREL_PYTHON COMMAND_ERROR_IS_FATAL ANY)

function(kestrel_add_python_cases)
  cmake_parse_arguments(ARG "" "LABEL;TIMEOUT;GROUP;INTERPRETER" "FILES;ENVIRONMENT;PROPERTIES"
    ${ARGN})
  if(NOT ARG_FILES)
    file(GLOB ARG_FILES CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/*_test.py)
  endif()
  set(group)
  if(ARG_GROUP)
    set(group CONFIGURATIONS ${ARG_GROUP})
  endif()
  if(NOT ARG_INTERPRETER)
    set(ARG_INTERPRETER ${KESTREL_PYTHON})
  endif()
  set(environment
    PYTHONPATH=${PROJECT_SOURCE_DIR}/tests/support
    KESTREL_PROBE=$<TARGET_FILE:kestrelexp>
    KESTREL_RAWNETCAP=$<TARGET_FILE:rawnetcap_emulator>
    ${ARG_ENVIRONMENT})
  if(KESTREL_SANITIZE)
    list(APPEND environment KESTREL_TEST_SLOWNESS=3)
  endif()
  kestrel_suites(files ${ARG_FILES})
  foreach(file ${files})
    set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${file})
    get_filename_component(module ${file} NAME_WE)
    string(REGEX REPLACE "_test$" "" area ${module})
    file(STRINGS ${file} reason REGEX "^# Runs alone: ." LIMIT_COUNT 1)
    set(alone OFF)
    if(reason)
      set(alone ON)
    endif()
    set(places)
    # Frames come as fast as they can, and sanitized programs are slow to take them.
    if(KESTREL_SANITIZE OR ARG_LABEL STREQUAL "e2e")
      set(places ${KESTREL_HARDLY_WAITS})
    endif()
    file(STRINGS ${file} reason REGEX "^# Few others beside it: ." LIMIT_COUNT 1)
    if(reason)
      set(places ${KESTREL_FEW_OTHERS})
    endif()
    set(mark "    # Not under the ([a-z]+) sanitizer: .")
    file(STRINGS ${file} lines REGEX "^(class [A-Za-z0-9_]+|    def test_[A-Za-z0-9_]+|${mark})")
    set(left_out OFF)
    foreach(line IN LISTS lines)
      if(line MATCHES "^${mark}")
        if(KESTREL_SANITIZE MATCHES ${CMAKE_MATCH_1})
          set(left_out ON)
        endif()
      elseif(line MATCHES "^class ([A-Za-z0-9_]+)")
        set(class ${CMAKE_MATCH_1})
      elseif(left_out)
        set(left_out OFF)
      elseif(line MATCHES "def (test_([A-Za-z0-9_]+))")
        set(name ${KESTREL_TEST_PREFIX}${ARG_LABEL}.${area}.${CMAKE_MATCH_2})
        add_test(NAME ${name} ${group}
          COMMAND ${ARG_INTERPRETER} -B -m unittest ${module}.${class}.${CMAKE_MATCH_1}
          WORKING_DIRECTORY ${CMAKE_CURRENT_SOURCE_DIR})
        set_tests_properties(${name} PROPERTIES
          LABELS ${ARG_LABEL} TIMEOUT ${ARG_TIMEOUT} RUN_SERIAL ${alone} ${places}
          ${ARG_PROPERTIES}
          # A case that the machine does not allow is told apart from one that passed.
          SKIP_REGULAR_EXPRESSION "OK \\(skipped="
          ENVIRONMENT "${environment}")
      endif()
    endforeach()
  endforeach()
endfunction()
