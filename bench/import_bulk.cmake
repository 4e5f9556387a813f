# import_bulk: `vesk-datastore import` against one bulk insert of the same
# rows (included by bench/CMakeLists.txt when the tool is built).
if(TARGET vesk-datastore)
  add_executable(import_bulk ${CMAKE_CURRENT_LIST_DIR}/import_bulk.cpp)
  target_link_libraries(import_bulk PRIVATE vesk::datastore benchmark::benchmark
                        $<BUILD_INTERFACE:vesk_warnings>)
  target_include_directories(import_bulk PRIVATE
    ${PROJECT_SOURCE_DIR}/datastore/extensions/sqlite/include)
  target_compile_definitions(import_bulk PRIVATE
    VESK_TOOL_PATH="${VESK_STAGE_DIR}/bin/vesk-datastore")
  set_target_properties(import_bulk PROPERTIES
    OUTPUT_NAME bench_import
    RUNTIME_OUTPUT_DIRECTORY "${CMAKE_CURRENT_BINARY_DIR}"
    BUILD_RPATH "${VESK_STAGE_DIR}/${VESK_LIB_SUBDIR}")
  add_dependencies(import_bulk sqlite vesk-datastore)
  if(VESK_BUILD_TESTS)
    add_test(NAME bench_import_smoke COMMAND import_bulk)
    set_tests_properties(bench_import_smoke PROPERTIES
      ENVIRONMENT "VESK_BENCH_SCALE=1000" TIMEOUT 300)
  endif()
endif()
