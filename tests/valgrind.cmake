# Memcheck runs of the relay tool (tests/valgrind_check.sh). Included from
# tests/CMakeLists.txt. Sanitized programs cannot run under valgrind, so
# sanitizer and fuzz builds report these tests as skipped.
set(RELAYTOOL_VALGRIND_CHECK ${CMAKE_CURRENT_LIST_DIR}/valgrind_check.sh)

# relaytool_valgrind_test(<name> [EXPECT_STATUS <n>] [ENVIRONMENT <var=value>...]
#                         COMMAND <program> <args>...)
# A test that runs the command under memcheck and passes when memcheck finds
# no error and no definitely lost block and the command exits with <n>
# (default 0).
function(relaytool_valgrind_test name)
  cmake_parse_arguments(PARSE_ARGV 1 vg "" "EXPECT_STATUS" "ENVIRONMENT;COMMAND")
  if(NOT DEFINED vg_EXPECT_STATUS)
    set(vg_EXPECT_STATUS 0)
  endif()
  set(skip)
  if(RELAYTOOL_SANITIZE OR RELAYTOOL_FUZZ)
    set(skip --skip "sanitizer build: valgrind does not run sanitized programs")
  endif()
  add_test(NAME ${name}
           COMMAND bash ${RELAYTOOL_VALGRIND_CHECK} --expect-status ${vg_EXPECT_STATUS} ${skip}
                   -- ${vg_COMMAND})
  set_tests_properties(${name} PROPERTIES SKIP_RETURN_CODE 77 TIMEOUT 300 LABELS valgrind
                                          ENVIRONMENT "${vg_ENVIRONMENT}")
endfunction()

# The built-in self-check of the string library.
relaytool_valgrind_test(valgrind_selfcheck
                        ENVIRONMENT HVN_RELAYTOOL_TEST=1
                        COMMAND $<TARGET_FILE:relaytool>)

# Hook for the scripted-login run: process-level tests can start the tool as
#   bash ${RELAYTOOL_VALGRIND_CHECK} --wrap <logdir> -- <relaytool>
# (same pid and exit status; memcheck findings give exit status 97 and a
# report in <logdir>/memcheck.<pid>.log).
