# The inactivity controller against a fake idle time, fake timers and a fake clock.
nightjar_unit_test(inactivity_test
  SOURCES ${CMAKE_CURRENT_LIST_DIR}/inactivity_test.cc
  LIBS nightjar_scheduling)
