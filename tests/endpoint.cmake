# Tests of relaytool-endpoint (tests/endpoint/): GoogleTest units of its pure
# logic, process-level tests with a stand-in tool, end-to-end tests through
# the local relay (Debian's sshd, the reference relay, the real tool,
# watcher and ssh), also across network namespaces with a private system
# bus, and systemd's own check of the user unit. The end-to-end ones need
# root and report themselves as skipped without it. Included from
# tests/CMakeLists.txt.
if(NOT TARGET relaytool-endpoint)
  return()
endif()
if(NOT TEST_PYTHON)
  find_program(TEST_PYTHON NAMES python3 PATHS /usr/bin NO_DEFAULT_PATH REQUIRED)
endif()

add_executable(endpoint_unit_tests
  endpoint/unit/classify_test.cpp
  endpoint/unit/backoff_test.cpp
  endpoint/unit/settings_test.cpp)
target_compile_options(endpoint_unit_tests PRIVATE ${RELAYTOOL_WARNINGS})
target_link_libraries(endpoint_unit_tests PRIVATE endpoint_core GTest::gtest_main)
gtest_discover_tests(endpoint_unit_tests DISCOVERY_TIMEOUT 30 PROPERTIES LABELS "endpoint;unit")

set(endpoint_env "RELAYTOOL_ENDPOINT_BIN=$<TARGET_FILE:relaytool-endpoint>"
                 "RELAYTOOL_TESTRELAY_BIN=$<TARGET_FILE:relaytool-testrelay>"
                 "RELAYTOOL_BIN=$<TARGET_FILE:relaytool>"
                 "PDEATH_BIN=$<TARGET_FILE:pdeath>")

add_test(NAME endpoint_process
         COMMAND ${TEST_PYTHON} ${CMAKE_CURRENT_LIST_DIR}/endpoint/test_endpoint_process.py -v)
set_tests_properties(endpoint_process PROPERTIES
  ENVIRONMENT "${endpoint_env}" LABELS endpoint TIMEOUT 180)

add_test(NAME endpoint_end_to_end
         COMMAND ${TEST_PYTHON} ${CMAKE_CURRENT_LIST_DIR}/endpoint/test_endpoint_relay.py -v)
set_tests_properties(endpoint_end_to_end PROPERTIES
  ENVIRONMENT "${endpoint_env}" LABELS "endpoint;e2e" TIMEOUT 300
  SKIP_REGULAR_EXPRESSION "real end-to-end tests skipped")

add_test(NAME endpoint_network
         COMMAND ${TEST_PYTHON} ${CMAKE_CURRENT_LIST_DIR}/endpoint/test_endpoint_network.py -v)
set_tests_properties(endpoint_network PROPERTIES
  ENVIRONMENT "${endpoint_env}" LABELS "endpoint;e2e" TIMEOUT 300
  SKIP_REGULAR_EXPRESSION "tests skipped because")

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
