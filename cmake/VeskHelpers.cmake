# Build helpers shared by every folder of the project.
#
# The build tree stages everything in the installed layout under
# ${VESK_STAGE_DIR} so that programs and plugins run uninstalled:
#   lib/lumok64/         shared libraries
#   datastore/lumok64/   extension plugins
#   etc/datastore/       configuration files
#   bin/                 programs
#   include/             public headers

set(VESK_STAGE_DIR "${CMAKE_BINARY_DIR}/stage")
set(VESK_LIB_SUBDIR "lib/lumok64")
set(VESK_EXTENSION_SUBDIR "datastore/lumok64")
set(VESK_ETC_SUBDIR "etc/datastore")

# Warnings (and sanitizers, when VESK_SANITIZE is on) for our own targets.
# Link it as PRIVATE $<BUILD_INTERFACE:vesk_warnings>, never PUBLIC.
add_library(vesk_warnings INTERFACE)
target_compile_options(vesk_warnings INTERFACE -Wall -Wextra -Wpedantic)
if(VESK_SANITIZE)
  target_compile_options(vesk_warnings INTERFACE
    -fsanitize=address,undefined -fno-sanitize-recover=all -fno-omit-frame-pointer)
  target_link_options(vesk_warnings INTERFACE -fsanitize=address,undefined)
endif()

# vesk_stage_library(target)
#   Puts a shared library into stage/lib/lumok64 with an $ORIGIN-relative RPATH.
function(vesk_stage_library target)
  set_target_properties(${target} PROPERTIES
    LIBRARY_OUTPUT_DIRECTORY "${VESK_STAGE_DIR}/${VESK_LIB_SUBDIR}"
    BUILD_RPATH "$ORIGIN"
    INSTALL_RPATH "$ORIGIN")
endfunction()

# vesk_add_extension(name SOURCES src... [LINK lib...])
#   Builds a datastore extension as a MODULE library named lib<name>.so into
#   stage/datastore/lumok64 and installs it there. Only "create" and "destroy"
#   are exported (a linker version script enforces it).
function(vesk_add_extension name)
  cmake_parse_arguments(ARG "" "" "SOURCES;LINK" ${ARGN})
  add_library(${name} MODULE ${ARG_SOURCES})
  target_link_libraries(${name} PRIVATE vesk::datastore ${ARG_LINK}
                        $<BUILD_INTERFACE:vesk_warnings>)
  target_link_options(${name} PRIVATE
    "-Wl,--version-script=${PROJECT_SOURCE_DIR}/cmake/extension.map")
  set_target_properties(${name} PROPERTIES
    PREFIX "lib"
    LIBRARY_OUTPUT_DIRECTORY "${VESK_STAGE_DIR}/${VESK_EXTENSION_SUBDIR}"
    BUILD_RPATH "$ORIGIN/../../${VESK_LIB_SUBDIR}"
    INSTALL_RPATH "$ORIGIN/../../${VESK_LIB_SUBDIR}")
  install(TARGETS ${name} LIBRARY DESTINATION ${VESK_EXTENSION_SUBDIR})
endfunction()

# vesk_add_test_plugin(name SOURCES src... [LINK lib...])
#   Builds a MODULE library for the tests into ${CMAKE_BINARY_DIR}/test_plugins.
#   Test plugins are never installed.
function(vesk_add_test_plugin name)
  cmake_parse_arguments(ARG "" "" "SOURCES;LINK" ${ARGN})
  add_library(${name} MODULE ${ARG_SOURCES})
  target_link_libraries(${name} PRIVATE vesk::datastore ${ARG_LINK}
                        $<BUILD_INTERFACE:vesk_warnings>)
  set_target_properties(${name} PROPERTIES
    PREFIX "lib"
    LIBRARY_OUTPUT_DIRECTORY "${CMAKE_BINARY_DIR}/test_plugins"
    BUILD_RPATH "${VESK_STAGE_DIR}/${VESK_LIB_SUBDIR}")
endfunction()
