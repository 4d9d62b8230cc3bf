#!/usr/bin/env bash
# Builds the Debian package from this checkout with Debian's own tools and
# checks it, into build-deb/:
#
#   1. the package as shipped (dpkg-buildpackage; the relay keys, the
#      anonymous key and the relay's authority are whatever
#      RELAYTOOL_CONFIGURE_ARGS gives, by default none): lintian must report
#      no error, its file list must be exactly what `DESTDIR=... cmake
#      --install` gives, its programs must carry the hardening flags, and it
#      must trust no test relay key, hold no key and trust no authority;
#   2. the same package built with the test relay's keys, the test anonymous
#      key and the test authority (never shipped): unpacked into a scratch
#      root with dpkg-deb -x, its relaytool-endpoint, relaytool, pdeath and
#      trust directory set an endpoint up and serve files with Debian's
#      GridFTP server through the local relay, both ways (on the lab, lab/,
#      which copies them where the endpoint's user can reach them: the real
#      sshd, ssh and GridFTP server and client in network namespaces; needs
#      root, otherwise this part is skipped and says so).
#
# Usage: scripts/package.sh [--build-only]
#   --build-only  just build the package as shipped (step 1 without checks)
# The packages are left in build-deb/release/ and build-deb/testkeys/.
set -euo pipefail
cd "$(dirname "$0")/.."
REPO=$PWD
OUT=$REPO/build-deb
build_only=""
[[ ${1:-} == --build-only ]] && build_only=1

bash scripts/install-deps.sh

version=$(sed -n 's/^relaytool (\([^)]*\)).*/\1/p;q' debian/changelog)
arch=$(dpkg --print-architecture)
jobs=$(nproc 2>/dev/null || echo 2)

# build_package NAME [CONFIGURE ARGS]: the sources as git sees them (tracked
# and new files, never build trees) are copied to build-deb/NAME/ and built
# there, so dpkg-buildpackage leaves its results in build-deb/NAME/.
build_package() {
  local name=$1 args=${2:-} dir=$OUT/$1 log
  rm -rf "$dir"
  mkdir -p "$dir/relaytool-$version"
  git ls-files -z --cached --others --exclude-standard |
    tar --null -T - -cf - | tar -xf - -C "$dir/relaytool-$version"
  log=$dir/build.log
  echo "building $name package relaytool_${version}_$arch.deb (log: $log)"
  if ! (cd "$dir/relaytool-$version" &&
        RELAYTOOL_CONFIGURE_ARGS="$args" DEB_BUILD_OPTIONS="nocheck parallel=$jobs" \
        DEB_BUILD_PROFILES=nocheck dpkg-buildpackage -b -us -uc) >"$log" 2>&1; then
    tail -n 40 "$log"
    echo "package build failed: $name" >&2
    exit 1
  fi
  DEB=$dir/relaytool_${version}_${arch}.deb
}

build_package release "${RELAYTOOL_CONFIGURE_ARGS:-}"
[[ -n $build_only ]] && { echo "$DEB"; exit 0; }
release=$DEB
failures=0
fail() { echo "FAIL: $*"; failures=$((failures + 1)); }

echo "== lintian"
# Errors fail; warnings and informational tags are listed for the record.
if ! lintian --allow-root --fail-on error --display-info "$release"; then
  fail "lintian reports errors"
fi

echo "== file list: package against cmake --install"
root=$OUT/release/install-root
rm -rf "$root"
DESTDIR=$root cmake --install "$(echo "$OUT"/release/relaytool-"$version"/obj-*)" >/dev/null
installed=$(cd "$root" && find . -mindepth 1 ! -type d | sed 's|^\./|/|' | sort)
packaged=$(dpkg-deb --fsys-tarfile "$release" | tar -t | grep -v '/$' | sed 's|^\./|/|' | sort)
if [[ "$installed" != "$packaged" ]]; then
  fail "the package's files differ from cmake --install's"
  diff <(echo "$installed") <(echo "$packaged") | sed 's/^/    /' || true
else
  echo "ok   $(wc -l <<<"$packaged") files"
  sed 's/^/     /' <<<"$packaged"
fi

echo "== what the package declares and holds"
dpkg-deb -f "$release" Version Depends | sed 's/^/     /'
[[ $(dpkg-deb -f "$release" Version) == "$version" ]] || fail "package version"
dpkg-deb -f "$release" Depends | grep -q 'openssh-client' || fail "Depends lacks openssh-client"
dpkg-deb -f "$release" Depends | grep -q 'libssl3\|libssl1' || fail "Depends lacks the OpenSSL library (shlibdeps)"
unpacked=$OUT/release/unpacked
rm -rf "$unpacked"
dpkg-deb -x "$release" "$unpacked"
echo "-- hardening flags: every compile and link line has dpkg-buildflags' words"
log=$OUT/release/build.log
for kind in CPPFLAGS CXXFLAGS LDFLAGS; do
  # compile lines have " -c ", link lines do not; a blank ends every line
  lines=$(grep -E '^(cd [^&]*&& )?/usr/bin/c\+\+ ' "$log" | sed 's/$/ /' |
          if [[ $kind == LDFLAGS ]]; then grep -v -- ' -c '; else grep -- ' -c '; fi)
  for word in $(DEB_BUILD_MAINT_OPTIONS=hardening=+all dpkg-buildflags --get $kind); do
    [[ $word == -ffile-prefix-map=* ]] && continue  # names the build directory
    missing=$(grep -cvF -- " $word " <<<"$lines" || true)
    [[ $missing -eq 0 ]] || fail "$kind word $word missing from $missing of $(wc -l <<<"$lines") command lines"
  done
  echo "     $kind: $(wc -l <<<"$lines") command lines checked"
done
# pdeath has no function that needs a stack canary, so imports no
# __stack_chk_fail although it is built with the same flags.
for program in usr/libexec/relaytool/relaytool usr/libexec/relaytool/pdeath usr/bin/relaytool-endpoint; do
  [[ -e $unpacked/$program ]] || continue
  echo "-- hardening of /$program"
  bash tests/check_hardening.sh $([[ $program == */pdeath ]] && echo --no-canary) "$unpacked/$program" |
    sed 's/^/     /' || fail "hardening of /$program"
done
# Debian's policy: every program in /usr/bin has its page in section 1.
for program in "$unpacked"/usr/bin/*; do
  [[ -e $unpacked/usr/share/man/man1/$(basename "$program").1.gz ]] || fail "no section 1 page for /usr/bin/$(basename "$program")"
done
while read -r _ key _; do  # the base64 field of each test key line
  if grep -qF "$key" "$unpacked/usr/libexec/relaytool/relaytool"; then
    fail "the shipped tool trusts a test relay key"
  fi
done <tests/keys/test_relay_keys.txt
[[ ! -e $unpacked/etc/relaytool/relay-anonymous.key ]] || [[ -n ${RELAYTOOL_CONFIGURE_ARGS:-} ]] ||
  fail "a package built without a key installs relay-anonymous.key"
[[ ! -e $unpacked/etc/relaytool/trust ]] || [[ -n ${RELAYTOOL_CONFIGURE_ARGS:-} ]] ||
  fail "a package built without an authority installs a trust directory"

echo "== the installed programs through the local relay"
build_package testkeys "-DRELAY_KEYS_FILE=$REPO/tests/keys/test_relay_keys.txt -DRELAYTOOL_ANONYMOUS_KEY=$REPO/tests/keys/anonymous.key -DRELAYTOOL_RELAY_AUTHORITY=$REPO/tests/keys/relay_authority.pem"
scratch=$OUT/testkeys/root
rm -rf "$scratch"
dpkg-deb -x "$DEB" "$scratch"
key_mode=$(stat -c %a "$scratch/etc/relaytool/relay-anonymous.key")
[[ $key_mode == 644 ]] || fail "relay-anonymous.key has mode $key_mode, not 644"
hash=$(openssl x509 -in tests/keys/relay_authority.pem -noout -subject_hash)
for name in "$hash.0" "$hash.signing_policy"; do
  [[ $(stat -c %a "$scratch/etc/relaytool/trust/$name" 2>/dev/null) == 644 ]] ||
    fail "the trust directory lacks $name with mode 644"
done
if RELAYTOOL_ENDPOINT_BIN=$scratch/usr/bin/relaytool-endpoint \
   RELAYTOOL_TESTRELAY_BIN=$scratch/usr/libexec/relaytool/relaytool \
   PDEATH_BIN=$scratch/usr/libexec/relaytool/pdeath \
   RELAYTOOL_ETC_DIR=$scratch/etc/relaytool \
   /usr/bin/python3 tests/e2e/test_real_parts.py ThroughTheRelay.test_third_party_transfers_both_ways 2>&1 |
   tee "$OUT/testkeys/e2e.log" | tail -n 3
then :; else fail "setup and transfers both ways with the installed programs"; fi

if [[ $failures -gt 0 ]]; then
  echo "package checks: $failures failed"
  exit 1
fi
echo "package checks: all passed ($release)"
