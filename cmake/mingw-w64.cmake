# Cross toolchain for the shipped Windows build: 64-bit MinGW-w64, posix thread model,
# everything linked statically so that the executables need no MinGW runtime DLL.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)
set(NORVIK_MINGW_PREFIX x86_64-w64-mingw32)
set(CMAKE_C_COMPILER ${NORVIK_MINGW_PREFIX}-gcc-posix)
set(CMAKE_CXX_COMPILER ${NORVIK_MINGW_PREFIX}-g++-posix)
set(CMAKE_RC_COMPILER ${NORVIK_MINGW_PREFIX}-windres)
set(CMAKE_FIND_ROOT_PATH /usr/${NORVIK_MINGW_PREFIX})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_EXE_LINKER_FLAGS_INIT "-static -static-libgcc -static-libstdc++")
