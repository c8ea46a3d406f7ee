nightjar_bench(scheduling_bench SOURCES ${CMAKE_CURRENT_LIST_DIR}/scheduling_bench.cc
  LIBS nightjar_scheduling nightjar_platform_linux)
