#!/usr/bin/env bash
# Installs the Debian packages that building and testing need, when missing.
#
#   install-deps.sh [--profile NAME]...     what debian/control's Build-Depends
#                                           lists, for these build profiles
#   install-deps.sh PACKAGE...              just these packages
#
# debian/control is the one list: the package build, the README's two
# commands and every script install from it. Build profiles work as in
# dpkg: "nocheck" leaves out what only the tests need, and
# "pkg.relaytool.nodevtools" the developer checks the demo does without.
# build-essential comes too, as for every Debian source package.
#
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

control="$(dirname "$0")/../debian/control"

# Whether a restriction list such as "<!nocheck !pkg.x.y>" holds for the
# active profiles: every term must (a "!" term: must not be active).
restriction_holds() {
  local term
  for term in $1; do
    if [[ $term == !* ]]; then
      [[ " ${profiles[*]} " != *" ${term#!} "* ]] || return 1
    else
      [[ " ${profiles[*]} " == *" $term "* ]] || return 1
    fi
  done
}

# The packages of Build-Depends for the active profiles.
build_depends() {
  local field entry name lists list ok
  field=$(awk '/^Build-Depends:/ { on = 1; sub(/^Build-Depends:/, ""); print; next }
               on && /^[ \t]/  { print; next }
               on && /^#/      { next }
                               { on = 0 }' "$control" | tr '\n' ' ')
  IFS=',' read -ra entries <<<"$field"
  for entry in "${entries[@]}"; do
    entry=${entry%%|*}                      # the first of alternatives
    name=$(awk '{ print $1 }' <<<"$entry")
    [[ -n $name ]] || continue
    lists=$(grep -o '<[^>]*>' <<<"$entry" | tr -d '<>' || true)
    if [[ -n $lists ]]; then                # any list may hold
      ok=""
      while read -r list; do
        if restriction_holds "$list"; then ok=1; fi
      done <<<"$lists"
      [[ -n $ok ]] || continue
    fi
    [[ $name == debhelper-compat ]] && name=debhelper
    echo "$name"
  done
  echo build-essential
}

profiles=()
wanted=()
while [[ $# -gt 0 ]]; do
  case $1 in
    --profile) profiles+=("$2"); shift 2 ;;
    --profile=*) profiles+=("${1#--profile=}"); shift ;;
    -*) echo "usage: install-deps.sh [--profile NAME]... | PACKAGE..." >&2; exit 2 ;;
    *) wanted+=("$1"); shift ;;
  esac
done
if [[ ${#wanted[@]} -eq 0 ]]; then
  mapfile -t wanted < <(build_depends)
fi

missing=()
for pkg in "${wanted[@]}"; do
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
