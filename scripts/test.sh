#!/usr/bin/env bash
# Installs what is missing, builds every preset and runs every test: the pure
# unit tests natively under ASan/UBSan, the Linux helper's unit and end-to-end
# tests natively, then the Windows build's unit and end-to-end tests under
# Wine in a private prefix inside build/windows, and last the Debian package
# (lintian, install, upgrade, remove, purge) in a throwaway Debian 12 root.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
for preset in native linux windows; do
  echo "== $preset"
  cmake --preset "$preset" >/dev/null
  cmake --build --preset "$preset"
  ctest --preset "$preset"
done
echo "== package"
bash scripts/package-test.sh
