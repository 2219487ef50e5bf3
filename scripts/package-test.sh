#!/usr/bin/env bash
# Tests the Debian package in a throwaway Debian 12 root: lintian (no error,
# no warning), then install with its dependencies, upgrade to a rebuilt
# package of a higher revision, remove and purge, checking what each leaves.
#
#   bash scripts/package-test.sh [--build-dir DIR]   build both packages, then test
#                                                    them in a fresh root
#   bash scripts/package-test.sh DEB NEWER_DEB       test these, in this root
#
# The second form changes the machine it runs on, so it runs only inside a
# fresh root (scripts/fresh-root.sh); the first form makes one where the
# machine allows it (CI is already inside one) and otherwise says what it
# left out.
set -euo pipefail
cd "$(dirname "$0")/.."
export LC_ALL=C.UTF-8 DEBIAN_FRONTEND=noninteractive DEBCONF_NOWARNINGS=yes

if [ $# -ne 2 ] || [ "$1" = --build-dir ]; then
  build=build/linux
  [ "${1:-}" != --build-dir ] || build=${2:?}
  deb=$(bash scripts/package-linux.sh --build-dir "$build" --revision 1 | tail -n 1)
  newer=$(bash scripts/package-linux.sh --build-dir "$build" --revision 2 | tail -n 1)
  # The newer one is only for the upgrade; the package to ship stays alone.
  mkdir -p "$build/package-test"
  mv "$newer" "$build/package-test/"
  newer="$build/package-test/$(basename "$newer")"
  if [ -n "${ORVEL_FRESH_ROOT:-}" ]; then
    exec bash scripts/package-test.sh "$deb" "$newer"
  elif why=$(bash scripts/fresh-root.sh --can); then
    exec bash scripts/fresh-root.sh "bash scripts/package-test.sh $(basename "$deb") $(basename "$newer")" \
      "$PWD/$deb" "$PWD/$newer"
  fi
  echo "package-test: built $deb; install test left out: no fresh root here ($why)"
  exit 0
fi

[ -n "${ORVEL_FRESH_ROOT:-}" ] || {
  echo "package-test: installs into this machine; run it only inside scripts/fresh-root.sh" >&2
  exit 2
}
deb=$(realpath "$1")
newer=$(realpath "$2")
failures=0
check() {  # check DESCRIPTION COMMAND...: one line per failed check
  if ! "${@:2}" >/dev/null 2>&1; then
    echo "package-test: FAILED: $1"
    failures=$((failures + 1))
  fi
}
same() { [ "$1" = "$2" ] || { echo "got: $1" >&2; return 1; }; }
unit=/usr/lib/systemd/system/orvel-vpn-helper.service
wants=/etc/systemd/system/multi-user.target.wants/orvel-vpn-helper.service
files=(/usr/libexec/orvel-vpn-helper/orvel-vpn-helper /usr/bin/orvelctl "$unit"
  /usr/share/polkit-1/rules.d/50-orvel-vpn-helper.rules /usr/lib/sysusers.d/orvel-vpn-helper.conf
  /usr/share/doc/orvel-vpn-helper/copyright /usr/share/doc/orvel-vpn-helper/changelog.Debian.gz
  /usr/share/man/man1/orvelctl.1.gz)

# lintian, and systemd for systemd-analyze (the package needs neither).
missing=()
for p in lintian systemd; do dpkg -s "$p" >/dev/null 2>&1 || missing+=("$p"); done
if [ ${#missing[@]} -gt 0 ]; then
  [ -n "$(find /var/lib/apt/lists -maxdepth 1 -name '*_Packages*' -print -quit)" ] || apt-get update -qq
  apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
fi
# Run as root here, which lintian remarks on; only its tags count.
lintian_out=$(lintian --fail-on error,warning "$deb" 2>&1 | grep -v '^running with root privileges' || true)
check "lintian reports nothing: $lintian_out" same "$lintian_out" ""
dpkg-deb -f "$deb" Depends Recommends

apt-get install -y -qq --no-install-recommends "$deb" >/dev/null
for f in "${files[@]}"; do check "installed $f" test -f "$f"; done
check "version" same "$(/usr/libexec/orvel-vpn-helper/orvel-vpn-helper --version)" \
  "orvel-vpn-helper $(dpkg-deb -f "$deb" Version | sed 's/-[^-]*$//')"
check "unit verified" same "$(systemd-analyze verify "$unit" 2>&1)" ""
check "unit runs the packaged helper" grep -qx \
  'ExecStart="/usr/libexec/orvel-vpn-helper/orvel-vpn-helper" --service' "$unit"
check "group made" getent group orvel-vpn
check "service enabled" test -L "$wants"
mkdir -p /var/lib/orvel-vpn-helper && echo '{}' >/var/lib/orvel-vpn-helper/sing-box.json

apt-get install -y -qq --no-install-recommends "$newer" >/dev/null
check "upgraded" same "$(dpkg-query -W -f '${Version}' orvel-vpn-helper)" \
  "$(dpkg-deb -f "$newer" Version)"
check "still enabled" test -L "$wants"

apt-get remove -y -qq orvel-vpn-helper >/dev/null
for f in "${files[@]::3}"; do check "removed $f" test ! -e "$f"; done

apt-get purge -y -qq orvel-vpn-helper >/dev/null
check "purged: dpkg knows no file" same "$(dpkg -L orvel-vpn-helper 2>/dev/null)" ""
check "purged: no state" test ! -e /var/lib/orvel-vpn-helper
check "purged: no group" test -z "$(getent group orvel-vpn)"
check "purged: no unit link" test ! -e "$wants" -a ! -L "$wants"
check "purged: no mask" test ! -L /etc/systemd/system/orvel-vpn-helper.service

if [ "$failures" -gt 0 ]; then
  echo "package-test: $failures checks failed"
  exit 1
fi
echo "package-test: lintian clean; install, upgrade, remove and purge left what they should"
