# The saved state's save over the real file store, beside a bare atomic write
# of the same bytes.
nightjar_bench(state_bench SOURCES ${CMAKE_CURRENT_LIST_DIR}/state_bench.cc
  LIBS nightjar_state nightjar_platform_linux)
target_include_directories(state_bench PRIVATE ${CMAKE_SOURCE_DIR}/tests/unit)
