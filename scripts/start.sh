#!/usr/bin/env bash
# Installs what is missing, builds the Windows exe and starts it under Wine in
# the private prefix of build/windows. Ctrl-C ends it.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
cmake --preset windows >/dev/null
cmake --build --preset windows --target OrvelVpnHelper fake_wininet
build=build/windows
[ -d "$build/wineprefix/drive_c" ] || "$build/wine-boot.sh"
export WINEPREFIX="$PWD/$build/wineprefix" WINEDEBUG=-all
exe_dir="$PWD/$build/bin"
echo "OrvelVpnHelper listens on http://127.0.0.1:17891 (try: curl http://127.0.0.1:17891/ping)"
echo "It looks for sing-box.exe in this order:"
echo "  1. beside the exe:        $exe_dir/sing-box.exe"
echo "  2. its data sub-folder:   $exe_dir/data/sing-box.exe"
echo "  3. the Windows search path (PATH of the Wine prefix)"
echo "Data directory (sing-box.json): $WINEPREFIX/drive_c/users/$USER/AppData/Roaming/OrvelVPN"
trap 'wineserver -k </dev/null >/dev/null 2>&1 || true' EXIT
wine "$exe_dir/OrvelVpnHelper.exe" </dev/null
