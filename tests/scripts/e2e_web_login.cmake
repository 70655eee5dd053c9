# A user's logon end to end through the login web service, over HTTP and over HTTPS with a CA made at
# test time. Linux: the programs side by side. Windows: under Wine through WinHTTP, against the
# simulator built for the host (its web service is built for the host only).
if(NOT WIN32 AND TARGET td-login-server)
  foreach(scheme http https)
    add_test(NAME E2E.WebLoginLinux.${scheme}
      COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/e2e/web_login_linux.sh --scheme ${scheme}
        --tdacli $<TARGET_FILE:tdacli>
        --standin $<TARGET_FILE:sibling-standin>
        --login-server $<TARGET_FILE:td-login-server>
        --explorer $<TARGET_FILE:agent-explorer>)
    set_tests_properties(E2E.WebLoginLinux.${scheme} PROPERTIES TIMEOUT 300 SKIP_RETURN_CODE 77
      PASS_REGULAR_EXPRESSION "PASS: web login end to end over ${scheme}")
  endforeach()
endif()

if(WIN32)
  add_executable(rootstore ${CMAKE_CURRENT_SOURCE_DIR}/wine/rootstore.cpp)
  target_link_libraries(rootstore PRIVATE crypt32)
  # TDACLI_E2E_LOGIN_SERVER: the host-built simulator of e2e_login.cmake.
  foreach(scheme http https)
    add_test(NAME E2E.WebLoginWine.${scheme}
      COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/e2e/web_login_wine.sh --scheme ${scheme}
        --tdacli $<TARGET_FILE:tdacli>
        --standin $<TARGET_FILE:sibling-standin>
        --svctool $<TARGET_FILE:svctool>
        --rootstore $<TARGET_FILE:rootstore>
        --explorer $<TARGET_FILE:agent-explorer>
        --login-server ${TDACLI_E2E_LOGIN_SERVER}
        --work ${CMAKE_CURRENT_BINARY_DIR}/e2e-web-login-wine-${scheme})
    set_tests_properties(E2E.WebLoginWine.${scheme} PROPERTIES TIMEOUT 600
      PASS_REGULAR_EXPRESSION "PASS: web login end to end under Wine over ${scheme}")
  endforeach()
endif()
