nightjar_fuzzer(xml_fuzz SOURCES ${CMAKE_CURRENT_LIST_DIR}/xml_fuzz.cc LIBS nightjar_plist)
