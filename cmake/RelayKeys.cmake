# The relay servers' public host keys are deployment data, fixed at build time.
# Either set RELAY_KEY and RELAY_BACKUP_KEY directly, or name a file with
# RELAY_KEYS_FILE that holds the two "ssh-rsa ..." lines (first: main key,
# second: backup key; anything after the base64 blob is ignored).
#
# The defaults are placeholders whose private halves exist nowhere: a default
# build trusts no relay at all until a deployment supplies its real keys.
set(RELAY_KEY "ssh-rsa AAAAB3NzaC1yc2EAAAADAQABAAABAQCauoU1c4xLrM0TH2LvDqcg3t4mMt9ZxGLIzHRu/BgbmIRKSbUQU5epD8xY8vjLQkGl5NjQGo4PD1pad51QvhhHD6MunAtM/ruOXFtFIQZ76kFvTB/L89lF89IVjzHCs1hBahuaKNVFE88rjcvznFa8AbqKuIIH3wLreqcRHeTJ8t9Qs5fbFz1Yr4vKugP0ErhYwcqqMlNTHpKliImIhbz3W9l/D8Kvmad8v5JvMTeSMmqmUBo7lYhTmcXgIXrKOgbmNzEMTk8KSWmSpyc1cZ/BACfZaLHj5MFfuqp64FsM5r7mPVRN70KzHL0jCnj4brJBDRla1sUtjip+5+QRGMaT"
    CACHE STRING "Public host key line (ssh-rsa) of the relay server")
set(RELAY_BACKUP_KEY "ssh-rsa AAAAB3NzaC1yc2EAAAADAQABAAABAQChHAJwGrbhQAYm3Mz4DCfSR790XJ1lE5FY4grogwTmRgGdD6FZDHbe/q+he3BgPGpzgbC75EoQtWEQEupnToPnTumi9e4oG5litlaRfD59sjE3nBgFewQif3HvX3kNUvt2JdRa0WrCPSr6RW3vH/kIoUijmuOkme0m/2LGWEWbSSHeQYIMGR+D6hSKXluA8x4BkAzXt98JxHOZCMsVUwswnAofgIqmMrbzHInep+3VZAmWz5TDkQMzm96qk4FenL3dL19Ti8+bdqhL3BDWsR6ygSpGyKiaGcHEh1WYpLRXM/qwL/qioUjNyeYNPy1MExqT2pRLHzjIiGFyeff4rys1"
    CACHE STRING "Public host key line (ssh-rsa) of the relay server's backup key")
set(RELAY_KEYS_FILE "" CACHE FILEPATH "File with the two relay host key lines (overrides RELAY_KEY and RELAY_BACKUP_KEY)")

# Reads the first two fields of each of the first two lines of FILE.
function(relay_keys_from_file file out_main out_backup)
  file(STRINGS "${file}" lines LIMIT_COUNT 2)
  list(LENGTH lines n)
  if(NOT n EQUAL 2)
    message(FATAL_ERROR "${file}: expected two ssh-rsa key lines, found ${n}")
  endif()
  set(keys "")
  foreach(line IN LISTS lines)
    string(REGEX MATCH "^ssh-rsa [A-Za-z0-9+/=]+" key "${line}")
    list(APPEND keys "${key}")
  endforeach()
  list(GET keys 0 k0)
  list(GET keys 1 k1)
  set(${out_main} "${k0}" PARENT_SCOPE)
  set(${out_backup} "${k1}" PARENT_SCOPE)
endfunction()

# A key line is "ssh-rsa", a blank and the base64 of a 2048-bit RSA key with
# exponent 65537: always 380 characters with the same 36-character start.
function(relay_key_check what key)
  string(LENGTH "${key}" len)
  if(NOT len EQUAL 380 OR NOT key MATCHES "^ssh-rsa AAAAB3NzaC1yc2EAAAADAQABAAABAQ[A-Za-z0-9+/]+=*$")
    message(FATAL_ERROR "${what} is not an ssh-rsa line of a 2048-bit key with exponent 65537 (length ${len}): '${key}'")
  endif()
endfunction()

# Writes a source file defining RELAY_KEY and RELAY_BACKUP_KEY.
function(relay_keys_source out main backup)
  relay_key_check("RELAY_KEY" "${main}")
  relay_key_check("RELAY_BACKUP_KEY" "${backup}")
  set(RELAY_KEY_VALUE "${main}")
  set(RELAY_BACKUP_KEY_VALUE "${backup}")
  configure_file("${PROJECT_SOURCE_DIR}/src/relay_keys.cpp.in" "${out}" @ONLY)
endfunction()
