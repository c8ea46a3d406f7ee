# The date-time controller: calendar arithmetic, trigger computation, the
# controller inside the engine over fakes, and a sweep over the installed
# zone data.
nightjar_unit_test(date_time_test
  SOURCES
    ${CMAKE_CURRENT_LIST_DIR}/calendar_test.cc
    ${CMAKE_CURRENT_LIST_DIR}/date_time_trigger_test.cc
    ${CMAKE_CURRENT_LIST_DIR}/date_time_controller_test.cc
    ${CMAKE_CURRENT_LIST_DIR}/date_time_sweep_test.cc
  LIBS nightjar_scheduling nightjar_core
)
