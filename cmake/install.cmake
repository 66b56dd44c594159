# What lands on a system: the program, the headers that plugins include, a pkg-config file that
# names the plugin directory, and that directory itself.
set(KESTREL_PLUGIN_DIR lib64/kestrelexp)

install(TARGETS kestrelexp RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR})
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/kestrelexp
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} FILES_MATCHING PATTERN "*.h")
install(DIRECTORY DESTINATION ${KESTREL_PLUGIN_DIR})
configure_file(${CMAKE_CURRENT_LIST_DIR}/kestrelexp.pc.in kestrelexp.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/kestrelexp.pc
  DESTINATION ${CMAKE_INSTALL_DATADIR}/pkgconfig)
