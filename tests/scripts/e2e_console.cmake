# The console's commands end to end with the real programs on Linux (agent-explorer against tdacli,
# the login server simulator and stand-ins for the sibling services).
if(NOT WIN32)
  add_test(NAME E2E.ConsoleLinux
    COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/e2e/console_linux.sh
      --tdacli $<TARGET_FILE:tdacli>
      --standin $<TARGET_FILE:sibling-standin>
      --login-server $<TARGET_FILE:td-login-server>
      --explorer $<TARGET_FILE:agent-explorer>
      --fixtures ${CMAKE_SOURCE_DIR}/tests/data/pe)
  set_tests_properties(E2E.ConsoleLinux PROPERTIES TIMEOUT 300 PASS_REGULAR_EXPRESSION "PASS: console end to end")
endif()
