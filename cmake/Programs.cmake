# Functions for the programs of tests/, verify/ and benchmarks/.

# The address sanitizer stops a program in which OpenVINO's thread library opens a plug-in, unless this is set.
set(TOL_TEST_ENVIRONMENT "TBB_ENABLE_SANITIZERS=1")

# tol_program(NAME SOURCES FILE... LIBRARIES TARGET... [DEFINITIONS NAME=VALUE...])
# An executable whose includes are relative to the project, to tests/ ("support/TestHost.h") or to Core/.
function(tol_program name)
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "" "SOURCES;LIBRARIES;DEFINITIONS")
  add_executable(${name} ${arg_SOURCES})
  target_include_directories(${name} PRIVATE
    "${PROJECT_SOURCE_DIR}" "${PROJECT_SOURCE_DIR}/tests" "${PROJECT_SOURCE_DIR}/Core")
  target_link_libraries(${name} PRIVATE ${arg_LIBRARIES})
  target_compile_definitions(${name} PRIVATE ${arg_DEFINITIONS})
  target_compile_options(${name} PRIVATE ${TOL_WARNINGS})
endfunction()

# tol_gtest(NAME SOURCES FILE... [LIBRARIES TARGET...] [DEFINITIONS NAME=VALUE...] [PROPERTIES KEY VALUE...])
# A GoogleTest program that reaches the internals of the library; PROPERTIES belong to each of its tests.
function(tol_gtest name)
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "" "SOURCES;LIBRARIES;DEFINITIONS;PROPERTIES")
  tol_program(${name} SOURCES ${arg_SOURCES} DEFINITIONS ${arg_DEFINITIONS}
    LIBRARIES TolCompatibleObjects ${arg_LIBRARIES} GTest::gtest_main)
  gtest_discover_tests(${name} DISCOVERY_TIMEOUT 60
    PROPERTIES ENVIRONMENT "${TOL_TEST_ENVIRONMENT}" TIMEOUT 300 ${arg_PROPERTIES})
endfunction()

# tol_test(NAME COMMAND WORD... [PROPERTIES KEY VALUE...])
# A test that passes if the command exits with 0.
function(tol_test name)
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "" "COMMAND;PROPERTIES")
  add_test(NAME ${name} COMMAND ${arg_COMMAND})
  set_tests_properties(${name} PROPERTIES ENVIRONMENT "${TOL_TEST_ENVIRONMENT}" TIMEOUT 300 ${arg_PROPERTIES})
endfunction()
