# nightjarctl's pure parts: human time input and the JSON form of events.
nightjar_unit_test(nightjarctl_test
  SOURCES ${CMAKE_CURRENT_LIST_DIR}/nightjarctl_test.cc
  LIBS nightjar_ctl)
