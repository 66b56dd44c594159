# What lands on a system: the program, the headers that plugins include, a pkg-config file that
# names the plugin directory, that directory itself, and what stands in etc/.
set(KESTREL_PLUGIN_DIR lib64/kestrelexp)

install(TARGETS kestrelexp RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR})
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/kestrelexp
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} FILES_MATCHING PATTERN "*.h")
install(DIRECTORY DESTINATION ${KESTREL_PLUGIN_DIR})
# The program reads /etc/kestrel. Files that an operator may have changed are never replaced, and
# under another prefix (a staged tree, a test) nothing outside it is touched.
install(CODE [[
  set(etc "${CMAKE_INSTALL_PREFIX}/etc/kestrel")
  if(CMAKE_INSTALL_PREFIX STREQUAL "/usr")
    set(etc "/etc/kestrel")
  endif()
]])
foreach(file as-example.txt filter-example.txt ipfix-template.txt nf9-template.txt)
  install(CODE "
    if(NOT EXISTS \"\$ENV{DESTDIR}\${etc}/${file}\")
      file(INSTALL \"${PROJECT_SOURCE_DIR}/etc/${file}\" DESTINATION \"\${etc}\")
    endif()
  ")
endforeach()
configure_file(${CMAKE_CURRENT_LIST_DIR}/kestrelexp.pc.in kestrelexp.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/kestrelexp.pc
  DESTINATION ${CMAKE_INSTALL_DATADIR}/pkgconfig)
