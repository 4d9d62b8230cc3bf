# The hardened-build check: the shipped programs must carry what the hardening
# flags of cmake/Flavours.cmake promise (PIE, full RELRO, stack protector,
# fortified libc calls). Included from tests/CMakeLists.txt. Sanitizer, fuzz
# and unhardened builds report the test as skipped.
set(_hardening_args)
if(NOT RELAYTOOL_HARDENED)
  if(RELAYTOOL_SANITIZE OR RELAYTOOL_FUZZ)
    set(_hardening_args --skip "sanitizer build: the hardening flags are not used")
  else()
    set(_hardening_args --skip "RELAYTOOL_HARDEN is OFF")
  endif()
endif()
# Every program that ships: the tool and the unattended endpoint. (pdeath
# has no function that needs a stack canary; the package check covers it.)
foreach(program IN ITEMS relaytool relaytool-endpoint)
  if(NOT TARGET ${program})
    continue()
  endif()
  add_test(NAME hardening_${program}
           COMMAND bash ${CMAKE_CURRENT_LIST_DIR}/check_hardening.sh
                   # _FORTIFY_SOURCE needs optimisation: not in Debug builds.
                   $<$<NOT:$<CONFIG:Release,RelWithDebInfo,MinSizeRel>>:--no-fortify>
                   ${_hardening_args}
                   $<TARGET_FILE:${program}>)
  set_tests_properties(hardening_${program} PROPERTIES SKIP_RETURN_CODE 77 TIMEOUT 60 LABELS hardening)
endforeach()
