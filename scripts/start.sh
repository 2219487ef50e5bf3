#!/usr/bin/env bash
# Installs what is missing, builds the helper and runs it until Ctrl-C or
# SIGTERM, which stop it in order (the user's proxy put back, the core stopped).
#
#   bash scripts/start.sh                    the native Linux helper; put a real
#                                            sing-box beside it or on PATH
#   bash scripts/start.sh --demo             the same with the test stand-in of the
#                                            core, plus a walkthrough to paste
#   bash scripts/start.sh --windows [--demo] the Windows exe under Wine in the
#                                            private prefix of build/windows
#
# It needs no terminal and no prompt: started in the background it prints
# "ready" once /ping answers. The environment may be bare (no LANG, no USER).
set -euo pipefail
cd "$(dirname "$0")/.."
demo=0
windows=0
for argument in "$@"; do
  case "$argument" in
    --demo) demo=1 ;;
    --windows) windows=1 ;;
    *) echo "usage: bash scripts/start.sh [--windows] [--demo]" >&2; exit 2 ;;
  esac
done

refuse_taken_port() {
  if (exec 3<>/dev/tcp/127.0.0.1/17891) 2>/dev/null; then
    echo "port 17891 is taken: another helper (or something else) listens there." >&2
    echo "End it first (for a helper started by this script: Ctrl-C in its terminal${1:-})." >&2
    exit 1
  fi
}

# Waits for /ping; the helper must not end meanwhile.
wait_for_pong() {
  local pid=$1 output=$2
  for _ in $(seq 1 600); do
    kill -0 "$pid" 2>/dev/null || { echo "the helper ended during start-up (its output: $output)" >&2; exit 1; }
    [ "$(curl -s -m 2 http://127.0.0.1:17891/ping || true)" = "pong" ] && return 0
    sleep 0.2
  done
  echo "the helper did not answer /ping within 2 minutes" >&2
  exit 1
}

# The demo's configuration (proxy mode, controller on) and a URL test of three
# of its nodes. The stand-in core answers each node after the delay its tag
# names (or fails it for "exit-N") and serves the figures of
# "x-test-controller", a member the real core would refuse.
write_demo_files() {
  local dir=$1 tags=(hk-01-delay-120 jp-02-delay-260 us-03-exit-1) config body tag
  config='{"log":{"level":"info"},
 "inbounds":[{"type":"mixed","tag":"orvel-vpn-mixed","listen":"127.0.0.1","listen_port":2080}],
 "outbounds":[{"type":"selector","tag":"select","outbounds":["hk-01-delay-120","jp-02-delay-260","us-03-exit-1"]},
  {"type":"vless","tag":"hk-01-delay-120","server":"203.0.113.10","server_port":443,"uuid":"bf000d23-0752-40b4-affe-68f7707a9661"},
  {"type":"vless","tag":"jp-02-delay-260","server":"203.0.113.20","server_port":443,"uuid":"bf000d23-0752-40b4-affe-68f7707a9661"},
  {"type":"vless","tag":"us-03-exit-1","server":"203.0.113.30","server_port":443,"uuid":"bf000d23-0752-40b4-affe-68f7707a9661"},
  {"type":"direct","tag":"direct"}],
 "experimental":{"clash_api":{"external_controller":"127.0.0.1:19090"}},
 "x-test-controller":{"up":2048,"down":51200,"uploadTotal":1048576,"downloadTotal":7340032}}'
  printf '%s\n' "$config" >"$dir/config.json"
  # Each field: its byte length, a line feed, the bytes, a line feed.
  field() { printf '%d\n%s\n' "${#1}" "$1"; }
  {
    printf 'ORVELVPN_URLTEST_V2\n'
    field demo-1
    field https://www.gstatic.com/generate_204
    printf '%d\n' "${#tags[@]}"
    for tag in "${tags[@]}"; do field "$tag"; done
    field "$config"
  } >"$dir/urltest.body"
}

if [ "$windows" -eq 0 ]; then
  bash scripts/install-deps.sh
  cmake --preset linux >/dev/null
  targets=(orvel-vpn-helper orvelctl)
  [ "$demo" -eq 0 ] || targets+=(fake_sing_box)
  cmake --build --preset linux --target "${targets[@]}" >/dev/null
  build="$PWD/build/linux"
  refuse_taken_port
  exe_dir="$build/bin"
  if [ "$demo" -eq 1 ]; then
    # A folder of its own, so the stand-in is never found by a later plain start.
    exe_dir="$build/demo"
    mkdir -p "$exe_dir"
    cp "$build/bin/orvel-vpn-helper" "$build/bin/doubles/sing-box" "$exe_dir/"
    write_demo_files "$exe_dir"
  fi
  output="$build/helper-output.log"
  helper=""
  stop() {
    trap - TERM INT EXIT
    [ -n "$helper" ] && kill -TERM "$helper" 2>/dev/null && wait "$helper" 2>/dev/null
    echo "orvel-vpn-helper stopped; the proxy is back and the core has ended."
    exit "${1:-0}"
  }
  trap 'stop 0' TERM INT
  trap 'stop 1' EXIT
  "$exe_dir/orvel-vpn-helper" </dev/null >"$output" 2>&1 &
  helper=$!
  wait_for_pong "$helper" "$output"
  if [[ "${XDG_DATA_HOME:-}" == /* ]]; then
    data_dir="$XDG_DATA_HOME/OrvelVPN"
  else
    data_dir="${HOME:-$(getent passwd "$(id -u)" | cut -d: -f6)}/.local/share/OrvelVPN"
  fi
  orvelctl="build/linux/bin/orvelctl"
  cat <<EOF
orvel-vpn-helper listens on http://127.0.0.1:17891 (try: $orvelctl status)
Data directory (sing-box.json, URL test files): $data_dir
The helper's log: $orvelctl logs (it writes nothing else)
It looks for sing-box in this order:
  1. beside the helper:     $exe_dir/sing-box
  2. its data sub-folder:   $exe_dir/data/sing-box
  3. each directory of PATH
EOF
  if [ "$demo" -eq 1 ]; then
    cat <<EOF

DEMO: $exe_dir/sing-box is the project's test stand-in for the real core, not
sing-box. It stays up, serves a controller on 127.0.0.1:19090 with made-up
figures ("x-test-controller" in config.json, which the real core would refuse),
and answers a URL test node after the delay its tag names. To use the real
core, put sing-box beside build/linux/bin/orvel-vpn-helper (or on PATH) and run
this script without --demo.

Paste these (from the project's root):
  $orvelctl status
  $orvelctl start --tun $exe_dir/config.json
  $orvelctl snapshot
  $orvelctl urltest $exe_dir/config.json
  $orvelctl stop
  $orvelctl logs
EOF
  fi
  echo "ready (Ctrl-C or SIGTERM stops it)"
  wait "$helper" || true
  echo "orvel-vpn-helper ended by itself (its output: $output)" >&2
  exit 1
fi

# Wine maps Windows names to host names through the locale; it needs a UTF-8 one.
export LC_ALL=C.UTF-8
bash scripts/install-deps.sh
cmake --preset windows >/dev/null
targets=(OrvelVpnHelper fake_wininet)
[ "$demo" -eq 0 ] || targets+=(fake_sing_box)
cmake --build --preset windows --target "${targets[@]}" >/dev/null

build="$PWD/build/windows"
export WINEPREFIX="$build/wineprefix" WINEDEBUG=-all WINEDLLOVERRIDES="mscoree,mshtml="
refuse_taken_port ", or WINEPREFIX=$WINEPREFIX wineserver -k"
if [ ! -d "$WINEPREFIX/drive_c" ]; then
  echo "Creating the Wine prefix (first time only, about 20-60 s)..."
  "$build/wine-boot.sh" >/dev/null
fi

exe_dir="$build/bin"
if [ "$demo" -eq 1 ]; then
  # A folder of its own, so the stand-in is never found by a later plain start.
  exe_dir="$build/demo"
  mkdir -p "$exe_dir"
  cp "$build/bin/OrvelVpnHelper.exe" "$build/bin/doubles/sing-box.exe" "$exe_dir/"
  write_demo_files "$exe_dir"
fi

# Everything Wine starts goes to a file, never to our output: its server and
# services outlive the helper and would hold a caller's pipe open for ever.
wine_log="$build/helper-wine.log"
helper=""
stop() {
  trap - TERM INT EXIT
  [ -n "$helper" ] && kill "$helper" 2>/dev/null
  wineserver -k </dev/null >/dev/null 2>&1 || true
  wait 2>/dev/null || true
  echo "OrvelVpnHelper stopped; every Wine process of $WINEPREFIX ended."
  exit "${1:-0}"
}
trap 'stop 0' TERM INT
trap 'stop 1' EXIT
(
  fd=3
  while [ $fd -lt 256 ]; do eval "exec $fd>&-" 2>/dev/null; fd=$((fd + 1)); done
  exec wine "$exe_dir/OrvelVpnHelper.exe"
) </dev/null >"$wine_log" 2>&1 &
helper=$!

wait_for_pong "$helper" "$wine_log"
appdata=$(wine cmd /c echo %APPDATA% </dev/null 2>/dev/null | tr -d '\r')
data_dir=$(winepath -u "$appdata\\OrvelVPN" </dev/null 2>/dev/null || echo "%APPDATA%\\OrvelVPN")

cat <<EOF
OrvelVpnHelper listens on http://127.0.0.1:17891 (try: curl http://127.0.0.1:17891/ping)
Data directory (sing-box.json, URL test files): $data_dir
Wine's own output: $wine_log; the helper's log: curl http://127.0.0.1:17891/logs
It looks for sing-box.exe in this order:
  1. beside the exe:        $exe_dir/sing-box.exe
  2. its data sub-folder:   $exe_dir/data/sing-box.exe
  3. the Windows search path (PATH of the Wine prefix)
EOF
if [ "$demo" -eq 1 ]; then
  cat <<EOF

DEMO: $exe_dir/sing-box.exe is the project's test stand-in for the real core, not
sing-box. It stays up, serves a controller on 127.0.0.1:19090 with made-up
figures ("x-test-controller" in config.json, which the real core would refuse),
and answers a URL test node after the delay its tag names. To use the real
core, put the Windows sing-box.exe beside build/windows/bin/OrvelVpnHelper.exe
and run this script without --demo.

Paste these (from the project's root):
  curl -s http://127.0.0.1:17891/status
  curl -s --data-binary @$exe_dir/config.json http://127.0.0.1:17891/start
  curl -s http://127.0.0.1:17891/traffic-snapshot
  curl -s -N --data-binary @$exe_dir/urltest.body http://127.0.0.1:17891/urltest
  curl -s -X POST http://127.0.0.1:17891/stop
  curl -s http://127.0.0.1:17891/logs
EOF
fi
echo "ready (Ctrl-C or SIGTERM stops it)"
wait "$helper" || true
echo "OrvelVpnHelper ended by itself (Wine's output: $wine_log)" >&2
exit 1
