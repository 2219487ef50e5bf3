#!/usr/bin/env bash
# Installs the Debian packages the build and the tests need, when missing.
set -euo pipefail
# wine64 alone gives no wine, wineboot or wineserver command on Debian 12: the
# package wine does. Every command the scripts call is listed here.
packages=(cmake ninja-build g++ g++-mingw-w64-x86-64-posix wine wine64 googletest clang libclang-rt-14-dev
  nlohmann-json3-dev curl pkg-config libsystemd-dev systemd nodejs passwd util-linux
  libglib2.0-dev libglib2.0-bin dbus dconf-gsettings-backend dconf-cli gsettings-desktop-schemas
  libkf5config-bin iproute2 nsis xvfb git)
missing=()
for p in "${packages[@]}"; do
  dpkg -s "$p" >/dev/null 2>&1 || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "Installing: ${missing[*]}"
  sudo_cmd=""
  [ "$(id -u)" -eq 0 ] || sudo_cmd="sudo"
  $sudo_cmd apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $sudo_cmd apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
fi
