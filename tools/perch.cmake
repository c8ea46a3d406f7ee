# perch: log the console user out, or switch to the login screen; started by
# nightjard.
add_executable(perch ${CMAKE_CURRENT_LIST_DIR}/perch.cc ${CMAKE_CURRENT_LIST_DIR}/tool_bus.cc)
target_link_libraries(perch PRIVATE PkgConfig::SYSTEMD)
install(TARGETS perch DESTINATION ${NIGHTJAR_TOOLS_DIR})
