# tavo_add_module(NAME SOURCES... [DESCRIPTION FILE])
#
# Builds the API module NAME.so (no "lib" prefix) from SOURCES, linked with
# Tavo::platform. Everything is hidden except what the server looks up:
# gTable and GetAPITable (the exports map beside this file); undefined
# symbols are link errors, not load errors. The optional DESCRIPTION (a JSON
# file, see the SDK's documentation) is copied beside the module as NAME.json,
# where the server reads it.
set(_TAVO_MODULE_MAP ${CMAKE_CURRENT_LIST_DIR}/tavo-module.map)

function(tavo_add_module name)
  cmake_parse_arguments(PARSE_ARGV 1 _TAVO "" "DESCRIPTION" "")
  if(NOT _TAVO_UNPARSED_ARGUMENTS)
    message(FATAL_ERROR "tavo_add_module(${name}): no source files")
  endif()
  add_library(${name} MODULE ${_TAVO_UNPARSED_ARGUMENTS})
  if(_TAVO_DESCRIPTION)
    get_filename_component(_desc ${_TAVO_DESCRIPTION} ABSOLUTE)
    add_custom_command(TARGET ${name} POST_BUILD
      COMMAND ${CMAKE_COMMAND} -E copy ${_desc} $<TARGET_FILE_DIR:${name}>/${name}.json)
  endif()
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
