# Cross build for Windows with mingw-w64, shared by the toolchain files of both widths, which name the processor and
# KELDA_TRIPLET. The posix flavour, because the win32 flavour has no std::mutex.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_C_COMPILER ${KELDA_TRIPLET}-gcc-posix)
set(CMAKE_CXX_COMPILER ${KELDA_TRIPLET}-g++-posix)
set(CMAKE_RC_COMPILER ${KELDA_TRIPLET}-windres)
set(CMAKE_FIND_ROOT_PATH /usr/${KELDA_TRIPLET})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
