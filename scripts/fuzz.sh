#!/usr/bin/env bash
# Runs each libFuzzer target of the native build for the given number of
# seconds (default 20), starting from its seed corpus. A finding fails.
set -euo pipefail
cd "$(dirname "$0")/.."
seconds="${1:-20}"
bash scripts/install-deps.sh
cmake --preset native >/dev/null
cmake --build --preset native
for target in build/native/bin/*_fuzz; do
  name=$(basename "$target")
  work="build/native/fuzz-corpus/$name"
  mkdir -p "$work"
  echo "== $name (${seconds}s)"
  "$target" -max_total_time="$seconds" -print_final_stats=1 -artifact_prefix="build/native/$name-" \
    "$work" "fuzz/corpus/$name" </dev/null 2>&1 | grep -E '^(stat::number_of_executed_units|==|SUMMARY|Done)' || true
  [ "${PIPESTATUS[0]}" -eq 0 ] || { echo "$name found a fault"; exit 1; }
done
