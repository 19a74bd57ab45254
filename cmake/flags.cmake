include(${CMAKE_CURRENT_LIST_DIR}/warnings.cmake)

# kelda_flags: what every target of ours is compiled with.
add_library(kelda_flags INTERFACE)
target_compile_features(kelda_flags INTERFACE cxx_std_20)
target_compile_options(kelda_flags INTERFACE ${KELDA_WARNINGS} "$<$<COMPILE_LANGUAGE:CXX>:${KELDA_CXX_WARNINGS}>"
                                             -fno-strict-aliasing)
target_include_directories(kelda_flags INTERFACE ${CMAKE_SOURCE_DIR}/src)

if(WIN32)
  target_compile_definitions(kelda_flags INTERFACE UNICODE _UNICODE WIN32_LEAN_AND_MEAN NOMINMAX _WIN32_WINNT=0x0601
                                                   WINVER=0x0601)
  target_compile_options(kelda_flags INTERFACE -mno-ms-bitfields)
  target_link_options(
    kelda_flags
    INTERFACE
    -static
    -Wl,--no-insert-timestamp
    -Wl,--dynamicbase
    -Wl,--nxcompat
    $<$<CONFIG:Release>:-s>)
  if(CMAKE_SIZEOF_VOID_P EQUAL 8)
    target_link_options(kelda_flags INTERFACE -Wl,--high-entropy-va)
  endif()
else()
  # Pure logic runs natively with Windows' 16-bit wide characters, under the sanitizers.
  target_compile_options(kelda_flags INTERFACE -fshort-wchar -g -fsanitize=address,undefined
                                               -fno-sanitize-recover=all -fno-omit-frame-pointer)
  target_link_options(kelda_flags INTERFACE -fsanitize=address,undefined)
endif()

# Only the product counts: what merely tests it is then the same as in every other build, and the compiler's cache has it.
option(KELDA_COVERAGE "The product counts the lines it runs (for scripts/coverage.sh)" OFF)
define_property(TARGET PROPERTY KELDA_COUNTED INITIALIZE_FROM_VARIABLE KELDA_COUNTED)
set(kelda_counters --coverage -O0 -fprofile-update=atomic)
# No build path in a binary: two builds of one commit in different folders are equal. Counters need the real paths.
set(kelda_paths -ffile-prefix-map=${CMAKE_SOURCE_DIR}=. -ffile-prefix-map=${CMAKE_BINARY_DIR}=build)
target_compile_options(
  kelda_flags INTERFACE "$<IF:$<BOOL:$<TARGET_PROPERTY:KELDA_COUNTED>>,${kelda_counters},${kelda_paths}>")
if(KELDA_COVERAGE)
  target_link_options(kelda_flags INTERFACE --coverage)
endif()

# kelda_pkcs11: the PKCS#11 v2.40 types, from p11-kit's header.
add_library(kelda_pkcs11 INTERFACE)
target_include_directories(kelda_pkcs11 SYSTEM INTERFACE /usr/include/p11-kit-1)

# GoogleTest and GoogleMock (gtest, gtest_main, gmock), built from Debian's sources with our toolchain.
if(NOT TARGET gmock)
  set(INSTALL_GTEST OFF CACHE BOOL "" FORCE)
  set(gtest_force_shared_crt ON CACHE BOOL "" FORCE)
  add_subdirectory(/usr/src/googletest ${CMAKE_BINARY_DIR}/googletest EXCLUDE_FROM_ALL SYSTEM)
  # Optimizing the two largest sources of all takes longer than they then save.
  target_compile_options(gtest PRIVATE -O0)
  target_compile_options(gmock PRIVATE -O0)
endif()
