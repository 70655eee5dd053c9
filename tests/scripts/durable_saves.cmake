# The real agent on Linux killed inside its settings saves at every file-system call (strace's fault
# injection) and started again; and the real agent on a full disk (a small tmpfs). Under Wine the
# Windows save path is ended between its steps by SettingsSaveKilled.* in tdacli_tests.
if(NOT WIN32)
  add_test(NAME E2E.CrashSavesLinux
    COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/e2e/crash_saves_linux.sh
      --tdacli $<TARGET_FILE:tdacli>
      --abuse $<TARGET_FILE:tdacli-abuse>
      --login-server $<TARGET_FILE:td-login-server>
      --explorer $<TARGET_FILE:agent-explorer>)
  set_tests_properties(E2E.CrashSavesLinux PROPERTIES TIMEOUT 900
    PASS_REGULAR_EXPRESSION "PASS: saves killed at every call")
endif()
if(NOT WIN32)
  add_test(NAME E2E.FullDiskLinux
    COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/e2e/full_disk_linux.sh
      --tdacli $<TARGET_FILE:tdacli>
      --abuse $<TARGET_FILE:tdacli-abuse>
      --login-server $<TARGET_FILE:td-login-server>
      --standin $<TARGET_FILE:sibling-standin>
      --explorer $<TARGET_FILE:agent-explorer>)
  # Exit status 77: the machine cannot mount a tmpfs (not root, no CAP_SYS_ADMIN); the run says so.
  set_tests_properties(E2E.FullDiskLinux PROPERTIES TIMEOUT 300 SKIP_RETURN_CODE 77
    PASS_REGULAR_EXPRESSION "PASS: full disk end to end")
endif()
