#!/usr/bin/env bash
# The whole test suite once more, built with AddressSanitizer and
# UndefinedBehaviorSanitizer (build-asan, cmake --preset asan): the unit
# tests and every process-level test, whose tool, watcher and test-relay
# programs are the sanitized builds.
#
# Every finding fails: a sanitized process that reports exits with status 86
# (no status of the tool's own). AddressSanitizer and LeakSanitizer reports
# are also written to build-asan/sanitizer-reports/, so one from a process
# whose exit status a test does not look at still fails this script (gcc's
# UBSan runtime ignores log_path next to ASan: its reports go to standard
# error, and the exit status alone carries them). Reports are named after
# the program and its pid. An empty one (a process ended between opening the
# file and writing to it) holds no finding: it is listed, and fails nothing.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/install-deps.sh

jobs=$(nproc 2>/dev/null || echo 2)
cmake --preset asan >/dev/null
cmake --build build-asan -j"$jobs"

reports="$PWD/build-asan/sanitizer-reports"
rm -rf "$reports"
mkdir -p "$reports"
common="exitcode=86:log_path=$reports/report:log_exe_name=1:print_stacktrace=1"
export ASAN_OPTIONS="$common:detect_leaks=1:strict_string_checks=1:detect_stack_use_after_return=1:check_initialization_order=1"
export UBSAN_OPTIONS="$common:halt_on_error=1"
export LSAN_OPTIONS="exitcode=86"

status=0
ctest --test-dir build-asan --output-on-failure -j"$jobs" || status=$?

shopt -s nullglob
found=()
for f in "$reports"/report*; do
  if [[ -s $f ]]; then found+=("$f"); else echo "empty sanitizer report, no finding: $f"; fi
done
if [[ ${#found[@]} -gt 0 ]]; then
  echo "sanitizer reports (${#found[@]}):"
  for f in "${found[@]}"; do
    echo "----- $f"
    cat "$f"
  done
  status=1
fi
exit "$status"
