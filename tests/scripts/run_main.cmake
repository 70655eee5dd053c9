# scripts/run-main.sh without a build: its options and a first run whose agent is slow to write its
# trace and ends before the logon (stand-in programs in a scratch copy of the tree).
if(NOT WIN32)
  add_test(NAME Scripts.RunMain COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/e2e/run_main_test.sh --source ${CMAKE_SOURCE_DIR})
  set_tests_properties(Scripts.RunMain PROPERTIES TIMEOUT 120 PASS_REGULAR_EXPRESSION "PASS: run-main")
endif()
