# tavo_add_module(NAME SOURCES...)
#
# Builds the API module NAME.so (no "lib" prefix) from SOURCES, linked with
# Tavo::platform. Everything is hidden except what the server looks up:
# gTable, GetAPITable and the optional GetAPIDescription (the exports map
# beside this file); undefined symbols are link errors, not load errors.
set(_TAVO_MODULE_MAP ${CMAKE_CURRENT_LIST_DIR}/tavo-module.map)

function(tavo_add_module name)
  if(NOT ARGN)
    message(FATAL_ERROR "tavo_add_module(${name}): no source files")
  endif()
  add_library(${name} MODULE ${ARGN})
  target_link_libraries(${name} PRIVATE Tavo::platform)
  target_compile_features(${name} PRIVATE cxx_std_17)
  set_target_properties(${name} PROPERTIES
    PREFIX ""
    OUTPUT_NAME "${name}"
    SUFFIX ".so"
    C_VISIBILITY_PRESET hidden
    CXX_VISIBILITY_PRESET hidden
    VISIBILITY_INLINES_HIDDEN ON
    LINK_DEPENDS ${_TAVO_MODULE_MAP})
  target_link_options(${name} PRIVATE "-Wl,--version-script=${_TAVO_MODULE_MAP}" -Wl,--no-undefined)
endfunction()
