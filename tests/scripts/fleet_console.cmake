# The fleet console end to end: agent-explorer fleet against 200 real agents, each in its own
# application folder on its own port, beside ports where nothing listens, peers that misbehave
# (tests/e2e/fleet_peers.cpp) and an agent whose allow-list refuses the console.
add_executable(fleet-peers ${CMAKE_CURRENT_SOURCE_DIR}/e2e/fleet_peers.cpp)
target_link_libraries(fleet-peers PRIVATE tdacli_platform)
if(NOT WIN32)
  add_test(NAME E2E.FleetLinux
    COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/e2e/fleet_linux.sh
      --tdacli $<TARGET_FILE:tdacli>
      --explorer $<TARGET_FILE:agent-explorer>
      --peers $<TARGET_FILE:fleet-peers>
      --fixtures ${CMAKE_SOURCE_DIR}/tests/data/pe
      --agents 200)
  set_tests_properties(E2E.FleetLinux PROPERTIES TIMEOUT 300 PASS_REGULAR_EXPRESSION "PASS: fleet end to end")
endif()
# Under Wine: agent-explorer.exe asks a handful of agents built for the host (TDACLI_E2E_HOST_AGENT of
# e2e_login.cmake; Wine shares the host's loopback) and fleet-peers.exe's misbehaving hosts.
if(WIN32)
  add_test(NAME E2E.FleetWine
    COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/e2e/fleet_wine.sh
      --tdacli ${TDACLI_E2E_HOST_AGENT}
      --explorer $<TARGET_FILE:agent-explorer>
      --peers $<TARGET_FILE:fleet-peers>
      --wine-run ${CMAKE_SOURCE_DIR}/cmake/wine-run.sh
      --prefix ${CMAKE_BINARY_DIR}/wineprefix
      --agents 8)
  set_tests_properties(E2E.FleetWine PROPERTIES TIMEOUT 300 PASS_REGULAR_EXPRESSION "PASS: fleet end to end under Wine")
endif()
