# nightjar-agent: the desktop session's notices of the daemon's warnings.
add_library(nightjar_agent_text
  ${CMAKE_CURRENT_LIST_DIR}/agent/warning_text.cc
  ${CMAKE_CURRENT_LIST_DIR}/agent/agent_config.cc
)
target_include_directories(nightjar_agent_text PUBLIC ${CMAKE_CURRENT_LIST_DIR}/agent)
target_link_libraries(nightjar_agent_text PUBLIC nightjar_ctl)
add_executable(nightjar-agent
  ${CMAKE_CURRENT_LIST_DIR}/agent/main.cc
  ${CMAKE_CURRENT_LIST_DIR}/agent/agent.cc
  ${CMAKE_CURRENT_LIST_DIR}/agent/notification_server.cc
  ${CMAKE_CURRENT_LIST_DIR}/agent/polkit_check.cc
)
target_link_libraries(nightjar-agent PRIVATE nightjar_agent_text nightjar_client)
