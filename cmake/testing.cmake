# How test programs and test scripts become tests of CTest. Their names are PROGRAM.FILE, so that `ctest -R sign` finds the
# files about signing; their labels are the build (native, x64, x86) and the kind. What a kind means, and which programs
# may run at the same time, is said here only.
if(NOT WIN32)
  set(KELDA_ARCH native)
elseif(CMAKE_SIZEOF_VOID_P EQUAL 8)
  set(KELDA_ARCH x64)
else()
  set(KELDA_ARCH x86)
endif()
set(KELDA_TEST_KINDS unit entries dialogs soak standins e2e check)
set(KELDA_TEST_RESULTS ${CMAKE_BINARY_DIR}/test-results)

# All of them, and nothing that none of them needs.
add_custom_target(test_programs)

# kelda_test_program(NAME KIND kind SOURCES file... LIBRARIES target... [TIMEOUT seconds])
#
# The target NAME, a GoogleTest program. CTest gets one test for each of its files that has test suites: a process for each
# case would take far too long, and one for the whole program finds nothing by name. The suites are read from the sources
# each time CTest starts (test-cases.cmake), so that a new case needs no new configuration.
function(kelda_test_program name)
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "KIND;TIMEOUT" "SOURCES;LIBRARIES")
  kelda_check_test_kind("${arg_KIND}")
  if(NOT arg_TIMEOUT)
    set(arg_TIMEOUT 300)
  endif()
  add_executable(${name} ${arg_SOURCES})
  add_dependencies(test_programs ${name})
  target_link_libraries(${name} PRIVATE ${arg_LIBRARIES})

  set(sources "")
  foreach(source ${arg_SOURCES})
    get_filename_component(source ${source} ABSOLUTE)
    list(APPEND sources ${source})
  endforeach()
  string(REGEX REPLACE "_tests$" "" group ${name})
  set(file ${CMAKE_CURRENT_BINARY_DIR}/${name}.ctest.cmake)
  file(GENERATE OUTPUT ${file} CONTENT "set(group [[${group}]])
set(program [[$<TARGET_FILE:${name}>]])
set(emulator [[${CMAKE_CROSSCOMPILING_EMULATOR}]])
set(sources [[${sources}]])
set(labels [[${KELDA_ARCH};${arg_KIND}]])
set(timeout [[${arg_TIMEOUT}]])
set(results [[${KELDA_TEST_RESULTS}]])
include([[${PROJECT_SOURCE_DIR}/cmake/test-cases.cmake]])
")
  set_property(DIRECTORY APPEND PROPERTY TEST_INCLUDE_FILES ${file})
endfunction()

# kelda_test_script(NAME KIND kind SCRIPT file [TIMEOUT seconds] [CONFIGURATION name] [ARGUMENTS word...])
#
# A script that prints "PASS: name" or "FAIL: name" for each thing it looks at. It finds the builds in KELDA_BUILD. One with
# a configuration is run only when CTest is asked for that (ctest -C name).
function(kelda_test_script name)
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "KIND;TIMEOUT;SCRIPT;CONFIGURATION" "ARGUMENTS")
  kelda_check_test_kind("${arg_KIND}")
  if(NOT arg_TIMEOUT)
    set(arg_TIMEOUT 900)
  endif()
  get_filename_component(script ${arg_SCRIPT} ABSOLUTE)
  get_filename_component(build ${CMAKE_BINARY_DIR} DIRECTORY)
  add_test(
    NAME ${name}
    COMMAND ${script} ${arg_ARGUMENTS}
    CONFIGURATIONS ${arg_CONFIGURATION})
  set_tests_properties(
    ${name}
    PROPERTIES LABELS "${KELDA_ARCH};${arg_KIND};script"
               TIMEOUT ${arg_TIMEOUT}
               ENVIRONMENT KELDA_BUILD=${build}
               FAIL_REGULAR_EXPRESSION "(^|\n)FAIL: ")
endfunction()

function(kelda_check_test_kind kind)
  if(NOT kind IN_LIST KELDA_TEST_KINDS)
    message(FATAL_ERROR "\"${kind}\" is no kind of test; known are: ${KELDA_TEST_KINDS}")
  endif()
endfunction()

# The desktop that Windows programs run on: an X server and a Wine prefix, from the first test that needs them to the last.
if(WIN32)
  foreach(step start stop)
    add_test(NAME desktop.${step} COMMAND ${PROJECT_SOURCE_DIR}/scripts/desktop.sh ${step} ${KELDA_ARCH}
                                          ${CMAKE_BINARY_DIR})
    set_tests_properties(desktop.${step} PROPERTIES LABELS "${KELDA_ARCH};desktop" TIMEOUT 300)
  endforeach()
  set_tests_properties(desktop.start PROPERTIES FIXTURES_SETUP desktop)
  set_tests_properties(desktop.stop PROPERTIES FIXTURES_CLEANUP desktop)
endif()

# The checks look at the products of both widths, so that they are no part of an ordinary run of either.
if(KELDA_ARCH STREQUAL x64)
  kelda_test_script(
    check
    KIND check
    SCRIPT scripts/check.sh
    CONFIGURATION check
    TIMEOUT 2700)
endif()

# A program called *_tests that is made in another way would be run by nobody.
function(kelda_find_forgotten folder)
  get_property(targets DIRECTORY ${folder} PROPERTY BUILDSYSTEM_TARGETS)
  get_property(known TARGET test_programs PROPERTY MANUALLY_ADDED_DEPENDENCIES)
  foreach(target ${targets})
    if(target MATCHES "_tests$" AND NOT target IN_LIST known)
      message(FATAL_ERROR "${target} is to be made with kelda_test_program, or no run of the tests has it")
    endif()
  endforeach()
  get_property(below DIRECTORY ${folder} PROPERTY SUBDIRECTORIES)
  foreach(subfolder ${below})
    kelda_find_forgotten(${subfolder})
  endforeach()
endfunction()
cmake_language(DEFER DIRECTORY ${PROJECT_SOURCE_DIR} CALL kelda_find_forgotten ${PROJECT_SOURCE_DIR})
