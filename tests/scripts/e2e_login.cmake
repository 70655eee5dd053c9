# A user's logon end to end with the real programs: tdacli, the login server simulator and stand-ins
# for the sibling services. On Linux the programs run side by side in a temporary application folder;
# the Windows build runs them under Wine against the real service manager.
if(NOT WIN32)
  add_test(NAME E2E.LoginLinux
    COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/e2e/login_linux.sh
      --tdacli $<TARGET_FILE:tdacli>
      --standin $<TARGET_FILE:sibling-standin>
      --login-server $<TARGET_FILE:td-login-server>
      --explorer $<TARGET_FILE:agent-explorer>)
  set_tests_properties(E2E.LoginLinux PROPERTIES TIMEOUT 300 PASS_REGULAR_EXPRESSION "PASS: login end to end")
else()
  # The login server simulator runs beside Wine as a host program (Wine shares the host's loopback),
  # and so do the agents the fleet console asks under Wine: the given ones, or ones built here with the
  # host's own compiler.
  set(TDACLI_HOST_LOGIN_SERVER "" CACHE FILEPATH "A td-login-server built for the host, for the Wine end-to-end run")
  set(TDACLI_HOST_AGENT "" CACHE FILEPATH "A tdacli built for the host, for the Wine fleet run")
  set(host_targets)
  set(host_byproducts)
  if(TDACLI_HOST_LOGIN_SERVER)
    set(TDACLI_E2E_LOGIN_SERVER ${TDACLI_HOST_LOGIN_SERVER})
  else()
    set(TDACLI_E2E_LOGIN_SERVER ${CMAKE_BINARY_DIR}/host-tools/bin/td-login-server)
    list(APPEND host_targets td-login-server)
    list(APPEND host_byproducts ${TDACLI_E2E_LOGIN_SERVER})
  endif()
  if(TDACLI_HOST_AGENT)
    set(TDACLI_E2E_HOST_AGENT ${TDACLI_HOST_AGENT})
  else()
    set(TDACLI_E2E_HOST_AGENT ${CMAKE_BINARY_DIR}/host-tools/bin/tdacli)
    list(APPEND host_targets tdacli)
    list(APPEND host_byproducts ${TDACLI_E2E_HOST_AGENT})
  endif()
  if(host_targets)
    include(ExternalProject)
    ExternalProject_Add(host_login_server
      SOURCE_DIR ${CMAKE_SOURCE_DIR}
      BINARY_DIR ${CMAKE_BINARY_DIR}/host-tools
      CMAKE_ARGS -DCMAKE_BUILD_TYPE=Release -DTDACLI_TESTS=OFF
      BUILD_COMMAND ${CMAKE_COMMAND} --build <BINARY_DIR> --target ${host_targets}
      INSTALL_COMMAND ""
      BUILD_ALWAYS ON
      BUILD_BYPRODUCTS ${host_byproducts})
  endif()

  add_test(NAME E2E.LoginWine
    COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/e2e/login_wine.sh
      --tdacli $<TARGET_FILE:tdacli>
      --standin $<TARGET_FILE:sibling-standin>
      --svctool $<TARGET_FILE:svctool>
      --explorer $<TARGET_FILE:agent-explorer>
      --login-server ${TDACLI_E2E_LOGIN_SERVER}
      --work ${CMAKE_CURRENT_BINARY_DIR}/e2e-login-wine)
  set_tests_properties(E2E.LoginWine PROPERTIES TIMEOUT 600 PASS_REGULAR_EXPRESSION "PASS: login end to end under Wine")
endif()
