nightjar_fuzzer(event_fuzz SOURCES ${CMAKE_CURRENT_LIST_DIR}/event_fuzz.cc LIBS nightjar_model)
