# Who runs beside whom: ./check runs tests in five places a core, and a place is for a case that
# waits more than it works. Those that take more are started first, or they would never find as many
# places free, and those that wait fill the rest. The largest come first, one after another: where
# one ends there is room for the next.
include_guard(GLOBAL)

# Hardly waits, or sends frames as fast as it can: five at once on two cores.
set(KESTREL_HARDLY_WAITS PROCESSORS 2)
# Keeps a core busy.
set(KESTREL_COMPUTES PROCESSORS 4 COST 500)
# Builds with all cores; one that computes may run beside it.
set(KESTREL_BUILDS PROCESSORS 6 COST 1000)
# Few others beside it, and none that keeps a core busy.
set(KESTREL_FEW_OTHERS PROCESSORS 7 COST 2000)

# kestrel_begin_early(case seconds...): a case that waits for long, and starts late, is what the
# whole run waits for in the end. Cases that this build has not are passed over.
function(kestrel_begin_early)
  while(ARGN)
    list(POP_FRONT ARGN name seconds)
    if(TEST ${KESTREL_TEST_PREFIX}${name})
      set_tests_properties(${KESTREL_TEST_PREFIX}${name} PROPERTIES COST ${seconds})
    endif()
  endwhile()
endfunction()
