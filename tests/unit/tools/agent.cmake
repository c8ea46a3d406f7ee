# nightjar-agent's pure parts: the words of a warning and the delay choices.
nightjar_unit_test(agent_test
  SOURCES ${CMAKE_CURRENT_LIST_DIR}/agent_test.cc
  LIBS nightjar_agent_text)
