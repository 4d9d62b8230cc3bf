#!/usr/bin/env bash
# Installs the Debian packages named on the command line that are missing.
# Runs apt-get only when something is missing, so a prepared machine is not
# touched. Needs root (or sudo) on a machine that lacks a package.
set -euo pipefail

missing=()
for pkg in "$@"; do
  status=$(dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null || true)
  [[ "$status" == "install ok installed" ]] || missing+=("$pkg")
done
[[ ${#missing[@]} -eq 0 ]] && exit 0

echo "installing: ${missing[*]}"
sudo=()
[[ $(id -u) -eq 0 ]] || sudo=(sudo)
export DEBIAN_FRONTEND=noninteractive
"${sudo[@]}" apt-get update -qq
"${sudo[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}"
