# The socket server over a real run loop.
nightjar_unit_test(socket_server_test
  SOURCES ${CMAKE_CURRENT_LIST_DIR}/socket_server_test.cc ${CMAKE_CURRENT_LIST_DIR}/socket_client_test.cc
  LIBS nightjar_api)
