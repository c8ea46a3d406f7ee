# The socket server and its connections over a real run loop.
nightjar_unit_test(socket_server_test SOURCES ${CMAKE_CURRENT_LIST_DIR}/socket_server_test.cc
  LIBS nightjar_api)
