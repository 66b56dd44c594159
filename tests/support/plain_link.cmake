# kestrel_link_plainly(target)
#
# For test programs that link the program's code but say nothing about its speed: without link-time
# optimisation, which takes longer than all else of their build. The objects have both forms then.
include_guard(GLOBAL)

function(kestrel_link_plainly target)
  if(KESTREL_FAT_OBJECTS)
    target_link_options(${target} PRIVATE -fno-lto)
  endif()
endfunction()
