# Event actions: the predicates and the perform sequence against fakes.
nightjar_unit_test(event_action_test
  SOURCES ${CMAKE_CURRENT_LIST_DIR}/event_action_test.cc
  LIBS nightjar_scheduling)
target_compile_definitions(event_action_test PRIVATE NIGHTJAR_TOOLS_DIR="${NIGHTJAR_TOOLS_DIR}")
