#!/usr/bin/env bash
# Builds and runs every benchmark under Wine; each prints its figures.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
cmake --preset windows >/dev/null
cmake --build --preset windows
build=build/windows
"$build/wine-boot.sh" >/dev/null
trap '"$build/wine-stop.sh"' EXIT
for bench in "$build"/bin/*_bench.exe; do
  [ -n "${1:-}" ] && [[ "$bench" != *"$1"* ]] && continue
  echo "== $(basename "$bench")"
  "$build/wine-run.sh" "$bench"
done
