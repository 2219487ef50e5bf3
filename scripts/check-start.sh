#!/usr/bin/env bash
# Checks the run command without a person, for the native Linux helper and
# then for the Windows exe under Wine: starts `scripts/start.sh --demo` in the
# background, runs the demo walkthrough against it (printing each answer),
# then stops it with SIGTERM and checks that nothing it started is left.
# Exit 0 only when both runs answered as a user expects and stopped cleanly.
set -uo pipefail
cd "$(dirname "$0")/.."
export LC_ALL=C.UTF-8
api=http://127.0.0.1:17891
log=$(mktemp)
runner=""

fail() {
  echo "check-start: $*" >&2
  echo "--- output of scripts/start.sh:" >&2
  cat "$log" >&2
  [ -n "$runner" ] && kill -TERM "$runner" 2>/dev/null && wait "$runner" 2>/dev/null
  rm -f "$log"
  exit 1
}
show() { echo "\$ $1"; echo "$2"; }
expect() { [ "$2" = "$3" ] || fail "$1 answered '$2', expected '$3'"; }

# Starts the run command with `$@` and waits for its "ready" line; the first
# run installs and builds, so it may take up to 15 minutes.
start_demo() {
  : >"$log"
  bash scripts/start.sh "$@" --demo >"$log" 2>&1 </dev/null &
  runner=$!
  for _ in $(seq 1 900); do
    grep -q '^ready' "$log" && return 0
    kill -0 "$runner" 2>/dev/null || fail "start.sh $* ended before the helper was ready"
    sleep 1
  done
  fail "the helper was not ready within 15 minutes"
}

# SIGTERM to the run command: it must exit 0 and leave the port closed.
stop_demo() {
  kill -TERM "$runner"
  wait "$runner"
  local rc=$?
  runner=""
  [ "$rc" -eq 0 ] || fail "start.sh exited $rc after SIGTERM"
  (exec 3<>/dev/tcp/127.0.0.1/17891) 2>/dev/null && fail "port 17891 still answers after the stop"
  tail -n 1 "$log"
}

# Any process whose executable lies under `$1` (the demo folder or the prefix).
left_under() {
  local p exe
  for p in /proc/[0-9]*; do
    exe=$(readlink "$p/exe" 2>/dev/null) || continue
    [[ "$exe" == "$1"/* ]] && { echo "$exe"; return 0; }
  done
  return 1
}

# --- The native Linux helper, driven by orvelctl as a user would ----------------
start_demo
demo=$PWD/build/linux/demo
ctl=build/linux/bin/orvelctl
status=$(curl -s -m 10 "$api/status")
show "curl -s $api/status" "$status"
expect /status "$status" '{"status":"disconnected","platform":"linux","message":"Linux helper idle"}'
out=$($ctl start --tun "$demo/config.json")
show "$ctl start --tun $demo/config.json" "$out"
expect "orvelctl start --tun" "$out" "connected: Linux TUN helper connected"
show "$ctl snapshot" "$($ctl snapshot)"
out=$($ctl urltest "$demo/config.json")
show "$ctl urltest $demo/config.json" "$out"
[[ "$out" == *"3 of 3 nodes reported, 1 failed"* ]] || fail "the URL test did not report 3 nodes"
out=$($ctl stop)
show "$ctl stop" "$out"
expect "orvelctl stop" "$out" "disconnected: Linux helper disconnected"
show "$ctl logs" "$($ctl logs)"
stop_demo
left=$(left_under "$demo") && fail "a process of the demo is still running: $left"

# --- The Windows exe under Wine, driven by curl ------------------------------------
start_demo --windows
demo=build/windows/demo
ping=$(curl -s -m 10 "$api/ping")
show "curl -s $api/ping" "$ping"
expect /ping "$ping" pong
show "curl -s $api/status" "$(curl -s -m 10 "$api/status")"
start=$(curl -s -m 20 --data-binary @"$demo/config.json" "$api/start")
show "curl -s --data-binary @$demo/config.json $api/start" "$start"
[[ "$start" == *'"status":"connected"'* ]] || fail "/start answered '$start'"
show "curl -s $api/traffic-snapshot" "$(curl -s -m 20 "$api/traffic-snapshot")"
urltest=$(curl -s -N -m 30 --data-binary @"$demo/urltest.body" "$api/urltest")
show "curl -s -N --data-binary @$demo/urltest.body $api/urltest" "$urltest"
[ "$(grep -c nodeTag <<<"$urltest")" -eq 3 ] || fail "the URL test did not report 3 nodes"
show "curl -s -X POST $api/stop" "$(curl -s -m 20 -X POST "$api/stop")"
show "curl -s $api/logs" "$(curl -s -m 10 "$api/logs")"
stop_demo
prefix="$PWD/build/windows/wineprefix"
for p in /proc/[0-9]*; do
  if { tr '\0' '\n' <"$p/environ"; } 2>/dev/null | grep -qx "WINEPREFIX=$prefix"; then
    fail "a Wine process of the prefix is still running: $(tr '\0' ' ' <"$p/cmdline" 2>/dev/null)"
  fi
done
rm -f "$log"
echo "check-start: both run commands checked: status, start, snapshot, URL test, stop, clean end"
