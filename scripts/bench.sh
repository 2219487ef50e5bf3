#!/usr/bin/env bash
# Builds and runs every benchmark, each printing its figures: the native Linux
# ones first, then the Windows ones under Wine. An argument runs only the
# benchmarks whose name contains it.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
cmake --preset linux >/dev/null
cmake --build --preset linux
for bench in build/linux/bin/*bench*; do
  [ -n "${1:-}" ] && [[ "$bench" != *"$1"* ]] && continue
  echo "== $(basename "$bench")"
  "$bench"
done
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
