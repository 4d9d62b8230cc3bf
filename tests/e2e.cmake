# End-to-end tests on the lab (lab/): the real tool, pdeath, ssh and sshd
# with the reference relay, Debian's GridFTP server and client, and
# relaytool-endpoint, in network namespaces of the lab's own.
# Included from tests/CMakeLists.txt. They need root, openssh-server and the
# GridFTP packages; without them they report themselves as skipped.
if(NOT TARGET relaytool-endpoint)
  return()
endif()
if(NOT TEST_PYTHON)
  find_program(TEST_PYTHON NAMES python3 PATHS /usr/bin NO_DEFAULT_PATH REQUIRED)
endif()

foreach(name real_parts endpoint_relay)
  add_test(NAME e2e_${name}
           COMMAND ${TEST_PYTHON} ${CMAKE_CURRENT_LIST_DIR}/e2e/test_${name}.py -v)
  set_tests_properties(e2e_${name} PROPERTIES
    ENVIRONMENT "RELAYTOOL_ENDPOINT_BIN=$<TARGET_FILE:relaytool-endpoint>;RELAYTOOL_TESTRELAY_BIN=$<TARGET_FILE:relaytool-testrelay>;PDEATH_BIN=$<TARGET_FILE:pdeath>"
    LABELS e2e
    TIMEOUT 300
    SKIP_REGULAR_EXPRESSION "real end-to-end tests skipped")
endforeach()
