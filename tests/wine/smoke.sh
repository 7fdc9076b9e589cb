#!/usr/bin/env bash
# The Windows program under Wine, end to end on loopback: tavrel.exe starts with a temporary home, takes
# the hub-client port because this script holds the xAP port (and so hears its heartbeats), serves the
# management page, and ends through the menu's "Exit" on Ctrl-C (Wine turns SIGINT into the console's
# CTRL_C_EVENT): exit code 0 and the "stopped" heartbeat prove the clean way out.
#   usage: smoke.sh PATH/TO/tavrel.exe        (Wine's prefix: $WINEPREFIX, else the exe's folder/wineprefix)
set -uo pipefail

exe="$(readlink -f "${1:?usage: smoke.sh PATH/TO/tavrel.exe}")"
export WINEPREFIX="${WINEPREFIX:-$(dirname "$exe")/wineprefix}" WINEDEBUG="${WINEDEBUG:--all,err+module}"
export WINEDLLOVERRIDES="${WINEDLLOVERRIDES:-mscoree,mshtml=}"
wine=/usr/lib/wine/wine64
work="$(mktemp -d)" pid="" listener="" failures=0
cleanup() {
  [ -z "$pid" ] || kill -KILL "$pid" 2>/dev/null
  [ -z "$listener" ] || kill "$listener" 2>/dev/null
  wineserver -w 2>/dev/null
  rm -rf "$work"
}
trap cleanup EXIT INT TERM
fail() { echo "FAIL: $*"; failures=$((failures + 1)); }
wait_for() { # seconds command...: polls the command until it succeeds or the deadline passes
  local until=$(($(date +%s) + $1))
  shift
  until "$@"; do
    [ "$(date +%s)" -le $until ] || return 1
    sleep 0.1
  done
}
free_port() { python3 -c 'import socket,sys; s=socket.socket(socket.AF_INET, getattr(socket, sys.argv[1])); s.bind(("127.0.0.1",0)); print(s.getsockname()[1])' "$1"; }

xap_port=$(free_port SOCK_DGRAM) http_port=$(free_port SOCK_STREAM)
home="$work/home"
mkdir -p "$home/Config"
printf '[Interface]\r\nBroadcastAddress=127.0.0.1\r\nPort=%d\r\n' "$xap_port" >"$home/Config/zelXap.ini"
printf '[WOL]\r\nHTTPPort=%d\r\nSubnet=127.0.0\r\nScanMethod=native\r\n' "$http_port" >"$home/Config/tavrel.ini"

# Holds the xAP port on 127.0.0.1 and appends every datagram to heard.txt, one per line.
python3 - "$xap_port" "$work/heard.txt" <<'EOF' &
import socket, sys
s = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
s.bind(("127.0.0.1", int(sys.argv[1])))
with open(sys.argv[2], "ab", buffering=0) as out:
    while True:
        out.write(s.recv(65536).replace(b"\n", b"|") + b"\n")
EOF
listener=$!
port_taken() { ! python3 -c 'import socket,sys; socket.socket(socket.AF_INET, socket.SOCK_DGRAM).bind(("127.0.0.1", int(sys.argv[1])))' "$1" 2>/dev/null; }
wait_for 10 port_taken "$xap_port" || fail "the test listener did not take the xAP port"

"$wine" "$exe" --home "Z:${home//\//\\}" --no-tray >"$work/stdout" 2>&1 &
pid=$!

page() { curl -s -i --max-time 5 "http://127.0.0.1:$http_port/wol" >"$work/page" 2>/dev/null; }
if wait_for 60 page; then
  [ "$(head -n 1 "$work/page")" = $'HTTP/1.1 200 OK\r' ] || fail "the answer does not start with HTTP/1.1 200 OK: $(head -n 1 "$work/page")"
  grep -qi '<table' "$work/page" || fail "the page holds no table"
else
  fail "no answer on http://127.0.0.1:$http_port/wol"
fi
wait_for 10 grep -q 'class=xap-hbeat.alive' "$work/heard.txt" || fail "no heartbeat heard on 127.0.0.1:$xap_port"

kill -INT "$pid"
if wait_for 20 sh -c "! kill -0 $pid 2>/dev/null"; then
  wait "$pid"
  rc=$?
  pid=""
  [ "$rc" -eq 0 ] || fail "exit code $rc after Ctrl-C"
  wait_for 5 grep -q 'class=xap-hbeat.stopped' "$work/heard.txt" || fail "no 'stopped' heartbeat: not the Exit path"
else
  fail "still running 20 s after Ctrl-C"
fi

if [ "$failures" -ne 0 ]; then
  echo "--- program output"
  cat "$work/stdout"
  echo "--- heard"
  cat "$work/heard.txt" 2>/dev/null
  exit 1
fi
echo "PASS: tavrel.exe served /wol on 127.0.0.1:$http_port and ended cleanly on Ctrl-C"
