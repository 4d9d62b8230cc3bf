#!/usr/bin/env bash
# Static checks of the project's C++ code: formatting (.clang-format),
# clang-tidy (.clang-tidy) and cppcheck. Needs a configured build directory
# (for compile_commands.json); fails on any finding.
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build}

bash scripts/install-deps.sh

mapfile -t sources < <(git ls-files '*.cpp' '*.h' 2>/dev/null || find lib src pdeath endpoint tests fuzz -name '*.cpp' -o -name '*.h')
mapfile -t units < <(printf '%s\n' "${sources[@]}" | grep -E '^(lib|src|pdeath|endpoint)/.*\.cpp$')

echo "== clang-format (${#sources[@]} files)"
clang-format --dry-run --Werror "${sources[@]}"

echo "== clang-tidy (${#units[@]} files)"
[[ -f "$build/compile_commands.json" ]] || cmake -S . -B "$build" >/dev/null
if ! out=$(clang-tidy -p "$build" --quiet "${units[@]}" 2>&1); then
  printf '%s\n' "$out" | grep -v -E '^[0-9]+ warnings? (generated|treated as errors)\.?$'
  exit 1
fi

echo "== cppcheck"
# Strings taken by value are the library's chosen interface.
cppcheck --enable=warning,performance,portability --std=c++17 --inline-suppr \
  --error-exitcode=1 --quiet --suppress=passedByValue -I lib -I src -I endpoint -I "$build/endpoint" \
  lib src pdeath endpoint

echo "static checks: clean"
