# What an installation holds besides the programs and manual pages:
#
#   RELAYTOOL_ANONYMOUS_KEY  a file with the installation's anonymous SSH
#       private key. When given, it is installed as relay-anonymous.key in
#       RELAYTOOL_ETC_DIR (/etc/relaytool), the read-only directory a parent
#       passes as HVN_GLOBAL_ETC_DIR, mode 0644, as configuration the
#       operator may replace. When not given, nothing is installed there and
#       the operator provides the key.
#   the documentation: README, the parent's contract, the copyright and the
#       release history, into the package's doc folder.
set(RELAYTOOL_ANONYMOUS_KEY "" CACHE FILEPATH
    "The installation's anonymous SSH private key, installed as ${RELAYTOOL_ETC_DIR}/relay-anonymous.key")

if(RELAYTOOL_ANONYMOUS_KEY)
  if(NOT EXISTS "${RELAYTOOL_ANONYMOUS_KEY}" OR IS_DIRECTORY "${RELAYTOOL_ANONYMOUS_KEY}")
    message(FATAL_ERROR "RELAYTOOL_ANONYMOUS_KEY: no such file: ${RELAYTOOL_ANONYMOUS_KEY}")
  endif()
  file(STRINGS "${RELAYTOOL_ANONYMOUS_KEY}" key_head LIMIT_COUNT 1)
  if(NOT key_head MATCHES "^-----BEGIN [A-Z ]*PRIVATE KEY-----$")
    message(FATAL_ERROR "RELAYTOOL_ANONYMOUS_KEY: ${RELAYTOOL_ANONYMOUS_KEY} is not a PEM or OpenSSH private key")
  endif()
  # The test keys' private halves are in this repository: fine for a test
  # package, never for one that is deployed.
  file(REAL_PATH "${RELAYTOOL_ANONYMOUS_KEY}" key_path)
  if(key_path MATCHES "^${PROJECT_SOURCE_DIR}/tests/")
    message(WARNING "RELAYTOOL_ANONYMOUS_KEY is a test key whose private half is public: "
                    "build packages with it for tests only")
  endif()
  install(FILES "${RELAYTOOL_ANONYMOUS_KEY}"
          DESTINATION "${RELAYTOOL_ETC_DIR}"
          RENAME relay-anonymous.key
          PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
endif()

# The release history is debian/changelog, compressed the way Debian's
# tools would (gzip -n: no name or time stamp, so builds are reproducible).
add_custom_command(
  OUTPUT ${CMAKE_CURRENT_BINARY_DIR}/changelog.gz
  COMMAND gzip -9nc ${PROJECT_SOURCE_DIR}/debian/changelog > ${CMAKE_CURRENT_BINARY_DIR}/changelog.gz
  DEPENDS ${PROJECT_SOURCE_DIR}/debian/changelog
  VERBATIM)
add_custom_target(changelog ALL DEPENDS ${CMAKE_CURRENT_BINARY_DIR}/changelog.gz)

install(FILES README.md doc/parent-contract.md DESTINATION ${CMAKE_INSTALL_DOCDIR})
install(FILES debian/copyright ${CMAKE_CURRENT_BINARY_DIR}/changelog.gz DESTINATION ${CMAKE_INSTALL_DOCDIR})
