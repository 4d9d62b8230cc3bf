# End-to-end tests of the relay tool: the real tool, pdeath, ssh and sshd
# (relay/sshd_fixture.py), with a stand-in GridFTP worker; and the
# credentials that such a setup or upgrade writes, in TLS handshakes with
# the openssl tool.  Included from tests/CMakeLists.txt.  They need root and
# openssh-server; without them they report themselves as skipped.
if(NOT TEST_PYTHON)
  find_program(TEST_PYTHON NAMES python3 PATHS /usr/bin NO_DEFAULT_PATH REQUIRED)
endif()

foreach(name IN ITEMS end_to_end credentials)
  add_test(NAME relaytool_${name}
           COMMAND ${TEST_PYTHON} ${CMAKE_CURRENT_LIST_DIR}/e2e/test_${name}.py -v)
  set_tests_properties(relaytool_${name} PROPERTIES
    ENVIRONMENT "RELAYTOOL_TESTRELAY_BIN=$<TARGET_FILE:relaytool-testrelay>;RELAYTOOL_BIN=$<TARGET_FILE:relaytool>;PDEATH_BIN=$<TARGET_FILE:pdeath>"
    LABELS e2e
    TIMEOUT 300
    SKIP_REGULAR_EXPRESSION "real end-to-end tests skipped")
endforeach()
