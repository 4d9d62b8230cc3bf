# Checks of what people read: the manual pages must be clean under mandoc's
# linter (Debian's mandoc; any message at all, style suggestions included,
# fails), and every place that shows the version must show the project's.
# Included from tests/CMakeLists.txt.
find_program(MANDOC mandoc)
if(RELAYTOOL_MANPAGES)
  if(MANDOC)
    add_test(NAME manpages COMMAND sh -c "out=$(\"$0\" -T lint \"$@\" 2>&1); printf '%s\\n' \"$out\"; [ -z \"$out\" ]"
                            ${MANDOC} ${RELAYTOOL_MANPAGES})
  else()
    add_test(NAME manpages COMMAND sh -c "echo 'mandoc not installed: skipped'; exit 77")
    set_tests_properties(manpages PROPERTIES SKIP_RETURN_CODE 77)
  endif()
  set_tests_properties(manpages PROPERTIES LABELS docs TIMEOUT 60)
endif()

add_test(NAME version
         COMMAND bash ${CMAKE_CURRENT_LIST_DIR}/check_version.sh ${PROJECT_VERSION} ${PROJECT_SOURCE_DIR}
                 $<TARGET_FILE:pdeath> $<TARGET_FILE:relaytool-endpoint> ${RELAYTOOL_MANPAGES})
set_tests_properties(version PROPERTIES LABELS docs TIMEOUT 60)
