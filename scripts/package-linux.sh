#!/usr/bin/env bash
# Builds the linux preset and packs it as a Debian package:
#   build/linux/orvel-vpn-helper_<version>-<revision>_<arch>.deb
#
#   bash scripts/package-linux.sh [--build-dir DIR] [--revision N]
#
# The version is the helper's own (CMake's project version, read back from
# the built helper); the revision (default 1) is the package's, so a rebuilt
# package of the same helper can still upgrade an installed one. Installs
# what it needs with apt-get, like the other scripts.
set -euo pipefail
cd "$(dirname "$0")/.."
umask 022
export LC_ALL=C.UTF-8
build=build/linux
revision=1
while [ $# -gt 0 ]; do
  case "$1" in
    --build-dir) build=${2:?}; shift 2 ;;
    --revision) revision=${2:?}; shift 2 ;;
    *) echo "usage: bash scripts/package-linux.sh [--build-dir DIR] [--revision N]" >&2; exit 2 ;;
  esac
done

bash scripts/install-deps.sh
# dpkg-dev: dpkg-shlibdeps and dpkg-gencontrol (binutils' strip with it).
if ! dpkg -s dpkg-dev >/dev/null 2>&1; then
  sudo_cmd=""
  [ "$(id -u)" -eq 0 ] || sudo_cmd="sudo"
  echo "Installing: dpkg-dev"
  $sudo_cmd apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $sudo_cmd apt-get install -y -qq --no-install-recommends dpkg-dev >/dev/null
fi

cmake --preset linux -B "$build" >/dev/null
cmake --build "$build" --target orvel-vpn-helper orvelctl orvel-service-files
bin="$build/bin"
version=$("$bin/orvel-vpn-helper" --version)
version=${version#orvel-vpn-helper }
arch=$(dpkg --print-architecture)
deb="$build/orvel-vpn-helper_${version}-${revision}_${arch}.deb"

# The layout dpkg-gencontrol and dpkg-shlibdeps expect: debian/ with the
# package's tree beside its control file.
stage="$build/debian-package"
rm -rf "$stage"
mkdir -p "$stage/debian"
root="$stage/debian/orvel-vpn-helper"
cp packaging/debian/control "$stage/debian/control"
# Dated by the last commit, so that one checkout always packs alike.
date=$(git log -1 --format=%aD 2>/dev/null || date -R)
printf '%s\n' "orvel-vpn-helper (${version}-${revision}) unstable; urgency=medium" "" \
  "  * Orvel VPN helper ${version}." "" " -- Orvel VPN <packages@orvel-vpn.example>  ${date}" \
  >"$stage/debian/changelog"

install -d "$root/DEBIAN" "$root/usr/libexec/orvel-vpn-helper" "$root/usr/bin" \
  "$root/usr/lib/systemd/system" "$root/usr/share/polkit-1/rules.d" "$root/usr/lib/sysusers.d" \
  "$root/usr/share/doc/orvel-vpn-helper" "$root/usr/share/man/man1" "$root/usr/share/lintian/overrides"
install -m 0755 "$bin/orvel-vpn-helper" "$root/usr/libexec/orvel-vpn-helper/orvel-vpn-helper"
install -m 0755 "$bin/orvelctl" "$root/usr/bin/orvelctl"
strip --strip-unneeded --remove-section=.comment --remove-section=.note \
  "$root/usr/libexec/orvel-vpn-helper/orvel-vpn-helper" "$root/usr/bin/orvelctl"
# The unit and the rule from the installer's own functions.
"$bin/orvel-service-files" unit >"$root/usr/lib/systemd/system/orvel-vpn-helper.service"
"$bin/orvel-service-files" rule >"$root/usr/share/polkit-1/rules.d/50-orvel-vpn-helper.rules"
install -m 0644 packaging/debian/sysusers.conf "$root/usr/lib/sysusers.d/orvel-vpn-helper.conf"
install -m 0644 packaging/debian/copyright "$root/usr/share/doc/orvel-vpn-helper/copyright"
install -m 0644 README.md "$root/usr/share/doc/orvel-vpn-helper/README.md"
install -m 0644 packaging/debian/lintian-overrides "$root/usr/share/lintian/overrides/orvel-vpn-helper"
gzip -9n <"$stage/debian/changelog" >"$root/usr/share/doc/orvel-vpn-helper/changelog.Debian.gz"
gzip -9n <packaging/debian/orvelctl.1 >"$root/usr/share/man/man1/orvelctl.1.gz"
chmod 0644 "$root/usr/lib/systemd/system/orvel-vpn-helper.service" \
  "$root/usr/share/polkit-1/rules.d/50-orvel-vpn-helper.rules" \
  "$root/usr/share/doc/orvel-vpn-helper/changelog.Debian.gz" "$root/usr/share/man/man1/orvelctl.1.gz"
for script in postinst prerm postrm; do
  install -m 0755 "packaging/debian/$script" "$root/DEBIAN/$script"
done

(
  cd "$stage"
  dpkg-shlibdeps -Tdebian/orvel-vpn-helper.substvars \
    debian/orvel-vpn-helper/usr/libexec/orvel-vpn-helper/orvel-vpn-helper \
    debian/orvel-vpn-helper/usr/bin/orvelctl
  dpkg-gencontrol -porvel-vpn-helper -Tdebian/orvel-vpn-helper.substvars \
    -Pdebian/orvel-vpn-helper
  cd debian/orvel-vpn-helper
  find usr -type f -print0 | sort -z | xargs -0 md5sum >DEBIAN/md5sums
)
chmod 0644 "$root/DEBIAN/control" "$root/DEBIAN/md5sums"
dpkg-deb --root-owner-group -Zxz --build "$root" "$deb" >/dev/null
echo "$deb"
