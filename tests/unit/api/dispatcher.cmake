nightjar_unit_test(dispatcher_test SOURCES ${CMAKE_CURRENT_LIST_DIR}/dispatcher_test.cc
  LIBS nightjar_api)
