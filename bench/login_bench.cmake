# The login benchmark runs the agent against the login server simulator.
target_link_libraries(login_bench PRIVATE td_login_server_lib)
# The service-message benchmark runs the whole login chain against the simulator too.
target_link_libraries(control_bench PRIVATE td_login_server_lib)
