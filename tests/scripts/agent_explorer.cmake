# agent-explorer: its library is tested inside tdacli_tests, and the end-to-end tests start the real
# tdacli and agent-explorer programs, so both are built before the tests.
if(TARGET agent_explorer_lib)
  target_link_libraries(tdacli_tests PRIVATE agent_explorer_lib)
  add_dependencies(tdacli_tests tdacli agent-explorer)
endif()
