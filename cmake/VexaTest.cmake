# SPDX-License-Identifier: MIT
# How all tests are built and run.
include(GoogleTest)

# A sanitizer makes everything several times slower. A sanitizer report from any process that shares the
# test's streams fails the test, even if the process ends in a way that hides its exit status.
set(VEXA_TEST_LIMIT 300)
set(VEXA_SANITIZER_PROPERTIES)
if(VEXA_SANITIZE)
  set(VEXA_TEST_LIMIT 900)
  set(VEXA_SANITIZER_PROPERTIES FAIL_REGULAR_EXPRESSION
    "(ERROR|WARNING|FATAL): (Address|Leak|Thread)Sanitizer|: runtime error: ")
endif()

# Adds the program NAME_test, built from NAME_test.cpp. Each of its cases becomes a separate test, which runs
# in its own process and is labelled with the name of the folder.
#   vexa_test(NAME [SOURCES ...] [LIBRARIES ...] [DEFINITIONS ...] [WRAPS ...] [DEPENDS ...] [ENVIRONMENT ...])
# SOURCES are the program's other files. WRAPS names C functions for which calls by the program and its static
# libraries are redirected to the test: it defines __wrap_X and calls the real function as __real_X. DEPENDS
# names the programs that the cases start. Cases in a suite named ...ForLong aren't added: they run only on
# request.
function(vexa_test name)
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "" "SOURCES;LIBRARIES;DEFINITIONS;WRAPS;DEPENDS;ENVIRONMENT")
  cmake_path(GET CMAKE_CURRENT_SOURCE_DIR FILENAME room)
  add_executable(${name}_test ${name}_test.cpp ${arg_SOURCES})
  target_include_directories(${name}_test PRIVATE "${PROJECT_SOURCE_DIR}")
  target_compile_definitions(${name}_test PRIVATE ${arg_DEFINITIONS})
  target_link_libraries(${name}_test PRIVATE ${arg_LIBRARIES} vexakit GTest::gmock GTest::gtest_main)
  foreach(wrapped IN LISTS arg_WRAPS)
    target_link_options(${name}_test PRIVATE "LINKER:--wrap=${wrapped}")
  endforeach()
  if(arg_DEPENDS)
    add_dependencies(${name}_test ${arg_DEPENDS})
  endif()
  if(arg_ENVIRONMENT)
    set(environment ENVIRONMENT ${arg_ENVIRONMENT})
  endif()
  gtest_discover_tests(${name}_test
    TEST_FILTER "-*ForLong.*"
    DISCOVERY_MODE PRE_TEST
    DISCOVERY_TIMEOUT 60
    PROPERTIES TIMEOUT ${VEXA_TEST_LIMIT} LABELS ${room} ${VEXA_SANITIZER_PROPERTIES} ${environment})
endfunction()
