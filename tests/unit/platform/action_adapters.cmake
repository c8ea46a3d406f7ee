# Adapters of the event actions: logind's Suspend and the console notice over a
# private bus with dbusmock, and the spawning of tools under a temporary root.
nightjar_unit_test(action_adapters_test
  SOURCES
    ${CMAKE_CURRENT_LIST_DIR}/logind_system_sleep_test.cc
    ${CMAKE_CURRENT_LIST_DIR}/spawn_command_runner_test.cc
    ${CMAKE_CURRENT_LIST_DIR}/session_bus_console_notice_test.cc
    ${CMAKE_CURRENT_LIST_DIR}/private_bus.cc
  LIBS nightjar_platform_linux)
