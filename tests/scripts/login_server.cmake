# The login tests run the simulator in-process and, end to end, as its own program.
target_link_libraries(tdacli_tests PRIVATE td_login_server_lib)
add_dependencies(tdacli_tests td-login-server)
