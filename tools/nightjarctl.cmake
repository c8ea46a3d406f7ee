# nightjarctl: the command-line client of nightjard.
find_package(CLI11 CONFIG REQUIRED)
find_package(nlohmann_json 3 REQUIRED)
add_library(nightjar_ctl
  ${CMAKE_CURRENT_LIST_DIR}/ctl/human_time.cc
  ${CMAKE_CURRENT_LIST_DIR}/ctl/event_json.cc
  ${CMAKE_CURRENT_LIST_DIR}/ctl/event_options.cc
  ${CMAKE_CURRENT_LIST_DIR}/ctl/event_table.cc
  ${CMAKE_CURRENT_LIST_DIR}/ctl/apply_plan.cc
)
target_include_directories(nightjar_ctl PUBLIC ${CMAKE_CURRENT_LIST_DIR}/ctl)
target_link_libraries(nightjar_ctl PUBLIC nightjar_plist nlohmann_json::nlohmann_json)
add_executable(nightjarctl
  ${CMAKE_CURRENT_LIST_DIR}/ctl/main.cc
  ${CMAKE_CURRENT_LIST_DIR}/ctl/session.cc
  ${CMAKE_CURRENT_LIST_DIR}/ctl/rights.cc
  ${CMAKE_CURRENT_LIST_DIR}/ctl/commands_read.cc
  ${CMAKE_CURRENT_LIST_DIR}/ctl/commands_write.cc
  ${CMAKE_CURRENT_LIST_DIR}/ctl/command_status.cc
  ${CMAKE_CURRENT_LIST_DIR}/ctl/command_apply.cc
)
target_link_libraries(nightjarctl PRIVATE nightjar_ctl nightjar_client CLI11::CLI11)
