# The real agent against hostile and broken peers on Linux (bursts, leaving peers, the descriptor
# limit, a console that never reads, line breaks and NUL in values, a busy SETLISTEN port, a second
# agent in the same folder, a 100 MB settings file), with figures from /proc. Under Wine the same
# burst and leaving peers run as the listener's unit tests (Hostile.*) in tdacli_tests.
if(NOT WIN32)
  add_executable(tdacli-abuse ${CMAKE_CURRENT_SOURCE_DIR}/e2e/abuse_client.cpp)
  add_test(NAME E2E.UntrustedInputLinux
    COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/e2e/untrusted_input_linux.sh
      --tdacli $<TARGET_FILE:tdacli>
      --abuse $<TARGET_FILE:tdacli-abuse>)
  set_tests_properties(E2E.UntrustedInputLinux PROPERTIES TIMEOUT 600
    PASS_REGULAR_EXPRESSION "PASS: untrusted input end to end")
endif()
