# Functions that add tests. A test whose tools are missing is still registered: it is skipped, and its name says which
# Debian packages it needs. A tool that is set to OFF counts as missing.
include(GoogleTest)

option(LUMORA_REQUIRE_ALL_TESTS "Fail to configure when the tools of a test are missing" OFF)

set(LUMORA_TEST_TIMEOUT 60)
if(CMAKE_CROSSCOMPILING_EMULATOR)
  set(LUMORA_TEST_TIMEOUT 240)
endif()

# lumora_find_tool(VARIABLE PROGRAM PACKAGE)
#
# Looks for a program that some tests need. Tests name it by VARIABLE.
function(lumora_find_tool variable program package)
  find_program(${variable} ${program})
  set_property(GLOBAL PROPERTY ${variable}_PACKAGE ${package})
endfunction()

lumora_find_tool(LUMORA_PYTHON python3 python3)
lumora_find_tool(LUMORA_ABIDIFF abidiff abigail-tools)
lumora_find_tool(LUMORA_CLANG clang++ clang)

# Not a package: tests that use the data directory get a private one, in a mount namespace. Containers often forbid
# namespaces.
if(NOT DEFINED LUMORA_MOUNT_NAMESPACE)
  execute_process(COMMAND ${PROJECT_SOURCE_DIR}/scripts/with-data-directory --fresh ${PROJECT_BINARY_DIR}/data true
    RESULT_VARIABLE status)
  if(status EQUAL 0)
    set(LUMORA_MOUNT_NAMESPACE ON CACHE BOOL "Whether tests can create a mount namespace")
  endif()
endif()
set_property(GLOBAL PROPERTY LUMORA_MOUNT_NAMESPACE_PACKAGE "a mount namespace")

# lumora_skip_test(NAME LABEL OUTPUT [TOOL ...])
#
# If a TOOL is missing, registers NAME as skipped and sets OUTPUT to true.
function(lumora_skip_test name label output)
  set(${output} FALSE PARENT_SCOPE)
  set(needs)
  foreach(tool IN LISTS ARGN)
    if(NOT ${tool})
      get_property(need GLOBAL PROPERTY ${tool}_PACKAGE)
      list(APPEND needs ${need})
    endif()
  endforeach()
  if(NOT needs)
    return()
  endif()
  list(JOIN needs " and " needs)
  if(LUMORA_REQUIRE_ALL_TESTS)
    message(FATAL_ERROR "The test ${name} needs ${needs}: install what is missing (scripts/install-packages browser) or "
      "configure without LUMORA_REQUIRE_ALL_TESTS to skip the test")
  endif()
  message(STATUS "The test ${name} will be skipped: it needs ${needs}")
  set(name "${name} (needs ${needs})")
  add_test(NAME "${name}" COMMAND ${CMAKE_COMMAND} -E echo "SKIPPED: needs ${needs}")
  set_tests_properties("${name}" PROPERTIES LABELS ${label} SKIP_REGULAR_EXPRESSION "^SKIPPED")
  set(${output} TRUE PARENT_SCOPE)
endfunction()

# lumora_add_test(NAME [DATA_DIRECTORY] [SYSTEM_LOG] [ONE_THREAD] [TEST_DATA] [LIBRARIES ...])
#
# NAME.cpp links the shared library as a host does. DATA_DIRECTORY runs each of its cases in a mount namespace with an
# empty data directory. SYSTEM_LOG also gives it a private /dev, and the library's log call instead of the one in
# tests/support. ONE_THREAD says that nothing in it can race: it is not built for ThreadSanitizer. TEST_DATA tells it
# where tests/data is.
function(lumora_add_test name)
  cmake_parse_arguments(arg "DATA_DIRECTORY;SYSTEM_LOG;ONE_THREAD;TEST_DATA" "" "LIBRARIES" ${ARGN})
  if(arg_ONE_THREAD AND LUMORA_SANITIZE MATCHES "thread")
    return()
  endif()
  cmake_path(GET name FILENAME target)
  add_executable(${target} ${name}.cpp)
  target_include_directories(${target} PRIVATE ${PROJECT_SOURCE_DIR}/src)
  target_link_libraries(${target} PRIVATE
    lumora-common lumora-flags GTest::gtest_main ${arg_LIBRARIES})
  if(NOT arg_SYSTEM_LOG)
    target_link_libraries(${target} PRIVATE lumora-test-support)
  endif()
  lumora_link_glib_on_pthreads(${target})
  target_compile_definitions(${target} PRIVATE LUMORA_TEST_IS_EMULATED=$<BOOL:${CMAKE_CROSSCOMPILING_EMULATOR}>)
  if(arg_TEST_DATA)
    target_compile_definitions(${target} PRIVATE LUMORA_TEST_DATA="${PROJECT_SOURCE_DIR}/tests/data")
  endif()
  if(arg_DATA_DIRECTORY OR arg_SYSTEM_LOG)
    lumora_skip_test(${target} unit is_skipped LUMORA_MOUNT_NAMESPACE)
    if(is_skipped)
      return()
    endif()
    set(launcher ${PROJECT_SOURCE_DIR}/scripts/with-data-directory --fresh)
    if(arg_SYSTEM_LOG)
      list(APPEND launcher --private-dev)
    endif()
    list(APPEND launcher ${PROJECT_BINARY_DIR}/data)
    set_target_properties(${target} PROPERTIES
      CROSSCOMPILING_EMULATOR "${launcher};${CMAKE_CROSSCOMPILING_EMULATOR}")
  endif()
  gtest_discover_tests(${target}
    PROPERTIES LABELS unit TIMEOUT ${LUMORA_TEST_TIMEOUT}
    DISCOVERY_TIMEOUT 60
    EXTRA_ARGS --gtest_brief=1)
endfunction()

# lumora_add_script_test(NAME LABEL SCRIPT [NEEDS TOOL ...] [ARGUMENTS ARGUMENT ...])
#
# SCRIPT is a Python program, relative to the caller's folder. Each TOOL is a variable of lumora_find_tool(); python3 is
# always needed and need not be listed.
function(lumora_add_script_test name label script)
  cmake_parse_arguments(arg "" "" "NEEDS;ARGUMENTS" ${ARGN})
  cmake_path(ABSOLUTE_PATH script)
  lumora_skip_test(${name} ${label} is_skipped LUMORA_PYTHON ${arg_NEEDS})
  if(is_skipped)
    return()
  endif()
  add_test(NAME ${name} COMMAND ${LUMORA_PYTHON} ${script} ${arg_ARGUMENTS})
  set_tests_properties(${name} PROPERTIES LABELS ${label} TIMEOUT 60
    ENVIRONMENT CMAKE_GENERATOR=${CMAKE_GENERATOR})  # of the projects that a test configures: make may be missing
endfunction()

# lumora_program(TARGET OUTPUT)
#
# Sets OUTPUT to the command that starts TARGET: its file, or a script that calls the emulator.
function(lumora_program target output)
  if(CMAKE_CROSSCOMPILING_EMULATOR)
    list(JOIN CMAKE_CROSSCOMPILING_EMULATOR " " emulator)
    set(script ${CMAKE_CURRENT_BINARY_DIR}/run-${target})
    file(GENERATE OUTPUT ${script} CONTENT "#!/bin/sh\nexec ${emulator} $<TARGET_FILE:${target}> \"$@\"\n"
      FILE_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
    set(${output} ${script} PARENT_SCOPE)
  else()
    set(${output} $<TARGET_FILE:${target}> PARENT_SCOPE)
  endif()
endfunction()

# ThreadSanitizer does not understand GLib's futexes, so programs that run under it link our implementation of the few
# GLib calls that we use, which is based on pthreads.
function(lumora_link_glib_on_pthreads target)
  if(TARGET lumora-test-glib)
    target_sources(${target} PRIVATE $<TARGET_OBJECTS:lumora-test-glib>)
  endif()
endfunction()
