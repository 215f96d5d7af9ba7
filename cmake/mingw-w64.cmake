# Cross build for 64-bit Windows with mingw-w64; ctest runs the programs under Wine.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)
set(QOR_MINGW_PREFIX x86_64-w64-mingw32)

set(CMAKE_C_COMPILER ${QOR_MINGW_PREFIX}-gcc-posix)
set(CMAKE_CXX_COMPILER ${QOR_MINGW_PREFIX}-g++-posix)
set(CMAKE_RC_COMPILER ${QOR_MINGW_PREFIX}-windres)

set(CMAKE_FIND_ROOT_PATH /usr/${QOR_MINGW_PREFIX})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# Self-contained executables: no libgcc, libstdc++ or winpthread DLLs to find under Wine.
set(CMAKE_EXE_LINKER_FLAGS_INIT "-static -static-libgcc -static-libstdc++")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "-static -static-libgcc -static-libstdc++")

set(CMAKE_CROSSCOMPILING_EMULATOR wine)
