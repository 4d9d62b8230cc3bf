# Tests of the local relay (relay/relay_server.py, relay_ca.py) on pipes.
# Included from tests/CMakeLists.txt.  They need Debian's python3 with
# python3-cryptography, and the certificate tests the openssl command.
# The relay behind the real sshd (relay/sshd_fixture.py) is exercised by the
# end-to-end tests (tests/e2e.cmake).
set(RELAY_TEST_SCRIPT ${CMAKE_CURRENT_SOURCE_DIR}/test_relay_server.py)

add_test(NAME relay_server_protocol
         COMMAND /usr/bin/python3 ${RELAY_TEST_SCRIPT} -v ProtocolTests)
set_tests_properties(relay_server_protocol PROPERTIES
                     TIMEOUT 120
                     LABELS relay)

# The relay's certificate authority, judged by the openssl command-line tool.
add_test(NAME relay_server_authority
         COMMAND /usr/bin/python3 ${CMAKE_CURRENT_SOURCE_DIR}/test_relay_ca.py -v)
set_tests_properties(relay_server_authority PROPERTIES
                     TIMEOUT 120
                     LABELS relay)
