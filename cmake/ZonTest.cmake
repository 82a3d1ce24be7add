# zon_test(NAME oss_memory_test SOURCES memory_test.cpp LINK zonosse ...)
#
# One GoogleTest program; every test case in it becomes a ctest test of its own. ONE_THREAD marks a program that takes very
# many steps in a single thread: the build with the thread sanitizer, which has nothing to see there, leaves it out.
include(GoogleTest)

# The leak suppressions name functions: clang's run-time knows those by asking a symbolizer, and without one reports what
# the tests count as kept on purpose.
set(ZON_TEST_ENVIRONMENT)
if(ZON_SANITIZE MATCHES "address" AND CMAKE_CXX_COMPILER_ID MATCHES "Clang")
  string(REGEX MATCH "^[0-9]+" clang_major "${CMAKE_CXX_COMPILER_VERSION}")
  find_program(ZON_SYMBOLIZER NAMES "llvm-symbolizer-${clang_major}" llvm-symbolizer REQUIRED)
  set(ZON_TEST_ENVIRONMENT ENVIRONMENT "ASAN_SYMBOLIZER_PATH=${ZON_SYMBOLIZER}")
endif()

function(zon_test)
  cmake_parse_arguments(ARG "ONE_THREAD" "NAME;PREFIX" "SOURCES;LINK;PROPERTIES" ${ARGN})
  if(ARG_ONE_THREAD AND ZON_SANITIZE MATCHES "thread")
    return()
  endif()
  add_executable(${ARG_NAME} ${ARG_SOURCES})
  target_include_directories(${ARG_NAME} PRIVATE "${PROJECT_SOURCE_DIR}/src" "${PROJECT_SOURCE_DIR}/tests")
  target_link_libraries(${ARG_NAME} PRIVATE ${ARG_LINK} GTest::gtest_main GTest::gmock)
  # g++ 12 at -O3 sees an overlap in every std::string put together of a literal and a string, where there is none.
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    target_compile_options(${ARG_NAME} PRIVATE $<$<COMPILE_LANGUAGE:CXX>:-Wno-restrict>)
  endif()
  # Without optimisation and with counters everywhere, the longest tests take ten times as long.
  set(timeout 300)
  if(ZON_COVERAGE)
    set(timeout 3000)
  endif()
  gtest_discover_tests(${ARG_NAME} TEST_PREFIX "${ARG_PREFIX}" DISCOVERY_TIMEOUT 120 PROPERTIES
    TIMEOUT ${timeout} ${ZON_TEST_ENVIRONMENT} ${ARG_PROPERTIES})
endfunction()
