# The entry list and the RTC alarm, under a temporary root.
nightjar_unit_test(file_power_manager_test
  SOURCES ${CMAKE_CURRENT_LIST_DIR}/file_power_manager_test.cc
  LIBS nightjar_platform_linux nightjar_scheduling)
