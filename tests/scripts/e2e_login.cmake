# A user's logon end to end with the real programs: tdacli, the login server simulator and stand-ins
# for the sibling services. On Linux the programs run side by side in a temporary application folder;
# the Windows build runs them under Wine against the real service manager.
if(TARGET agent-explorer)
  set(TDACLI_E2E_CONTROL $<TARGET_FILE:agent-explorer>)
else()
  # The console client is not part of this tree: a minimal sender of control codes stands in for it.
  add_executable(send_control ${CMAKE_CURRENT_SOURCE_DIR}/e2e/send_control.cpp)
  target_link_libraries(send_control PRIVATE tdacli_platform)
  set(TDACLI_E2E_CONTROL $<TARGET_FILE:send_control>)
endif()

if(NOT WIN32)
  add_test(NAME E2E.LoginLinux
    COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/e2e/login_linux.sh
      --tdacli $<TARGET_FILE:tdacli>
      --standin $<TARGET_FILE:sibling-standin>
      --login-server $<TARGET_FILE:td-login-server>
      --control ${TDACLI_E2E_CONTROL})
  set_tests_properties(E2E.LoginLinux PROPERTIES TIMEOUT 300 PASS_REGULAR_EXPRESSION "PASS: login end to end")
endif()
