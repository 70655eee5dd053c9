# The login benchmark runs the agent against the login server simulator.
target_link_libraries(login_bench PRIVATE td_login_server_lib)
