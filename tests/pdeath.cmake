# Tests for the pdeath watcher, both builds; included from tests/CMakeLists.txt.
if(NOT TEST_PYTHON)
  find_program(TEST_PYTHON NAMES python3 REQUIRED)
endif()

foreach(watcher IN ITEMS pdeath pdeath-portable)
  add_test(NAME ${watcher}
           COMMAND ${TEST_PYTHON} ${CMAKE_CURRENT_LIST_DIR}/test_pdeath.py
                   --pdeath $<TARGET_FILE:${watcher}>)
  set_tests_properties(${watcher} PROPERTIES TIMEOUT 120 LABELS pdeath)
endforeach()
