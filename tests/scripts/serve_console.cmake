# The web console end to end: agent-explorer serve over 50 real agents, the login server simulator, a
# TDACMT stand-in and fleet-peers' misbehaving hosts; the JSON API from Python, the page in headless
# Chromium driven by Selenium (screenshots under the build folder).
if(NOT WIN32)
  foreach(part api browser)
    if(part STREQUAL "api")
      set(name E2E.ServeApiLinux)
    else()
      set(name E2E.ServeBrowserLinux)
    endif()
    add_test(NAME ${name}
      COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/e2e/serve_linux.sh --part ${part}
        --tdacli $<TARGET_FILE:tdacli>
        --explorer $<TARGET_FILE:agent-explorer>
        --peers $<TARGET_FILE:fleet-peers>
        --login-server $<TARGET_FILE:td-login-server>
        --standin $<TARGET_FILE:sibling-standin>
        --fixtures ${CMAKE_SOURCE_DIR}/tests/data/pe
        --shots ${CMAKE_BINARY_DIR}/screenshots
        --agents 50)
    set_tests_properties(${name} PROPERTIES TIMEOUT 400 PASS_REGULAR_EXPRESSION "PASS: web console end to end")
  endforeach()
endif()
# Under Wine: agent-explorer.exe serve answers /api/hosts for a few agents built for the host.
if(WIN32)
  add_test(NAME E2E.ServeWine
    COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/e2e/serve_wine.sh
      --tdacli ${TDACLI_E2E_HOST_AGENT}
      --explorer $<TARGET_FILE:agent-explorer>
      --wine-run ${CMAKE_SOURCE_DIR}/cmake/wine-run.sh
      --prefix ${CMAKE_BINARY_DIR}/wineprefix
      --agents 8)
  set_tests_properties(E2E.ServeWine PROPERTIES TIMEOUT 300 PASS_REGULAR_EXPRESSION "PASS: web console under Wine")
endif()
