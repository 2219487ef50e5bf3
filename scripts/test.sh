#!/usr/bin/env bash
# Installs what is missing, builds both presets and runs every test:
# the pure unit tests natively under ASan/UBSan, then the Windows build's unit
# and end-to-end tests under Wine in a private prefix inside build/windows.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
cmake --preset native >/dev/null
cmake --build --preset native
ctest --preset native
cmake --preset windows >/dev/null
cmake --build --preset windows
ctest --preset windows
