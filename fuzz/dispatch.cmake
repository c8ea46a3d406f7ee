nightjar_fuzzer(dispatch_fuzz SOURCES ${CMAKE_CURRENT_LIST_DIR}/dispatch_fuzz.cc LIBS nightjar_api)
# The fake clock and timers stand in for the run loop's.
target_include_directories(dispatch_fuzz PRIVATE ${CMAKE_SOURCE_DIR}/tests/unit)
