nightjar_fuzzer(framing_fuzz SOURCES ${CMAKE_CURRENT_LIST_DIR}/framing_fuzz.cc LIBS nightjar_wire)
