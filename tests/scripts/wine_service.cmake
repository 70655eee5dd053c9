# Windows only, end to end under Wine: tdacli.exe installed, started, controlled, stopped and removed as
# a real service, driven by a small test client of the service manager (tests/wine/svctool.cpp); and
# tdacli.exe started by hand in user-session mode.
if(WIN32)
  add_executable(svctool ${CMAKE_CURRENT_SOURCE_DIR}/wine/svctool.cpp)
  target_link_libraries(svctool PRIVATE tdacli_platform)

  add_test(NAME WineService.RoundTrip
    COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/wine/service_roundtrip.sh
      --tdacli $<TARGET_FILE:tdacli>
      --svctool $<TARGET_FILE:svctool>
      --work ${CMAKE_CURRENT_BINARY_DIR}/wine-service
      --revision ${TDACLI_REVISION})
  set_tests_properties(WineService.RoundTrip PROPERTIES TIMEOUT 600 PASS_REGULAR_EXPRESSION "PASS: service round trip")

  # Started by hand beside "thinterminal.dat": user-session mode, stopped by the end of the session. Its
  # own prefix: ending the session ends every program of the prefix, and other tests run in the shared one.
  add_test(NAME WineService.UserSessionEnd
    COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/wine/user_session.sh
      --wine-run ${CMAKE_SOURCE_DIR}/cmake/wine-run.sh
      --prefix ${CMAKE_CURRENT_BINARY_DIR}/wine-user-session-prefix
      --tdacli $<TARGET_FILE:tdacli>
      --work ${CMAKE_CURRENT_BINARY_DIR}/wine-user-session)
  set_tests_properties(WineService.UserSessionEnd PROPERTIES TIMEOUT 300 PASS_REGULAR_EXPRESSION "PASS: user session")
endif()

# An application folder the agent cannot write: the event-log entry that says so is written in
# installer and service mode only, never in user-session mode or beside "thinterminal.root". Its own
# prefix, since the end of the user's session ends every program of the prefix.
if(WIN32)
  add_test(NAME WineService.ReadOnlyFolder
    COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/wine/readonly_folder.sh
      --wine-run ${CMAKE_SOURCE_DIR}/cmake/wine-run.sh
      --prefix ${CMAKE_CURRENT_BINARY_DIR}/wine-readonly-prefix
      --tdacli $<TARGET_FILE:tdacli>
      --svctool $<TARGET_FILE:svctool>
      --work ${CMAKE_CURRENT_BINARY_DIR}/wine-readonly)
  set_tests_properties(WineService.ReadOnlyFolder PROPERTIES TIMEOUT 300 PASS_REGULAR_EXPRESSION "PASS: read-only folder")
endif()
