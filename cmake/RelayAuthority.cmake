# The relay's certificate authority is deployment data, like the relay's host
# keys: it signs the endpoint's GridFTP certificate and the certificates of
# the users and servers that may reach it, so the endpoint's GridFTP server
# must trust it and nothing else.
#
#   RELAYTOOL_RELAY_AUTHORITY  a PEM file with the authority's CA
#       certificate. When given, it is checked here and installed as a trust
#       directory in OpenSSL's hashed layout, ${RELAYTOOL_ETC_DIR}/trust:
#       <hash>.0 and the <hash>.signing_policy without which Globus GSI
#       refuses every certificate the authority signed. relaytool-endpoint
#       gives that directory to the GridFTP server unless RELAYTOOL_TRUST_DIR
#       names another. When not given, nothing is installed and the endpoint
#       trusts no relay authority until its operator names one.
#
# Sets RELAYTOOL_DEFAULT_TRUST_DIR (empty without an authority) for
# relaytool-endpoint's build_info.h.
set(RELAYTOOL_RELAY_AUTHORITY "" CACHE FILEPATH
    "The relay's CA certificate (PEM), installed as the trust directory ${RELAYTOOL_ETC_DIR}/trust")
set(RELAYTOOL_DEFAULT_TRUST_DIR "")

# Runs openssl x509 on the authority's file; fails the configuration with
# openssl's own words when it refuses.
function(relay_authority_query out)
  execute_process(COMMAND "${RELAYTOOL_OPENSSL}" x509 -in "${RELAYTOOL_RELAY_AUTHORITY}" -noout ${ARGN}
                  OUTPUT_VARIABLE text ERROR_VARIABLE error RESULT_VARIABLE status
                  OUTPUT_STRIP_TRAILING_WHITESPACE)
  if(NOT status EQUAL 0)
    string(JOIN " " options ${ARGN})
    message(FATAL_ERROR "RELAYTOOL_RELAY_AUTHORITY: ${RELAYTOOL_RELAY_AUTHORITY} fails 'openssl x509 ${options}': ${text} ${error}")
  endif()
  set(${out} "${text}" PARENT_SCOPE)
endfunction()

if(RELAYTOOL_RELAY_AUTHORITY)
  if(NOT EXISTS "${RELAYTOOL_RELAY_AUTHORITY}" OR IS_DIRECTORY "${RELAYTOOL_RELAY_AUTHORITY}")
    message(FATAL_ERROR "RELAYTOOL_RELAY_AUTHORITY: no such file: ${RELAYTOOL_RELAY_AUTHORITY}")
  endif()
  find_program(RELAYTOOL_OPENSSL openssl)
  if(NOT RELAYTOOL_OPENSSL)
    message(FATAL_ERROR "RELAYTOOL_RELAY_AUTHORITY needs the openssl program (Debian's openssl) to check the certificate and find its hashed name")
  endif()
  relay_authority_query(constraints -ext basicConstraints)
  if(NOT constraints MATCHES "CA:TRUE")
    message(FATAL_ERROR "RELAYTOOL_RELAY_AUTHORITY: ${RELAYTOOL_RELAY_AUTHORITY} is not a CA certificate (no basic constraint CA:TRUE)")
  endif()
  relay_authority_query(unused -checkend 0)  # an expired authority trusts nobody
  relay_authority_query(hash -subject_hash)
  relay_authority_query(subject -subject -nameopt compat)
  string(REGEX REPLACE "^subject=" "" subject "${subject}")
  if(NOT subject MATCHES "^/" OR subject MATCHES "'")
    message(FATAL_ERROR "RELAYTOOL_RELAY_AUTHORITY: cannot write a signing policy for the subject '${subject}'")
  endif()
  file(REAL_PATH "${RELAYTOOL_RELAY_AUTHORITY}" authority_path)
  if(authority_path MATCHES "^${PROJECT_SOURCE_DIR}/tests/")
    message(WARNING "RELAYTOOL_RELAY_AUTHORITY is a test authority whose key is public: "
                    "build packages with it for tests only")
  endif()

  # The certificate alone (no text around it), and a policy that lets the
  # authority sign any subject: who may log in is the gridmap's business.
  set(trust_build_dir "${CMAKE_BINARY_DIR}/relay-trust")
  file(MAKE_DIRECTORY "${trust_build_dir}")
  execute_process(COMMAND "${RELAYTOOL_OPENSSL}" x509 -in "${RELAYTOOL_RELAY_AUTHORITY}"
                          -out "${trust_build_dir}/${hash}.0"
                  RESULT_VARIABLE status)
  if(NOT status EQUAL 0)
    message(FATAL_ERROR "RELAYTOOL_RELAY_AUTHORITY: cannot copy the certificate")
  endif()
  file(WRITE "${trust_build_dir}/${hash}.signing_policy"
       "# Globus signing policy of the relay's authority, written by the build\n"
       "access_id_CA      X509         '${subject}'\n"
       "pos_rights        globus        CA:sign\n"
       "cond_subjects     globus       '\"*\"'\n")
  install(FILES "${trust_build_dir}/${hash}.0" "${trust_build_dir}/${hash}.signing_policy"
          DESTINATION "${RELAYTOOL_ETC_DIR}/trust"
          PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
  set(RELAYTOOL_DEFAULT_TRUST_DIR "${RELAYTOOL_ETC_DIR}/trust")
endif()
