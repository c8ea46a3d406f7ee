# The engine's core: queue controllers with their list and timer, the event
# scheduler, and the wake entries.
nightjar_unit_test(engine_test
  SOURCES
    ${CMAKE_CURRENT_LIST_DIR}/queue_controller_test.cc
    ${CMAKE_CURRENT_LIST_DIR}/event_scheduler_test.cc
    ${CMAKE_CURRENT_LIST_DIR}/power_events_test.cc
  LIBS nightjar_scheduling)
