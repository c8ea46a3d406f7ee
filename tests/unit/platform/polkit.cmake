# The authorization adapters: polkit's action file, and polkit on a private bus.
nightjar_unit_test(polkit_adapters_test
  SOURCES ${CMAKE_CURRENT_LIST_DIR}/polkit_policy_file_test.cc
          ${CMAKE_CURRENT_LIST_DIR}/polkit_authority_test.cc
          ${CMAKE_CURRENT_LIST_DIR}/private_bus.cc
  LIBS nightjar_platform_linux)
