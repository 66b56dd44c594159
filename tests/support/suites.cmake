# kestrel_suites(VARIABLE file...)
#
# Sets the variable to those of the test files that belong to this build: all of them, but under a
# sanitizer not those with a line that leaves them out and says why:
#   // Not under the thread sanitizer: REASON
# (or the address sanitizer; in Python after a '#'). So a new suite is taken in by itself.
include_guard(GLOBAL)

function(kestrel_suites result)
  set(taken ${ARGN})
  foreach(sanitizer address thread)
    if(KESTREL_SANITIZE MATCHES ${sanitizer})
      foreach(file ${ARGN})
        set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${file})
        file(STRINGS ${file} reason REGEX "^(//|#) Not under the ${sanitizer} sanitizer: .")
        if(reason)
          list(REMOVE_ITEM taken ${file})
        endif()
      endforeach()
    endif()
  endforeach()
  set(${result} ${taken} PARENT_SCOPE)
endfunction()
