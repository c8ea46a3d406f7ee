# The client library of the tools: connection, requests, sentences, broadcasts.
add_library(nightjar_client
  ${CMAKE_CURRENT_LIST_DIR}/client/connection.cc
  ${CMAKE_CURRENT_LIST_DIR}/client/request.cc
  ${CMAKE_CURRENT_LIST_DIR}/client/sentences.cc
  ${CMAKE_CURRENT_LIST_DIR}/client/broadcasts.cc
)
target_include_directories(nightjar_client PUBLIC ${CMAKE_CURRENT_LIST_DIR})
target_link_libraries(nightjar_client PUBLIC nightjar_wire PkgConfig::SYSTEMD)
