# Build flavours, chosen at configure time. Included by the top-level
# CMakeLists.txt before any target exists, so the flags set here reach every
# target: the library, the programs and the tests.
#
#   RELAYTOOL_SANITIZE  AddressSanitizer + UndefinedBehaviorSanitizer (build-asan)
#   RELAYTOOL_HARDEN    Debian's hardening flags; the normal build's default
#   RELAYTOOL_FUZZ      the libFuzzer targets in fuzz/ (clang only; build-fuzz)
#
# The sanitizer and fuzz flavours switch the hardening flags off: fortified
# libc calls bypass the sanitizers' interceptors, and the hardened binary is
# checked (tests/hardening.cmake) in the normal build only.

option(RELAYTOOL_SANITIZE "Build everything with AddressSanitizer and UndefinedBehaviorSanitizer" OFF)
option(RELAYTOOL_HARDEN "Hardened build: stack protector, fortified libc calls, PIE, full RELRO" ON)
option(RELAYTOOL_FUZZ "Build the libFuzzer targets in fuzz/ (needs clang)" OFF)

if(RELAYTOOL_SANITIZE)
  message(STATUS "relaytool flavour: AddressSanitizer + UndefinedBehaviorSanitizer")
  # Every finding is fatal: UBSan would otherwise report and carry on, and a
  # test whose process carries on can still pass.
  add_compile_options(-fsanitize=address,undefined -fno-sanitize-recover=all -fno-omit-frame-pointer)
  add_link_options(-fsanitize=address,undefined)
endif()

if(RELAYTOOL_FUZZ AND NOT CMAKE_CXX_COMPILER_ID MATCHES "Clang")
  message(FATAL_ERROR "RELAYTOOL_FUZZ needs clang (libFuzzer): configure with "
                      "-DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ (or: cmake --preset fuzz)")
endif()

# Whether the hardening flags are in force; tests/hardening.cmake reads it.
set(RELAYTOOL_HARDENED OFF)
if(RELAYTOOL_HARDEN AND NOT RELAYTOOL_SANITIZE AND NOT RELAYTOOL_FUZZ)
  set(RELAYTOOL_HARDENED ON)
  message(STATUS "relaytool flavour: hardened")
  # What `DEB_BUILD_MAINT_OPTIONS=hardening=+all dpkg-buildflags` prints on
  # Debian 12 (dpkg 1.21): -fstack-protector-strong, -Wformat
  # -Werror=format-security, -D_FORTIFY_SOURCE=2, -Wl,-z,relro -Wl,-z,now,
  # and PIE, which that gcc already defaults to and which is made explicit
  # here for any compiler. That dpkg adds neither -fstack-clash-protection
  # nor -fcf-protection, so they are not added here either.
  add_compile_options(-fstack-protector-strong -Wformat -Werror=format-security)
  # _FORTIFY_SOURCE works only with optimisation (and glibc warns, which
  # -Werror turns into an error, without it), so not for Debug builds.
  add_compile_options("$<$<CONFIG:Release,RelWithDebInfo,MinSizeRel>:-U_FORTIFY_SOURCE;-D_FORTIFY_SOURCE=2>")
  set(CMAKE_POSITION_INDEPENDENT_CODE ON)
  include(CheckPIESupported)
  check_pie_supported(LANGUAGES C CXX)
  add_link_options(LINKER:-z,relro LINKER:-z,now)
elseif(RELAYTOOL_HARDEN)
  message(STATUS "relaytool flavour: hardening flags left out of the sanitizer/fuzz build")
endif()
