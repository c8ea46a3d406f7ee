nightjar_bench(plist_bench SOURCES ${CMAKE_CURRENT_LIST_DIR}/plist_bench.cc LIBS nightjar_plist)
