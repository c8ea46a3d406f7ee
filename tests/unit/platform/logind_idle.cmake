# The idle time over logind's idle hint, against dbusmock's logind on a private bus.
nightjar_unit_test(logind_idle_test
  SOURCES
    ${CMAKE_CURRENT_LIST_DIR}/logind_idle_time_source_test.cc
    ${CMAKE_CURRENT_LIST_DIR}/private_bus.cc
  LIBS nightjar_platform_linux)
