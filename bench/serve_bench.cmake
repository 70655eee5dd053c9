# The web console's benchmark asks agent-explorer serve over HTTP (cpp-httplib's client) and runs the
# page's figures from a Python script in the source tree.
if(TARGET serve_bench AND NOT WIN32)
  find_package(PkgConfig REQUIRED)
  pkg_check_modules(TDACLI_BENCH_HTTPLIB REQUIRED IMPORTED_TARGET cpp-httplib)
  target_link_libraries(serve_bench PRIVATE PkgConfig::TDACLI_BENCH_HTTPLIB)
  target_compile_definitions(serve_bench PRIVATE TDACLI_SOURCE_DIR="${CMAKE_SOURCE_DIR}")
endif()
