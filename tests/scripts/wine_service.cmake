# Windows only: tdacli.exe installed, started, controlled, stopped and removed as a real service under
# Wine, driven by a small test client of the service manager (tests/wine/svctool.cpp).
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
endif()
