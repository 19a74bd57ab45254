# Cross build for Windows x86; its programs run under 32-bit Wine (docs/building.md).
set(CMAKE_SYSTEM_PROCESSOR X86)
set(KELDA_TRIPLET i686-w64-mingw32)
include(${CMAKE_CURRENT_LIST_DIR}/mingw.cmake)
set(CMAKE_CROSSCOMPILING_EMULATOR ${CMAKE_CURRENT_LIST_DIR}/../scripts/run-windows.sh x86)
