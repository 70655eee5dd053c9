# The GETVER benchmark copies the PE images of the tests into the agent's folder.
target_compile_definitions(getver_bench PRIVATE TDACLI_SOURCE_DIR="${CMAKE_SOURCE_DIR}")
