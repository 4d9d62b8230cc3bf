#!/usr/bin/env bash
# Installs the Debian packages named on the command line that are missing.
# Runs apt-get only when something is missing, so a prepared machine is not
# touched. Needs root (or sudo) on a machine that lacks a package.
#
# Installing must not change what the host runs: openssh-server, which the
# tests need for the sshd they start themselves on 127.0.0.1, would otherwise
# enable and start the system's own sshd on port 22. So, for the duration of
# the install, a policy-rc.d refuses every service start (removed afterwards,
# also on failure; one the administrator put there is left alone), and a
# system sshd that this run installed is left disabled, not just stopped.
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

policy=/usr/sbin/policy-rc.d
if [[ ! -e $policy ]]; then
  # 101: "action forbidden by policy" to invoke-rc.d and deb-systemd-invoke.
  printf '#!/bin/sh\n# relaytool install-deps.sh: no service starts while installing\nexit 101\n' |
    "${sudo[@]}" tee "$policy" >/dev/null
  "${sudo[@]}" chmod 755 "$policy"
  trap '"${sudo[@]}" rm -f "$policy"' EXIT
fi

export DEBIAN_FRONTEND=noninteractive
"${sudo[@]}" apt-get update -qq
"${sudo[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}"

# The package enables its units for the next boot; undo that for a system
# sshd that was not there before this run. (The tests never use it.)
if [[ " ${missing[*]} " == *" openssh-server "* ]]; then
  if command -v systemctl >/dev/null; then
    "${sudo[@]}" systemctl disable --quiet ssh.service ssh.socket 2>/dev/null || true
  fi
  if command -v update-rc.d >/dev/null && [[ -e /etc/init.d/ssh ]]; then
    "${sudo[@]}" update-rc.d ssh disable >/dev/null 2>&1 || true
  fi
  echo "install-deps: openssh-server installed for the tests; the system's sshd" \
       "was not started and is disabled (systemctl enable --now ssh turns it on)"
fi
