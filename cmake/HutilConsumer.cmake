# Test: somebody else's project builds against what this build installs, with this build's compiler.
add_test(NAME Consumer.BuildsWithCMakePackageAndPkgConfig
  COMMAND ${PROJECT_SOURCE_DIR}/scripts/isolate.sh ${PROJECT_SOURCE_DIR}/scripts/consumer.sh
          ${PROJECT_BINARY_DIR}/consumer ${PROJECT_BINARY_DIR})
set(consumer_cxx ${CMAKE_CXX_COMPILER})
if(CMAKE_SYSROOT)
  string(APPEND consumer_cxx " --sysroot=${CMAKE_SYSROOT}")
endif()
if(HUTIL_SANITIZE)
  set(consumer_flags "-fsanitize=${HUTIL_SANITIZE}")
endif()
set(consumer_environment "CXX=${consumer_cxx}" "CXXFLAGS=${consumer_flags}"
  "CMAKE_TOOLCHAIN_FILE=${CMAKE_TOOLCHAIN_FILE}" "CONSUMER_RUNNER=${HUTIL_PROGRAM_RUNNER}")
math(EXPR consumer_timeout "60 * ${HUTIL_TEST_TIMEOUT_SCALE}")
set_tests_properties(Consumer.BuildsWithCMakePackageAndPkgConfig PROPERTIES
  SKIP_RETURN_CODE 77 TIMEOUT ${consumer_timeout} ENVIRONMENT "${consumer_environment}")
