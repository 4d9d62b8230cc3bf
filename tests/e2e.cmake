# End-to-end tests: the real tool, pdeath, ssh and sshd
# (relay/sshd_fixture.py) and Debian's GridFTP server, which the tool starts
# for each forwarded connection; test_gridftp.py adds relaytool-endpoint, a
# second GridFTP server and Debian's client, in network namespaces.
# Included from tests/CMakeLists.txt. They need root, openssh-server and the
# GridFTP packages; without them they report themselves as skipped.
if(NOT TEST_PYTHON)
  find_program(TEST_PYTHON NAMES python3 PATHS /usr/bin NO_DEFAULT_PATH REQUIRED)
endif()

add_test(NAME relaytool_end_to_end
         COMMAND ${TEST_PYTHON} ${CMAKE_CURRENT_LIST_DIR}/e2e/test_end_to_end.py -v)
set_tests_properties(relaytool_end_to_end PROPERTIES
  ENVIRONMENT "RELAYTOOL_TESTRELAY_BIN=$<TARGET_FILE:relaytool-testrelay>;RELAYTOOL_BIN=$<TARGET_FILE:relaytool>;PDEATH_BIN=$<TARGET_FILE:pdeath>"
  LABELS e2e
  TIMEOUT 300
  SKIP_REGULAR_EXPRESSION "real end-to-end tests skipped")

if(TARGET relaytool-endpoint)
  add_test(NAME relaytool_gridftp
           COMMAND ${TEST_PYTHON} ${CMAKE_CURRENT_LIST_DIR}/e2e/test_gridftp.py -v)
  set_tests_properties(relaytool_gridftp PROPERTIES
    ENVIRONMENT "RELAYTOOL_ENDPOINT_BIN=$<TARGET_FILE:relaytool-endpoint>;RELAYTOOL_TESTRELAY_BIN=$<TARGET_FILE:relaytool-testrelay>;PDEATH_BIN=$<TARGET_FILE:pdeath>"
    LABELS "e2e;gridftp"
    TIMEOUT 300
    SKIP_REGULAR_EXPRESSION "GridFTP end-to-end tests skipped")
endif()
