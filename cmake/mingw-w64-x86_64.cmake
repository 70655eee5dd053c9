# Cross-compiling for Windows x86-64 with Debian's mingw-w64. The -posix compilers use the winpthreads
# thread model: the default win32 model has no std::mutex or std::thread.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)

set(TDACLI_MINGW_PREFIX x86_64-w64-mingw32)
set(CMAKE_C_COMPILER ${TDACLI_MINGW_PREFIX}-gcc-posix)
set(CMAKE_CXX_COMPILER ${TDACLI_MINGW_PREFIX}-g++-posix)
set(CMAKE_RC_COMPILER ${TDACLI_MINGW_PREFIX}-windres)
set(CMAKE_MC_COMPILER ${TDACLI_MINGW_PREFIX}-windmc)

# Libraries and headers come from the mingw-w64 tree only; programs (code generators) from the host.
set(CMAKE_FIND_ROOT_PATH /usr/${TDACLI_MINGW_PREFIX})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# Test programs run under Wine, in a private prefix inside the build tree (see cmake/wine-run.sh).
set(CMAKE_CROSSCOMPILING_EMULATOR "${CMAKE_CURRENT_LIST_DIR}/wine-run.sh;--prefix=${CMAKE_BINARY_DIR}/wineprefix")
