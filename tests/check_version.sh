#!/usr/bin/env bash
# The version has one source, project(... VERSION) in CMakeLists.txt; what
# else shows it must agree: the Debian changelog (the package's version),
# the README, the programs' --version and the manual pages.
#
# Usage: check_version.sh VERSION SOURCE_DIR [PROGRAM|MANPAGE...]
#   a PROGRAM (executable) must print "<name> (relaytool) VERSION" for
#   --version; a MANPAGE must show only VERSION after "relaytool".
set -uo pipefail
version=$1 src=$2
shift 2
failures=0
expect() {  # expect WHAT ACTUAL
  if [[ $2 == "$version" ]]; then echo "ok   $1: $2"; else echo "FAIL $1: '$2', not $version"; failures=$((failures + 1)); fi
}
expect "debian/changelog" "$(sed -n 's/^relaytool (\([^)]*\)).*/\1/p;q' "$src/debian/changelog")"
expect "README.md" "$(grep -o -m1 'relaytool [0-9][0-9.]*[0-9]' "$src/README.md" | cut -d' ' -f2)"
for file in "$@"; do
  name=$(basename "$file")
  if [[ -x $file ]]; then
    expect "$name --version" "$("$file" --version | sed -n "s/^$name (relaytool) //p")"
  else  # every "relaytool X.Y.Z" or "(relaytool) X.Y.Z" in the page
    shown=$(grep -oE 'relaytool\)? [0-9]+\.[0-9]+\.[0-9]+' "$file" | awk '{ print $2 }' | sort -u | paste -sd' ')
    expect "$name" "$shown"
  fi
done
[[ $failures -eq 0 ]]
