#!/usr/bin/env bash
# The Windows program under Wine, end to end on loopback: tavrel.exe starts with a temporary home behind
# this script's stand-in hub (which hears its heartbeats), serves the page, and ends through the menu's
# "Exit" when the session ends (`wineboot --end-session`; a GUI program gets no Ctrl+C): exit code 0 and
# the "stopped" heartbeat. Without a display it runs itself again in a virtual X display. Then with
# ScriptPages=1 and the framework pages of framework/: once with Wine's VBScript engine (a looping script
# stopped after ScriptTimeout), once without it (no answer, the failure reported).
#   usage: smoke.sh PATH/TO/tavrel.exe        (Wine's prefix: $WINEPREFIX, else the exe's folder/wineprefix)
set -uo pipefail

exe="$(readlink -f "${1:?usage: smoke.sh PATH/TO/tavrel.exe}")"
export WINEPREFIX="${WINEPREFIX:-$(dirname "$exe")/wineprefix}" WINEDEBUG="${WINEDEBUG:--all,err+module}"
export WINEDLLOVERRIDES="${WINEDLLOVERRIDES:-mscoree,mshtml=}"
wine=/usr/lib/wine/wine64
if [ -z "${DISPLAY:-}" ]; then
  wineserver -w 2>/dev/null  # a Wine session started without a display would keep running without one
  exec xvfb-run -a "$0" "$@"
fi
work="$(mktemp -d)" pid="" listener=""
cleanup() {
  [ -z "$pid" ] || kill -KILL "$pid" 2>/dev/null
  [ -z "$listener" ] || kill "$listener" 2>/dev/null
  wineserver -w 2>/dev/null
  rm -rf "$work"
}
trap cleanup EXIT INT TERM
# shellcheck source=tests/support/checks.sh
. "$(dirname "$0")/../support/checks.sh"
# The hub: holds an xAP port on 127.0.0.1 and appends every datagram to heard.txt, one per line; ports.txt
# gets its port and one the system had free for the web server.
python3 - "$work" <<'EOF' &
import socket, sys
s, web = socket.socket(socket.AF_INET, socket.SOCK_DGRAM), socket.socket()
s.bind(("127.0.0.1", 0)), web.bind(("127.0.0.1", 0))
open(sys.argv[1] + "/ports.txt", "w").write("%d %d\n" % (s.getsockname()[1], web.getsockname()[1]))
web.close()
with open(sys.argv[1] + "/heard.txt", "ab", buffering=0) as out:
    while True:
        out.write(s.recv(65536).replace(b"\n", b"|") + b"\n")
EOF
listener=$!
wait_for 10 grep -qs . "$work/ports.txt" || fail "the test hub took no xAP port"
read -r xap_port http_port <"$work/ports.txt"
home="$work/home"
mkdir -p "$home/Config"
printf '[Interface]\r\nBroadcastAddress=127.0.0.1\r\nPort=%d\r\n' "$xap_port" >"$home/Config/zelXap.ini"
printf '[WOL]\r\nHTTPPort=%d\r\nSubnet=127.0.0\r\nScanMethod=native\r\n' "$http_port" >"$home/Config/tavrel.ini"

start() { # starts tavrel.exe on the home; extra arguments are environment settings for Wine; tray=1: with its icon
  local options=(--no-tray)
  [ -z "${tray:-}" ] || options=()
  env "$@" "$wine" "$exe" --home "Z:${home//\//\\}" "${options[@]}" >"$work/stdout" 2>&1 &
  pid=$!
}
stop() { # the session ends: the menu's Exit, exit code 0 and the "stopped" heartbeat
  : >"$work/heard.txt"
  "$wine" wineboot --end-session
  ended 20 || { fail "still running 20 s after the session's end"; return; }
  [ "$rc" -eq 0 ] || fail "exit code $rc after the session's end"
  wait_for 5 grep -q 'class=xap-hbeat.stopped' "$work/heard.txt" || fail "no 'stopped' heartbeat: not the Exit path"
}
page() { curl -s -i --max-time 5 -A "${agent:-smoke}" "http://127.0.0.1:$http_port/wol${query:-}" >"$work/page" 2>/dev/null; }
body_has() { grep -qF -- "$1" "$work/page" || fail "${2:-the page} lacks: $1"; }

# No console window of its own: the PE header's subsystem is 2 (Windows GUI), not 3 (console)...
subsystem=$(python3 -c 'import struct,sys; d=open(sys.argv[1],"rb").read(4096); print(struct.unpack_from("<H", d, struct.unpack_from("<I", d, 0x3c)[0] + 92)[0])' "$exe")
[ "$subsystem" = 2 ] || fail "tavrel.exe is not a GUI program: PE subsystem $subsystem"
# ...and it still writes to the console or file it was given.
"$wine" "$exe" --version >"$work/version" 2>&1
grep -q '^tavrel [0-9]' "$work/version" || fail "--version printed nothing: $(cat "$work/version")"

tray=1 start
if wait_for 60 page; then
  [ "$(head -n 1 "$work/page")" = $'HTTP/1.1 200 OK\r' ] || fail "the answer does not start with HTTP/1.1 200 OK: $(head -n 1 "$work/page")"
  version=$(grep -o '<title>Tavrel V[0-9.]*' "$work/page" | sed 's/.* V//')
else
  fail "no answer on http://127.0.0.1:$http_port/wol"
fi
wait_for 10 grep -q 'class=xap-hbeat.alive' "$work/heard.txt" || fail "no heartbeat heard on 127.0.0.1:$xap_port"
grep -q '^tavrel: xAP node ' "$work/stdout" || fail "no start line on standard error"
stop
# The icon was shown (the program logs when it is not) and went with the session's end.
! grep -i 'tray icon\|notification area' "$home/Data/tavrel.txt" 2>/dev/null || fail "no tray icon under Wine's desktop"

# The framework's routines make the head, the cells and the foot, and read and write through hs, Request
# and Response; a visitor the security check turns away gets the script's own answer and nothing else.
cp -r "$(dirname "$0")/framework/." "$home/"
printf 'ScriptPages=1\r\nScriptTimeout=1000\r\n' >>"$home/Config/tavrel.ini"
start
if wait_for 60 page; then
  body_has "<html><head><title>Framework V$version</title><link rel='stylesheet' href='/StyleNoBody.css'></head><body>"
  body_has "<td class='framework-tableroweven'><input type='submit' name ='UpdateButton' value='Refresh'></td>"
  body_has "</center></div><p>1 visits, the last with </p></body></html>"
  query='?from=query' page
  body_has "<p>2 visits, the last with query</p>"
  agent=Blocked page
  [ "$(sed -n '/^\r$/,$p' "$work/page" | tail -n +2)" = "<html><body>No entry for 127.0.0.1</body></html>" ] ||
    fail "the turned-away visitor got more than the script's answer: $(cat "$work/page")"
  # The header step writes the count after the turned-away visitor's answer has gone out.
  wait_for 5 grep -q '^VISITS=3' "$home/Config/tavrel.ini" || fail "the scripts' visit count did not reach tavrel.ini"
  # The framework's security check loops for this visitor: stopped after a second, reported, and the next
  # visitor is served as before.
  : >"$work/heard.txt"
  agent=Loop page
  [ ! -s "$work/page" ] || fail "the looping visit was answered: $(cat "$work/page")"
  wait_for 5 grep -q "Script timed out after 1000 ms" "$work/heard.txt" ||
    fail "no report of the looping script: $(cat "$work/heard.txt")"
  page
  body_has "<p>4 visits, the last with </p>" "the page after the looping visit"
else
  fail "no answer from the script pages: $(cat "$work/stdout")"
fi
stop

start WINEDLLOVERRIDES="$WINEDLLOVERRIDES;vbscript="
listening() { (exec 3<>"/dev/tcp/127.0.0.1/$http_port") 2>/dev/null; }
wait_for 60 listening || fail "no web server without the script engine"
! page && [ ! -s "$work/page" ] || fail "a page was answered without the script engine: $(cat "$work/page")"
wait_for 5 grep -q "HTMLInit: ActiveX component can't create object" "$work/heard.txt" ||
  fail "no HTMLInit report without the script engine: $(cat "$work/heard.txt")"
stop

[ "$failures" -eq 0 ] || { tail -n +1 "$work/stdout" "$work/heard.txt"; exit 1; }
echo "PASS: tavrel.exe (GUI) served /wol on 127.0.0.1:$http_port, built-in and through script pages, and ended cleanly with the session"
