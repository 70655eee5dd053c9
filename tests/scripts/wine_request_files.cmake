# Windows only, under Wine: tdacli.exe in user-session mode driven by request files alone — the
# listener opens only after a "Code=128" login against the host-built login server simulator, the
# sibling stand-in takes and answers its request files, the codec install starts a stand-in installer
# hidden, and "STOP=MySelf" ends the program.
if(WIN32)
  add_executable(msiexec-standin WIN32 ${CMAKE_CURRENT_SOURCE_DIR}/wine/msiexec_standin.cpp)

  add_test(NAME WineService.RequestFilesUserSession
    COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/wine/request_files.sh
      --wine-run ${CMAKE_SOURCE_DIR}/cmake/wine-run.sh
      --prefix ${CMAKE_BINARY_DIR}/wineprefix
      --tdacli $<TARGET_FILE:tdacli>
      --standin $<TARGET_FILE:sibling-standin>
      --installer $<TARGET_FILE:msiexec-standin>
      --login-server ${TDACLI_E2E_LOGIN_SERVER}
      --work ${CMAKE_CURRENT_BINARY_DIR}/wine-request-files)
  set_tests_properties(WineService.RequestFilesUserSession PROPERTIES TIMEOUT 600
    PASS_REGULAR_EXPRESSION "PASS: request files in user-session mode under Wine")
endif()
