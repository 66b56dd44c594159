# The capture module that the "rawnetcap" input asks for, emulated: preloaded by tests and
# measurements of the whole program, linked into the units. Never sanitized, since it also runs in
# front of the sanitizers.
include_guard(GLOBAL)

file(GLOB RAWNETCAP_SOURCES CONFIGURE_DEPENDS ${CMAKE_CURRENT_LIST_DIR}/rawnetcap/*.c)
add_library(rawnetcap_objects OBJECT ${RAWNETCAP_SOURCES})
set_target_properties(rawnetcap_objects PROPERTIES POSITION_INDEPENDENT_CODE ON)
target_compile_definitions(rawnetcap_objects PRIVATE _GNU_SOURCE)
target_link_libraries(rawnetcap_objects PRIVATE kestrel_warnings)

add_library(rawnetcap_emulator MODULE $<TARGET_OBJECTS:rawnetcap_objects>)
set_target_properties(rawnetcap_emulator PROPERTIES PREFIX "" LINKER_LANGUAGE C
  LIBRARY_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/tests/support)
target_link_libraries(rawnetcap_emulator PRIVATE ${CMAKE_DL_LIBS})
