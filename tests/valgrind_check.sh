#!/usr/bin/env bash
# Runs a program under valgrind's memcheck; any memory error or definitely
# lost block fails. Valgrind's report goes to a log file, so the program's
# own standard output and error stay as they are.
#
# Usage:
#   valgrind_check.sh [--expect-status N] [--skip REASON] -- PROGRAM [ARGS...]
#       runs PROGRAM and exits 0 only when memcheck found nothing and PROGRAM
#       exited with status N (default 0); otherwise prints the report and
#       exits 1. --skip reports REASON and exits 77 (CTest: skipped).
#   valgrind_check.sh --wrap LOGDIR -- PROGRAM [ARGS...]
#       for process-level tests that start the program themselves: replaces
#       itself with valgrind (same pid, signals reach the program), keeps the
#       program's exit status, turns memcheck findings into exit status 97 and
#       writes the report to LOGDIR/memcheck.<pid>.log.
set -uo pipefail

ERROR_STATUS=97  # not a status of the relay tool's own (0, 1, 2)
expect=0
wrap_dir=""
while [[ $# -gt 0 ]]; do
  case "$1" in
    --expect-status) expect="$2"; shift 2 ;;
    --skip) echo "skipped: $2"; exit 77 ;;
    --wrap) wrap_dir="$2"; shift 2 ;;
    --) shift; break ;;
    *) break ;;
  esac
done
[[ $# -gt 0 ]] || { echo "usage: $0 [--expect-status N] [--skip REASON] [--wrap LOGDIR] -- PROGRAM [ARGS...]" >&2; exit 2; }
command -v valgrind >/dev/null || { echo "valgrind not found (Debian package valgrind)" >&2; exit 1; }

memcheck=(valgrind --tool=memcheck "--error-exitcode=$ERROR_STATUS"
          --leak-check=full --errors-for-leak-kinds=definite --show-leak-kinds=definite
          --num-callers=30)

if [[ -n "$wrap_dir" ]]; then
  mkdir -p "$wrap_dir"
  exec "${memcheck[@]}" --log-file="$wrap_dir/memcheck.%p.log" "$@"
fi

log=$(mktemp)
trap 'rm -f "$log"' EXIT
"${memcheck[@]}" --log-file="$log" "$@"
status=$?
summary=$(grep -E 'ERROR SUMMARY|definitely lost' "$log" | sed 's/^==[0-9]*== //')
if [[ $status -eq $ERROR_STATUS ]] || ! grep -q 'ERROR SUMMARY: 0 errors' "$log"; then
  cat "$log"
  echo "FAIL: memcheck found errors in: $*"
  exit 1
fi
if [[ $status -ne $expect ]]; then
  cat "$log"
  echo "FAIL: exit status $status, expected $expect: $*"
  exit 1
fi
echo "$summary"
echo "memcheck clean: $*"
