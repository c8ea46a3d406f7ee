nightjar_unit_test(notification_controller_test
  SOURCES
    ${CMAKE_CURRENT_LIST_DIR}/notification_controller_test.cc
    ${CMAKE_CURRENT_LIST_DIR}/terminal_warnings_test.cc
  LIBS nightjar_notifications)
