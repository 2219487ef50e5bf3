#!/usr/bin/env bash
# Builds the windows preset and packs it as the NSIS installer:
#   build/windows/OrvelVpnHelper-<version>-setup.exe
#
#   bash scripts/package-windows.sh [--build-dir DIR] [--sing-box PATH]
#
# The version is the project's own (CMake's project version). A sing-box.exe
# given with --sing-box (or in ORVEL_SING_BOX_EXE) is installed beside the
# helper; without one the client application brings its own. Installs what it
# needs with apt-get, like the other scripts.
set -euo pipefail
cd "$(dirname "$0")/.."
umask 022
export LC_ALL=C.UTF-8
build=build/windows
core=${ORVEL_SING_BOX_EXE:-}
while [ $# -gt 0 ]; do
  case "$1" in
    --build-dir) build=${2:?}; shift 2 ;;
    --sing-box) core=${2:?}; shift 2 ;;
    *) echo "usage: bash scripts/package-windows.sh [--build-dir DIR] [--sing-box PATH]" >&2; exit 2 ;;
  esac
done
if [ -n "$core" ]; then
  if [ ! -f "$core" ]; then
    echo "package-windows: $core is not a file" >&2
    exit 2
  fi
  core=$(realpath "$core")
fi

bash scripts/install-deps.sh
# Always given, so that a sing-box.exe of an earlier run is not packed again
# from the build's cache.
cmake --preset windows -B "$build" -DORVEL_SING_BOX_EXE="$core" >/dev/null
cmake --build "$build" --target installer
version=$(sed -n 's/^CMAKE_PROJECT_VERSION:STATIC=//p' "$build/CMakeCache.txt")
installer="$build/OrvelVpnHelper-$version-setup.exe"
test -f "$installer"
echo "Windows installer: $installer${core:+ (with $core)}"
