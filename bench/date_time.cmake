# The date-time controller at 10 000 daily events, on the unit tests' fakes.
nightjar_bench(date_time_bench SOURCES ${CMAKE_CURRENT_LIST_DIR}/date_time_bench.cc
  LIBS nightjar_scheduling)
target_include_directories(date_time_bench PRIVATE ${CMAKE_SOURCE_DIR}/tests/unit)
