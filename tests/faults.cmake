# Fault-injection tests of the relay tool (tests/faults/): setup, re-setup
# and upgrade broken off, descriptors running out, the ssh child killed, and a
# scripted login and the self-check under memcheck. Included from
# tests/CMakeLists.txt. The memcheck runs are skipped in sanitizer builds.
if(NOT TEST_PYTHON)
  find_program(TEST_PYTHON NAMES python3 PATHS /usr/bin NO_DEFAULT_PATH REQUIRED)
endif()

set(faults_env "RELAYTOOL=$<TARGET_FILE:relaytool>"
               "RELAYTOOL_TESTRELAY=$<TARGET_FILE:relaytool-testrelay>")
if(RELAYTOOL_SANITIZE OR RELAYTOOL_FUZZ)
  list(APPEND faults_env RELAYTOOL_SANITIZED=1)
endif()

foreach(name IN ITEMS credentials_faults resource_faults valgrind_login)
  add_test(NAME faults_${name}
           COMMAND ${TEST_PYTHON} ${CMAKE_CURRENT_LIST_DIR}/faults/test_${name}.py -v)
  set_tests_properties(faults_${name} PROPERTIES
    ENVIRONMENT "${faults_env}"
    TIMEOUT 180
    LABELS faults)
endforeach()
# The memcheck file's two tests skip together: then so does the CTest test.
set_tests_properties(faults_valgrind_login PROPERTIES SKIP_REGULAR_EXPRESSION "OK \\(skipped=2\\)")
