#!/usr/bin/env bash
# Checks that an ELF program was built with the hardening flags: PIE, no text
# relocations, full RELRO, a non-executable stack, the stack protector and
# fortified libc calls.
# Usage: check_hardening.sh [--no-fortify] [--no-canary] [--skip REASON] PROGRAM
#   --no-fortify  no fortify check (builds without optimisation)
#   --no-canary   no stack protector check (for a program none of whose
#                 functions needs a canary, which imports no __stack_chk_fail)
#   --skip        report REASON and exit 77, which CTest shows as skipped
set -uo pipefail
export LC_ALL=C

fortify=1
canary=1
while [[ $# -gt 1 ]]; do
  case "$1" in
    --no-fortify) fortify=0 ;;
    --no-canary) canary=0 ;;
    --skip) echo "skipped: $2"; exit 77 ;;
    '') ;;  # an option that CMake's generator expression left empty
    *) break ;;
  esac
  shift
done
[[ $# -eq 1 ]] || { echo "usage: $0 [--no-fortify] [--no-canary] [--skip REASON] PROGRAM" >&2; exit 2; }

header=$(readelf -h -W "$1")
dynamic=$(readelf -d -W "$1")
segments=$(readelf -l -W "$1")
# The imports: undefined dynamic symbols, version suffixes cut off.
imports=$(readelf --dyn-syms -W "$1" | awk '$7 == "UND" { sub(/@.*/, "", $8); print $8 }')

failures=0
check() {  # check yes|no WHAT PATTERN TEXT: whether TEXT must match the extended regex PATTERN
  if grep -Eq -- "$3" <<<"$4"; then found=yes; else found=no; fi
  if [[ $found == "$1" ]]; then echo "ok   $2"; else echo "FAIL $2"; failures=$((failures + 1)); fi
}
check yes "PIE: type DYN" 'Type: +DYN' "$header"
check yes "PIE: FLAGS_1 PIE" '\(FLAGS_1\).* PIE' "$dynamic"
check no "no text relocations" 'TEXTREL' "$dynamic"
check yes "GNU_RELRO segment (-z relro)" 'GNU_RELRO' "$segments"
check yes "BIND_NOW (-z now)" '\(FLAGS\).*BIND_NOW|\(FLAGS_1\).* NOW' "$dynamic"
check no "non-executable stack" 'GNU_STACK.* RWE ' "$segments"
if [[ $canary -eq 1 ]]; then
  check yes "stack protector (__stack_chk_fail)" '^__stack_chk_fail$' "$imports"
fi
if [[ $fortify -eq 1 ]]; then
  check yes "fortified libc calls (__*_chk)" '^__.*_chk$' "$(grep -vx __stack_chk_fail <<<"$imports")"
fi
[[ $failures -eq 0 ]] || { echo "$failures hardening check(s) failed"; exit 1; }
echo "all hardening checks passed"
