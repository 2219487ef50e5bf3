#!/usr/bin/env bash
# Checks the run command without a person: starts `scripts/start.sh --demo` in
# the background, runs the demo walkthrough against it (printing each answer),
# then stops it with SIGTERM and checks that no Wine process of its prefix is
# left. Exit 0 only when /ping said "pong", /start said "connected", the URL
# test reported every node and the stop was clean.
set -uo pipefail
cd "$(dirname "$0")/.."
export LC_ALL=C.UTF-8
log=$(mktemp)
bash scripts/start.sh --demo >"$log" 2>&1 </dev/null &
runner=$!
fail() {
  echo "check-start: $*" >&2
  echo "--- output of scripts/start.sh --demo:" >&2
  cat "$log" >&2
  kill -TERM "$runner" 2>/dev/null
  wait "$runner" 2>/dev/null
  rm -f "$log"
  exit 1
}
# The first run installs and builds: allow it up to 15 minutes.
for _ in $(seq 1 900); do
  grep -q '^ready' "$log" && break
  kill -0 "$runner" 2>/dev/null || fail "start.sh ended before the helper was ready"
  sleep 1
done
grep -q '^ready' "$log" || fail "the helper was not ready within 15 minutes"
demo=build/windows/demo
api=http://127.0.0.1:17891
show() { echo "\$ $1"; echo "$2"; }

ping=$(curl -s -m 10 "$api/ping")
show "curl -s $api/ping" "$ping"
[ "$ping" = "pong" ] || fail "/ping answered '$ping'"
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

kill -TERM "$runner"
wait "$runner"
rc=$?
[ "$rc" -eq 0 ] || fail "start.sh exited $rc after SIGTERM"
prefix="$PWD/build/windows/wineprefix"
for p in /proc/[0-9]*; do
  if { tr '\0' '\n' <"$p/environ"; } 2>/dev/null | grep -qx "WINEPREFIX=$prefix"; then
    fail "a Wine process of the prefix is still running: $(tr '\0' ' ' <"$p/cmdline" 2>/dev/null)"
  fi
done
(exec 3<>/dev/tcp/127.0.0.1/17891) 2>/dev/null && fail "port 17891 still answers after the stop"
tail -n 1 "$log"
rm -f "$log"
echo "check-start: run command checked: pong, connected, 3 URL test lines, clean stop"
