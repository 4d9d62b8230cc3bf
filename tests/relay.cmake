# Tests of the local relay (relay/relay_server.py and relay/sshd_fixture.py).
# Included from tests/CMakeLists.txt.  They need Debian's python3 with
# python3-cryptography; the real-sshd half also needs root and openssh-server
# and reports itself as skipped without them.
set(RELAY_TEST_SCRIPT ${CMAKE_CURRENT_SOURCE_DIR}/test_relay_server.py)

add_test(NAME relay_server_protocol
         COMMAND /usr/bin/python3 ${RELAY_TEST_SCRIPT} -v ProtocolTests)
set_tests_properties(relay_server_protocol PROPERTIES
                     TIMEOUT 120
                     LABELS relay)

add_test(NAME relay_server_sshd
         COMMAND /usr/bin/python3 ${RELAY_TEST_SCRIPT} -v RealSshdTests)
set_tests_properties(relay_server_sshd PROPERTIES
                     TIMEOUT 120
                     LABELS relay
                     SKIP_REGULAR_EXPRESSION "end-to-end tests skipped")
