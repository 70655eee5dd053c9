# Every program of the Linux build answers --help and -h and refuses a bogus option before doing any
# work. The release build's benchmarks are checked by scripts/test.sh over build/linux/bin.
if(NOT WIN32)
  set(TDACLI_HELP_PROGRAMS --program $<TARGET_FILE:tdacli> --program $<TARGET_FILE:td-login-server>
    --program $<TARGET_FILE:agent-explorer> --program $<TARGET_FILE:sibling-standin>)
  if(TDACLI_BENCH)
    file(GLOB TDACLI_HELP_BENCHES CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/bench/*_bench.cpp)
    foreach(src ${TDACLI_HELP_BENCHES})
      get_filename_component(bench ${src} NAME_WE)
      list(APPEND TDACLI_HELP_PROGRAMS --program $<TARGET_FILE:${bench}>)
    endforeach()
  endif()
  add_test(NAME Programs.HelpAndUnknownOption
    COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/e2e/programs_help.sh ${TDACLI_HELP_PROGRAMS})
  set_tests_properties(Programs.HelpAndUnknownOption PROPERTIES TIMEOUT 300
    PASS_REGULAR_EXPRESSION "PASS: every program answers --help")
endif()
