# The authorization rights, their installation and the check of a request.
nightjar_unit_test(authorization_test
  SOURCES ${CMAKE_CURRENT_LIST_DIR}/authorization_test.cc
  LIBS nightjar_api)
