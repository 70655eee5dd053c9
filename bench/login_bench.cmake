# The login benchmark runs the agent against the login server simulator.
target_link_libraries(login_bench PRIVATE td_login_server_lib)
# The service-message benchmark runs the whole login chain against the simulator too.
target_link_libraries(control_bench PRIVATE td_login_server_lib)
# The web-service logins use the HTTP client that trusts the test CA for HTTPS.
target_link_libraries(login_bench PRIVATE tdacli_seams)
