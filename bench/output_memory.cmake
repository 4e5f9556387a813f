# output_memory: peak memory of the tool's row output in every format
# against `export` (included by bench/CMakeLists.txt when the tool is built).
if(TARGET vesk-datastore)
  add_executable(output_memory ${CMAKE_CURRENT_LIST_DIR}/output_memory.cpp)
  target_link_libraries(output_memory PRIVATE vesk::datastore benchmark::benchmark
                        $<BUILD_INTERFACE:vesk_warnings>)
  target_include_directories(output_memory PRIVATE
    ${PROJECT_SOURCE_DIR}/datastore/extensions/sqlite/include)
  target_compile_definitions(output_memory PRIVATE
    VESK_TOOL_PATH="${VESK_STAGE_DIR}/bin/vesk-datastore")
  set_target_properties(output_memory PROPERTIES
    OUTPUT_NAME bench_output_memory
    RUNTIME_OUTPUT_DIRECTORY "${CMAKE_CURRENT_BINARY_DIR}"
    BUILD_RPATH "${VESK_STAGE_DIR}/${VESK_LIB_SUBDIR}")
  add_dependencies(output_memory sqlite vesk-datastore)
  if(VESK_BUILD_TESTS)
    add_test(NAME bench_output_memory_smoke COMMAND output_memory)
    set_tests_properties(bench_output_memory_smoke PROPERTIES
      ENVIRONMENT "VESK_BENCH_SCALE=100" TIMEOUT 300)
  endif()
endif()
