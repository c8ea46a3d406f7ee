nightjar_bench(api_bench SOURCES ${CMAKE_CURRENT_LIST_DIR}/api_bench.cc LIBS nightjar_api)
