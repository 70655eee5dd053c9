# A user's logon end to end through the login web service, over HTTP and over HTTPS with a CA made at
# test time (Linux; the simulator's web service is built for the host only).
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
