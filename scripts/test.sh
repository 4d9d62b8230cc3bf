#!/usr/bin/env bash
# The whole test suite, as a newcomer and CI run it: installs what is
# missing, then
#   1. builds (hardened) and runs every test with CTest,
#   2. builds the Debian package and checks it, also installed and running
#      through the local relay,
#   3. runs the static checks (clang-format, clang-tidy, cppcheck),
#   4. builds with AddressSanitizer + UndefinedBehaviorSanitizer and runs
#      every test again,
#   5. runs each fuzz target for a bounded time (FUZZ_SECONDS, default 30).
# Stops at the first step that fails.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/install-deps.sh

jobs=$(nproc 2>/dev/null || echo 2)
started=$SECONDS
stage() { printf '\n=== %s (at %ds)\n' "$1" $((SECONDS - started)); }

stage "build and test"
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo
cmake --build build -j"$jobs"
ctest --test-dir build --output-on-failure -j"$jobs"

stage "Debian package"
bash scripts/package.sh

stage "static checks"
bash scripts/static-checks.sh build

stage "sanitizer build and test"
bash scripts/test-sanitize.sh

stage "fuzzing"
bash scripts/fuzz.sh "${FUZZ_SECONDS:-30}"

stage "all passed"
