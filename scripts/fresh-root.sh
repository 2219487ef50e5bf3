#!/usr/bin/env bash
# Runs a command on a clone of this checkout's HEAD inside a freshly unpacked
# minimal Debian 12 root, with a bare environment (no LANG, no USER): what a
# newcomer's new machine has. A missing install step fails here even when the
# host happens to have the package.
#
#   bash scripts/fresh-root.sh --can         exit 0 when this machine can do it
#   bash scripts/fresh-root.sh 'COMMAND' [FILE...]
#                                            run COMMAND in /root/project there,
#                                            with copies of the FILEs beside it
#
# Needs root, debootstrap (installed with apt-get when missing), chroot and
# mounts. The pristine root is made once and kept as a tar under /var/tmp;
# every run unpacks it anew, so the packages are installed afresh each time.
# Downloaded .deb files are kept in a cache of their own between runs.
set -uo pipefail
cd "$(dirname "$0")/.."
top=$PWD
cache=/var/tmp/orvel-fresh-root
base="$cache/debian12-minbase.tar"
archives="$cache/apt-archives"

can_run() {
  [ "$(id -u)" -eq 0 ] || { echo "not root"; return 1; }
  [ -z "${ORVEL_FRESH_ROOT:-}" ] || { echo "already inside a fresh root"; return 1; }
  command -v chroot >/dev/null || { echo "no chroot command"; return 1; }
  # debootstrap makes the root and git clones the project into it; a new
  # machine has neither.
  for tool in debootstrap git; do
    command -v "$tool" >/dev/null && continue
    { apt-get update -qq && DEBIAN_FRONTEND=noninteractive apt-get install -y -qq "$tool"; } \
      >/dev/null 2>&1 || { echo "$tool cannot be installed"; return 1; }
  done
  local probe
  probe=$(mktemp -d /var/tmp/orvel-mount-probe.XXXX)
  if ! mount -t tmpfs none "$probe" 2>/dev/null; then
    rmdir "$probe"
    echo "mounts are not allowed"
    return 1
  fi
  umount "$probe"
  rmdir "$probe"
}

if [ "${1:-}" = "--can" ]; then
  why=$(can_run) && exit 0
  echo "$why"
  exit 1
fi
[ $# -ge 1 ] || { echo "usage: bash scripts/fresh-root.sh --can | 'COMMAND' [FILE...]" >&2; exit 2; }
why=$(can_run) || { echo "fresh-root: cannot run here: $why" >&2; exit 3; }

mkdir -p "$cache" "$archives"
mirror=$(awk '/^URIs:/{print $2; exit}' /etc/apt/sources.list.d/debian.sources 2>/dev/null)
[ -n "$mirror" ] || mirror=$(awk '/^deb /{print $2; exit}' /etc/apt/sources.list 2>/dev/null)
[ -n "$mirror" ] || mirror=http://deb.debian.org/debian
if [ ! -s "$base" ]; then
  echo "fresh-root: making a pristine Debian 12 root (once, about a minute)"
  made=$(mktemp -d "$cache/make.XXXX")
  if ! debootstrap --variant=minbase bookworm "$made" "$mirror" >"$cache/debootstrap.log" 2>&1; then
    rm -rf "$made"
    echo "fresh-root: debootstrap failed, see $cache/debootstrap.log" >&2
    exit 3
  fi
  tar -C "$made" -cf "$base.part" . && mv "$base.part" "$base"
  rm -rf "$made"
fi

root=$(mktemp -d "$cache/root.XXXX")
mounts=(proc sys dev var/cache/apt/archives)
cleanup() {
  # End whatever still runs inside (Wine's server outlives its tests), then
  # unmount; the tree is deleted only once nothing is mounted in it any more,
  # so the host's /dev can never be reached through it.
  local p
  for p in /proc/[0-9]*; do
    [ "$(readlink "$p/root" 2>/dev/null)" = "$root" ] && kill -9 "${p#/proc/}" 2>/dev/null
  done
  sleep 1
  for m in "${mounts[@]}"; do umount -R -l "$root/$m" 2>/dev/null; done
  umount -R -l "$root" 2>/dev/null
  if grep -q " $root/" /proc/mounts; then
    echo "fresh-root: $root still has mounts; left in place" >&2
  else
    rm -rf "$root"
  fi
}
trap cleanup EXIT
tar -C "$root" -xf "$base"
# mktemp made the root 0700; a real one lets every account reach its files.
chmod 755 "$root"
# The root a mount point of its own: tests make throwaway mount namespaces
# (unshare --mount), which need "/" to be one to make their mounts private.
mount --bind "$root" "$root"
cp /etc/resolv.conf "$root/etc/resolv.conf"
git clone -q "$top" "$root/root/project"
[ $# -eq 1 ] || cp -- "${@:2}" "$root/root/project/"
mount -t proc proc "$root/proc"
mount -t sysfs sys "$root/sys"
mount --rbind /dev "$root/dev"
mount --bind "$archives" "$root/var/cache/apt/archives"
# Debian's images may delete downloaded packages after each install; keep them.
rm -f "$root/etc/apt/apt.conf.d/docker-clean"

start=$(date +%s)
chroot "$root" /usr/bin/env -i HOME=/root TERM=dumb CI="${CI:-}" ORVEL_FRESH_ROOT=1 \
  PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin \
  /bin/bash -c "cd /root/project && $1" </dev/null
rc=$?
echo "fresh-root: '$1' exited $rc in $(($(date +%s) - start)) s in a fresh Debian 12 root"
exit $rc
