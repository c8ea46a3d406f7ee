# gracestop: power off or restart through logind; started by nightjard.
add_executable(gracestop ${CMAKE_CURRENT_LIST_DIR}/gracestop.cc ${CMAKE_CURRENT_LIST_DIR}/tool_bus.cc)
target_link_libraries(gracestop PRIVATE PkgConfig::SYSTEMD)
install(TARGETS gracestop DESTINATION ${NIGHTJAR_TOOLS_DIR})
