# Logins from trigger files and a Terminal Server user's logon through request files, end to end with
# the real programs on Linux: tdacli, the login server simulator and sibling stand-ins that take their
# request files.
if(NOT WIN32)
  add_test(NAME E2E.TriggerFilesLinux
    COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/e2e/trigger_files_linux.sh
      --tdacli $<TARGET_FILE:tdacli>
      --standin $<TARGET_FILE:sibling-standin>
      --login-server $<TARGET_FILE:td-login-server>)
  set_tests_properties(E2E.TriggerFilesLinux PROPERTIES TIMEOUT 400 PASS_REGULAR_EXPRESSION "PASS: trigger files end to end")

  add_test(NAME E2E.UserSessionLinux
    COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/e2e/user_session_linux.sh
      --tdacli $<TARGET_FILE:tdacli>
      --standin $<TARGET_FILE:sibling-standin>
      --login-server $<TARGET_FILE:td-login-server>)
  set_tests_properties(E2E.UserSessionLinux PROPERTIES TIMEOUT 300 PASS_REGULAR_EXPRESSION "PASS: user session end to end")
endif()
