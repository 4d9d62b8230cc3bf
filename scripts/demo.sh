#!/usr/bin/env bash
# A complete run of the relay tool on this machine, against the local relay:
# installs what is missing, builds, and then (scripts/demo_transfers.py) makes
# two network namespaces, starts the relay in one and an endpoint under
# relaytool-endpoint in the other, which accepts no incoming connection; sets
# the endpoint up with a one-time code, and moves a file out of it and one
# into it with Debian's GridFTP server and client, certificates on both
# sides; then tears everything down again, namespaces included.
#
# Needs root on Debian 12 (namespaces, the relay's own login account behind a
# private sshd, and the endpoint's user account).  Exits 0 when every step
# worked.
set -euo pipefail
cd "$(dirname "$0")/.."
REPO=$PWD

step() { printf '\n==> %s\n' "$1"; shift; for l in "$@"; do printf '    %s\n' "$l"; done; }
fail() { printf '\ndemo FAILED: %s\n' "$*" >&2; exit 1; }

if [[ $(id -u) -ne 0 ]]; then
  echo "demo: run as root (sudo $0): the demo makes network namespaces, and" \
       "the local relay needs its own login account and a private sshd" >&2
  exit 1
fi

# --- 1. packages ------------------------------------------------------------
step "1. Installing missing Debian packages" \
     "(those debian/control lists for building and testing, without the" \
     "developer checks; nothing is touched if all are there)"
bash scripts/install-deps.sh --profile pkg.relaytool.nodevtools

# --- 2. build ---------------------------------------------------------------
step "2. Building into build/" \
     "relaytool-testrelay: the tool built to trust the test relay's host keys" \
     "(tests/keys); the default build/src/relaytool trusts no test key." \
     "pdeath: the watcher that runs ssh and ends it when the tool dies." \
     "relaytool-endpoint: the unattended parent that runs the tool."
build_log=$(mktemp /tmp/relaytool-demo-build.XXXXXX.log)
if ! { cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo &&
       cmake --build build -j"$(nproc 2>/dev/null || echo 2)" \
         --target relaytool-testrelay pdeath relaytool-endpoint; } >"$build_log" 2>&1; then
  tail -n 30 "$build_log"
  fail "the build failed; whole log in $build_log"
fi
rm -f "$build_log"

# --- 3 to 10: the endpoint serves files ---------------------------------------
# Everything from here on is made and removed by demo_transfers.py, also when
# it fails or is interrupted.
if /usr/bin/python3 scripts/demo_transfers.py "$REPO/build"; then
  printf '\ndemo finished: everything worked, nothing left running\n'
else
  rc=$?
  printf '\ndemo FAILED (status %d); see the messages above\n' "$rc" >&2
  exit "$rc"
fi
