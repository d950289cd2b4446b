# hutil_add_test(NAME [OBJECTS])
#
# Builds NAME.cpp with the test kit and registers each of its tests as a process of its own, inside its own network
# and mount namespace. OBJECTS links the library's objects instead of the shared library, for private classes.
# The executable exports its symbols, so that the kit's syslog, system, send, ... win over libc's.
include(GoogleTest)

# What each test process is started through: the isolating runner, then what the build itself needs.
set(HUTIL_TEST_RUNNER ${PROJECT_SOURCE_DIR}/scripts/isolate.sh)
if(HUTIL_SANITIZE MATCHES thread)
  # Thread sanitizer cannot place its shadow memory when the kernel randomises too many bits.
  execute_process(COMMAND setarch -R true RESULT_VARIABLE refused OUTPUT_QUIET ERROR_QUIET)
  if(refused EQUAL 0)
    list(APPEND HUTIL_TEST_RUNNER setarch -R)
  endif()
endif()
list(APPEND HUTIL_TEST_RUNNER ${HUTIL_EMULATOR})
# The same words without the isolation, for scripts that run several programs inside it.
set(HUTIL_PROGRAM_RUNNER ${HUTIL_TEST_RUNNER})
list(REMOVE_AT HUTIL_PROGRAM_RUNNER 0)
list(JOIN HUTIL_PROGRAM_RUNNER " " HUTIL_PROGRAM_RUNNER)

function(hutil_add_test name)
  cmake_parse_arguments(PARSE_ARGV 1 arg "OBJECTS" "" "")
  add_executable(${name} ${name}.cpp)
  set_target_properties(${name} PROPERTIES
    ENABLE_EXPORTS ON CROSSCOMPILING_EMULATOR "${HUTIL_TEST_RUNNER}")
  if(arg_OBJECTS)
    target_link_libraries(${name} PRIVATE hutil_objects)
  else()
    target_link_libraries(${name} PRIVATE hutil::hutil)
  endif()
  target_link_libraries(${name} PRIVATE hutil_testkit hutil_warnings)
  add_dependencies(${name} hutil_certs)

  math(EXPR timeout "20 * ${HUTIL_TEST_TIMEOUT_SCALE}")
  gtest_discover_tests(${name} DISCOVERY_MODE PRE_TEST DISCOVERY_TIMEOUT ${timeout}
    PROPERTIES TIMEOUT ${timeout} SKIP_RETURN_CODE 77)
endfunction()
