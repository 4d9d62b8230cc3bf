# Tests of relaytool-endpoint (tests/endpoint/): GoogleTest units of its
# logic, process-level tests with a stand-in tool, and systemd's own check of
# the user unit. The real-parts tests (the local relay, Debian's sshd and
# GridFTP server) are the lab's. Included from tests/CMakeLists.txt.
if(NOT TARGET relaytool-endpoint)
  return()
endif()
if(NOT TEST_PYTHON)
  find_program(TEST_PYTHON NAMES python3 PATHS /usr/bin NO_DEFAULT_PATH REQUIRED)
endif()

add_executable(endpoint_unit_tests
  endpoint/unit/classify_test.cpp
  endpoint/unit/settings_test.cpp)
target_compile_options(endpoint_unit_tests PRIVATE ${RELAYTOOL_WARNINGS})
target_link_libraries(endpoint_unit_tests PRIVATE endpoint_core GTest::gtest_main)
gtest_discover_tests(endpoint_unit_tests DISCOVERY_TIMEOUT 30 PROPERTIES LABELS "endpoint;unit")

set(endpoint_env "RELAYTOOL_ENDPOINT_BIN=$<TARGET_FILE:relaytool-endpoint>")

add_test(NAME endpoint_process
         COMMAND ${TEST_PYTHON} ${CMAKE_CURRENT_LIST_DIR}/endpoint/test_endpoint_process.py -v)
set_tests_properties(endpoint_process PROPERTIES
  ENVIRONMENT "${endpoint_env}" LABELS endpoint TIMEOUT 180)

# The unit as installed, with the program it names at its place in the build.
find_program(SYSTEMD_ANALYZE systemd-analyze)
if(SYSTEMD_ANALYZE)
  add_test(NAME endpoint_unit_file
           COMMAND sh -c "d=$(mktemp -d) && sed \"s|^ExecStart=[^ ]*|ExecStart=$1|\" \"$2\" >$d/relaytool-endpoint.service && XDG_RUNTIME_DIR=$d \"$0\" --user --man=no verify $d/relaytool-endpoint.service; rc=$?; rm -r $d; exit $rc"
                   ${SYSTEMD_ANALYZE} $<TARGET_FILE:relaytool-endpoint>
                   ${PROJECT_BINARY_DIR}/endpoint/relaytool-endpoint.service)
  set_tests_properties(endpoint_unit_file PROPERTIES LABELS endpoint TIMEOUT 60
                       FAIL_REGULAR_EXPRESSION "[^ ]")
endif()
