# kestrel_add_source_tree(target)
#
# For programs that read files of the source tree (source_tree.h).
include_guard(GLOBAL)

function(kestrel_add_source_tree target)
  set(file ${PROJECT_SOURCE_DIR}/tests/support/source_tree.cpp)
  target_sources(${target} PRIVATE ${file})
  set_source_files_properties(${file}
    PROPERTIES COMPILE_DEFINITIONS KESTREL_SOURCE_DIR="${PROJECT_SOURCE_DIR}")
endfunction()
