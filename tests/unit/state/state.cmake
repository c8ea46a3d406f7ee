# The saved state and the save-on-change observer, over the real event list,
# queue controllers and notification controller.
nightjar_unit_test(state_test SOURCES ${CMAKE_CURRENT_LIST_DIR}/saved_state_test.cc
  LIBS nightjar_state)
