#!/usr/bin/env bash
# Checks that an ELF program was built with the hardening flags:
#   PIE (type DYN and the DF_1_PIE flag), no text relocations, full RELRO
#   (GNU_RELRO + BIND_NOW), a non-executable stack, the stack protector
#   (__stack_chk_fail imported) and fortified libc calls (__*_chk imported).
#   Printf-family calls left unfortified are listed as a note only: the
#   compiler folds a call that it proves safe back to the plain function,
#   and clang++ cannot fortify variadic calls at all.
#
# Usage: check_hardening.sh [--no-fortify] [--skip REASON] PROGRAM...
#   --no-fortify  leave out the fortify check (builds without optimisation)
#   --skip        report REASON and exit 77, which CTest shows as skipped
set -uo pipefail
export LC_ALL=C

fortify=1
programs=()
while [[ $# -gt 0 ]]; do
  case "$1" in
    --no-fortify) fortify=0; shift ;;
    --skip) echo "skipped: $2"; exit 77 ;;
    '') shift ;;  # an option that CMake's generator expression left empty
    *) programs+=("$1"); shift ;;
  esac
done
[[ ${#programs[@]} -gt 0 ]] || { echo "usage: $0 [--no-fortify] [--skip REASON] PROGRAM..." >&2; exit 2; }
command -v readelf >/dev/null || { echo "readelf not found (Debian package binutils)" >&2; exit 1; }

failures=0
fail() { echo "FAIL $1: $2"; failures=$((failures + 1)); }
pass() { echo "ok   $1: $2"; }

# Printf-family functions that have a __*_chk variant.
printf_names='printf|fprintf|sprintf|snprintf|vprintf|vfprintf|vsprintf|vsnprintf|asprintf|vasprintf|dprintf|vdprintf'

for prog in "${programs[@]}"; do
  name=$(basename "$prog")
  if [[ ! -f "$prog" ]]; then
    fail "$name" "no such file: $prog"
    continue
  fi
  header=$(readelf -h -W "$prog") || { fail "$name" "not an ELF file"; continue; }
  dynamic=$(readelf -d -W "$prog")
  segments=$(readelf -l -W "$prog")
  # Undefined dynamic symbols are the imports; version suffixes cut off.
  imports=$(readelf --dyn-syms -W "$prog" | awk '$7 == "UND" { sub(/@.*/, "", $8); print $8 }' | sort -u)

  if grep -Eq 'Type:[[:space:]]+DYN' <<<"$header" && grep -Eq '\(FLAGS_1\).*[[:space:]]PIE' <<<"$dynamic"; then
    pass "$name" "PIE"
  else
    fail "$name" "not a position-independent executable (want type DYN and FLAGS_1 PIE)"
  fi
  if grep -Eq '\(TEXTREL\)|TEXTREL' <<<"$dynamic"; then
    fail "$name" "has text relocations"
  fi
  if grep -q 'GNU_RELRO' <<<"$segments"; then
    pass "$name" "GNU_RELRO"
  else
    fail "$name" "no GNU_RELRO segment (link with -z relro)"
  fi
  if grep -Eq '\(FLAGS\).*BIND_NOW|\(FLAGS_1\).*[[:space:]]NOW' <<<"$dynamic"; then
    pass "$name" "BIND_NOW"
  else
    fail "$name" "no BIND_NOW (link with -z now)"
  fi
  if grep -E 'GNU_STACK' <<<"$segments" | grep -q 'RWE'; then
    fail "$name" "executable stack"
  fi
  if grep -qx '__stack_chk_fail' <<<"$imports"; then
    pass "$name" "stack protector (__stack_chk_fail)"
  else
    fail "$name" "no __stack_chk_fail: not built with -fstack-protector-strong"
  fi
  if [[ $fortify -eq 1 ]]; then
    chk=$(grep -E '^__.*_chk$' <<<"$imports" | grep -vx '__stack_chk_fail' | tr '\n' ' ')
    plain=$(grep -Ex "$printf_names" <<<"$imports" | tr '\n' ' ')
    if [[ -z "$chk" ]]; then
      fail "$name" "no fortified libc calls (__*_chk): not built with -D_FORTIFY_SOURCE=2 and optimisation"
    else
      pass "$name" "fortified: ${chk% }"
      [[ -z "$plain" ]] || echo "note $name: printf-family calls not fortified: ${plain% }"
    fi
  fi
done

if [[ $failures -gt 0 ]]; then
  echo "$failures hardening check(s) failed"
  exit 1
fi
echo "all hardening checks passed"
