#!/usr/bin/env bash
# The whole test suite, as a newcomer and CI run it: installs what is
# missing, builds, and runs every test with CTest.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/install-deps.sh \
  cmake make g++ pkg-config libssl-dev libgtest-dev \
  openssh-client openssh-server python3 python3-cryptography procps

jobs=$(nproc 2>/dev/null || echo 2)

cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo
cmake --build build -j"$jobs"
ctest --test-dir build --output-on-failure -j"$jobs"
