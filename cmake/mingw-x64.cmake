# Cross build for Windows x64; its programs run under this machine's Wine.
set(CMAKE_SYSTEM_PROCESSOR AMD64)
set(KELDA_TRIPLET x86_64-w64-mingw32)
include(${CMAKE_CURRENT_LIST_DIR}/mingw.cmake)
set(CMAKE_CROSSCOMPILING_EMULATOR ${CMAKE_CURRENT_LIST_DIR}/../scripts/run-windows.sh x64)
