nightjar_unit_test(dispatcher_test
  SOURCES
    ${CMAKE_CURRENT_LIST_DIR}/dispatcher_test.cc
    ${CMAKE_CURRENT_LIST_DIR}/request_handler_test.cc
    ${CMAKE_CURRENT_LIST_DIR}/scheduler_requests_test.cc
  LIBS nightjar_api)
