# Process-level tests of the relay tool: each test file runs the built tool
# with a scripted relay in place of the watcher (tool/standin_relay.py) and a
# stand-in GridFTP worker (tool/standin_worker.py).
set(TOOL_TESTS startup protocol workers)
foreach(name IN LISTS TOOL_TESTS)
  add_test(NAME tool_${name}
           COMMAND ${TEST_PYTHON} ${CMAKE_CURRENT_SOURCE_DIR}/tool/test_${name}.py)
  set_tests_properties(tool_${name} PROPERTIES
    ENVIRONMENT "RELAYTOOL=$<TARGET_FILE:relaytool>;RELAYTOOL_TESTRELAY=$<TARGET_FILE:relaytool-testrelay>"
    TIMEOUT 120
    LABELS tool)
endforeach()
