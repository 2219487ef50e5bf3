#!/usr/bin/env bash
# Installs what is missing, builds every preset and runs every test: the pure
# unit tests natively under ASan/UBSan; the Linux helper's unit tests; its
# end-to-end suite twice, with the helper under AddressSanitizer+UBSan and
# under ThreadSanitizer (a sanitizer report fails the run), while the Windows
# build's unit and end-to-end tests run under Wine in a private prefix inside
# build/windows; and last the Debian package (lintian, install, upgrade,
# remove, purge) in a throwaway Debian 12 root.
#
# The Linux suites and the Windows one use the same fixed ports, so each runs
# in a network namespace of its own; the two Linux suites make the same
# throwaway accounts, so they run one after the other.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
for preset in native linux windows asan tsan; do
  echo "== build $preset"
  cmake --preset "$preset" >/dev/null
  cmake --build --preset "$preset"
done
echo "== native"
ctest --preset native
echo "== linux (unit)"
ctest --preset linux -R '^unit$'
in_own_network() { unshare --net sh -c 'ip link set lo up && exec "$@"' sh "$@"; }
log=build/windows/ctest.log
echo "== windows (in the background, output in $log)"
in_own_network ctest --preset windows >"$log" 2>&1 &
windows=$!
linux_status=0
for preset in asan tsan; do
  echo "== $preset"
  in_own_network ctest --preset "$preset" || linux_status=1
done
windows_status=0
wait "$windows" || windows_status=1
echo "== windows"
cat "$log"
if [ "$linux_status" != 0 ] || [ "$windows_status" != 0 ]; then exit 1; fi
echo "== package"
bash scripts/package-test.sh
