# What is installed, in components. "program": the program, its manual and pages, completions, unit,
# plugin directories and the files of etc/. "dev": what plugins are built with. "metrics" and "kafka":
# the plugins of these names with their pages and what belongs to them, where they are built.
set(KESTREL_PLUGIN_DIR lib64/kestrelexp)     # every object in it is loaded at each start
set(KESTREL_EXTRAS_DIR lib/kestrelexp)       # objects that we ship, loaded with -X alone
set(KESTREL_PROGRAM COMPONENT program)
set(KESTREL_DEV COMPONENT dev)
set(KESTREL_METRICS COMPONENT metrics)
set(KESTREL_OWN_COMPONENTS metrics kafka)    # plugins with a package each

# A plugin that is named without a directory (-X capture-file.so) is searched among those that come
# with the program.
set_target_properties(kestrelexp PROPERTIES BUILD_RPATH ${PROJECT_BINARY_DIR}/extras
  INSTALL_RPATH ${CMAKE_INSTALL_PREFIX}/${KESTREL_EXTRAS_DIR})
install(TARGETS kestrelexp RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR} ${KESTREL_PROGRAM})
install(DIRECTORY DESTINATION ${KESTREL_PLUGIN_DIR} ${KESTREL_PROGRAM})
get_property(extras GLOBAL PROPERTY KESTREL_EXTRAS)
install(TARGETS ${extras} LIBRARY DESTINATION ${KESTREL_EXTRAS_DIR} ${KESTREL_PROGRAM})
foreach(plugin ${KESTREL_OWN_COMPONENTS})
  if(TARGET ${plugin})
    install(TARGETS ${plugin} LIBRARY DESTINATION ${KESTREL_EXTRAS_DIR} COMPONENT ${plugin})
  endif()
endforeach()
if(TARGET kafka)
  install(DIRECTORY ${PROJECT_SOURCE_DIR}/etc/clickhouse
    DESTINATION ${CMAKE_INSTALL_DATADIR}/kestrelexp COMPONENT kafka)
  install(FILES ${PROJECT_SOURCE_DIR}/docs/pipelines.svg
    DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/kestrelexp-kafka COMPONENT kafka)
endif()
if(TARGET metrics)
  install(DIRECTORY ${PROJECT_SOURCE_DIR}/etc/prometheus
    DESTINATION ${CMAKE_INSTALL_DATADIR}/kestrelexp ${KESTREL_METRICS})
  install(FILES ${PROJECT_SOURCE_DIR}/docs/page.png
    DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/kestrelexp-metrics ${KESTREL_METRICS})
endif()
install(FILES ${PROJECT_SOURCE_DIR}/packaging/kestrelexp@.service
  DESTINATION lib/systemd/system ${KESTREL_PROGRAM})
install(FILES ${PROJECT_SOURCE_DIR}/packaging/kestrelexp.sysusers
  DESTINATION lib/sysusers.d RENAME kestrelexp.conf ${KESTREL_PROGRAM})
install(PROGRAMS ${PROJECT_SOURCE_DIR}/tools/as_table.py
  DESTINATION ${CMAKE_INSTALL_DATADIR}/kestrelexp ${KESTREL_PROGRAM})
install(FILES ${PROJECT_SOURCE_DIR}/packaging/completions/kestrelexp.bash
  DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions RENAME kestrelexp
  ${KESTREL_PROGRAM})
install(FILES ${PROJECT_SOURCE_DIR}/packaging/completions/_kestrelexp
  DESTINATION ${CMAKE_INSTALL_DATADIR}/zsh/vendor-completions ${KESTREL_PROGRAM})

# Configuration belongs to the system, not to the prefix. Under another prefix (a staged tree, a
# test) nothing outside it is touched. Files that an operator may have changed are never replaced.
file(GLOB KESTREL_ETC CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/etc/*.txt)
install(CODE [[
  set(etc "${CMAKE_INSTALL_PREFIX}/etc")
  if(CMAKE_INSTALL_PREFIX STREQUAL "/usr")
    set(etc "/etc")
  endif()
  function(install_once file directory name)
    if(NOT EXISTS "$ENV{DESTDIR}${directory}/${name}")
      file(INSTALL "${file}" DESTINATION "${directory}" RENAME "${name}")
    endif()
  endfunction()
]] ${KESTREL_PROGRAM})
set(KESTREL_CONFFILES etc/default/kestrelexp)
install(CODE "install_once(\"${PROJECT_SOURCE_DIR}/packaging/kestrelexp.default\"
  \"\${etc}/default\" kestrelexp)" ${KESTREL_PROGRAM})
foreach(file ${KESTREL_ETC})
  get_filename_component(name ${file} NAME)
  list(APPEND KESTREL_CONFFILES etc/kestrel/${name})
  install(CODE "install_once(\"${file}\" \"\${etc}/kestrel\" ${name})" ${KESTREL_PROGRAM})
endforeach()

# Manual pages are installed compressed, as Debian has them.
function(kestrel_install_gzipped source directory name component)
  set(made ${PROJECT_BINARY_DIR}/gzipped/${name}.gz)
  add_custom_command(OUTPUT ${made} DEPENDS ${source} VERBATIM
    COMMAND gzip -9nc ${source} > ${made})
  string(MAKE_C_IDENTIFIER "gzipped_${name}" target)
  add_custom_target(${target} ALL DEPENDS ${made})
  install(FILES ${made} DESTINATION ${directory} RENAME ${ARGN} COMPONENT ${component})
endfunction()
file(MAKE_DIRECTORY ${PROJECT_BINARY_DIR}/gzipped)
foreach(page kestrelexp.8 kestrelexp-plugins.7)
  string(REGEX MATCH ".$" section ${page})
  kestrel_install_gzipped(${PROJECT_SOURCE_DIR}/docs/man/${page}
    ${CMAKE_INSTALL_MANDIR}/man${section} ${page} program ${page}.gz)
endforeach()

# The pages: those of docs/ and of extras/ for users, the plugin guide with the headers, those about
# monitoring and about Kafka with their plugins. Links are rewritten from the folders of the source
# tree to those of a system.
set(KESTREL_PAGES_dev plugin-guide)
set(KESTREL_PAGES_metrics metrics monitoring)
set(KESTREL_PAGES_kafka kafka pipelines)
function(kestrel_component_of_page name result)
  set(${result} program PARENT_SCOPE)
  foreach(component dev ${KESTREL_OWN_COMPONENTS})
    if(name IN_LIST KESTREL_PAGES_${component})
      set(${result} ${component} PARENT_SCOPE)
    endif()
  endforeach()
endfunction()

# The folder of a component's pages beside that of another component's.
function(kestrel_folder_of_pages component result)
  set(${result} kestrelexp PARENT_SCOPE)
  if(NOT component STREQUAL "program")
    set(${result} kestrelexp-${component} PARENT_SCOPE)
  endif()
endfunction()

function(kestrel_install_page source name)
  set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${source})
  kestrel_component_of_page(${name} component)
  if(component IN_LIST KESTREL_OWN_COMPONENTS AND NOT TARGET ${component})
    return()
  endif()
  kestrel_folder_of_pages(${component} folder)
  file(READ ${source} page)
  string(REPLACE "](../include/" "](../../../${CMAKE_INSTALL_INCLUDEDIR}/" page "${page}")
  string(REGEX REPLACE "\\]\\(\\.\\./(extras/)?([a-z-]+)/README\\.md" "](\\2.md" page "${page}")
  string(REPLACE "](../../docs/" "](" page "${page}")
  foreach(other ${KESTREL_ALL_PAGES})
    kestrel_component_of_page(${other} other_component)
    if(NOT other_component STREQUAL component)
      kestrel_folder_of_pages(${other_component} other_folder)
      string(REPLACE "](${other}.md" "](../${other_folder}/${other}.md" page "${page}")
    endif()
  endforeach()
  file(WRITE ${PROJECT_BINARY_DIR}/pages/${name}.md "${page}")
  install(FILES ${PROJECT_BINARY_DIR}/pages/${name}.md
    DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${folder} COMPONENT ${component})
endfunction()

file(GLOB pages CONFIGURE_DEPENDS
  ${PROJECT_SOURCE_DIR}/docs/*.md ${PROJECT_SOURCE_DIR}/extras/*/README.md)
foreach(page ${pages})
  get_filename_component(name ${page} NAME_WE)
  if(name STREQUAL "README")
    get_filename_component(folder ${page} DIRECTORY)
    get_filename_component(name ${folder} NAME)
  endif()
  list(APPEND KESTREL_ALL_PAGES ${name})
  set(source_of_${name} ${page})
endforeach()
foreach(name ${KESTREL_ALL_PAGES})
  kestrel_install_page(${source_of_${name}} ${name})
endforeach()

# What plugins are built with: headers, a pkg-config file, and plugins to begin with.
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/kestrelexp
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} ${KESTREL_DEV} FILES_MATCHING PATTERN "*.h")
configure_file(${CMAKE_CURRENT_LIST_DIR}/kestrelexp.pc.in kestrelexp.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/kestrelexp.pc
  DESTINATION ${CMAKE_INSTALL_DATADIR}/pkgconfig ${KESTREL_DEV})
install(DIRECTORY ${PROJECT_SOURCE_DIR}/examples/plugin
  DESTINATION ${CMAKE_INSTALL_DATADIR}/kestrelexp ${KESTREL_DEV})
