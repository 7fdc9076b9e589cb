#!/usr/bin/env bash
# The native sweep on a namespace testbed. `tavrel scan` must list every live host with its MAC, two
# subnets at once, hosts that answer ARP 200 ms late, and no host that has left since the previous sweep,
# both with the program's own ARP requests (root) and without the privilege to send them (the neighbour
# table path). Then "Query LAN" through the whole program (SIGUSR1, the menu entry's signal on Linux):
# section [ARP] of Config/tavrel.ini must hold exactly the live hosts. Presence in the same run
# ("ScanInterval" 10, "AwayAfter" 25): a host unplugged turns red on the page after AwayAfter and not
# before, one that misses every other sweep never does, one plugged back in is green within an interval
# and a second; a host that is off keeps its MAC and WOL button after "Query LAN", and the button puts the
# magic packet on the wire, as do `tavrel wake`, the JSON interface's wake and the wake button pressed over
# MQTT (a broker in the scanner namespace).
# SIGTERM ends it with 0.
#   usage: sweep.sh PATH/TO/tavrel        exit 77 = skipped
set -uo pipefail

tavrel="${1:?usage: sweep.sh PATH/TO/tavrel}"
testbed="$(cd "$(dirname "$0")/../.." && pwd)/scripts/testbed.sh"

[ "$(id -u)" -eq 0 ] || { echo "SKIP: needs root for network namespaces"; exit 77; }
command -v ip >/dev/null && command -v python3 >/dev/null && command -v setpriv >/dev/null ||
  { echo "SKIP: needs ip, python3 and setpriv"; exit 77; }
ip netns add "swchk$$" 2>/dev/null && ip netns del "swchk$$" || { echo "SKIP: network namespaces unavailable"; exit 77; }

prefix="sw$$" work="$(mktemp -d)" pid="" broker=""
cleanup() {
  [ -z "$pid" ] || kill -KILL "$pid" 2>/dev/null
  [ -z "$broker" ] || kill "$broker" 2>/dev/null
  "$testbed" down --prefix "$prefix" >/dev/null 2>&1
  rm -rf "$work"
}
trap cleanup EXIT INT TERM
# shellcheck source=tests/support/checks.sh
. "$(dirname "$0")/../support/checks.sh"
# privileged|unprivileged command...: in the scanner namespace, unprivileged without the capabilities
# that allow own ARP requests (and changing the neighbour table)
in_scanner() {
  local wrap=()
  [ "$1" = unprivileged ] && wrap=(setpriv --bounding-set -net_raw,-net_admin)
  ip netns exec "$prefix-scan" "${wrap[@]}" "${@:2}"
}
live() { "$testbed" hosts --prefix "$prefix"; }

"$testbed" up --prefix "$prefix" --hosts 12 --hosts2 4 --late 3 --delay 200 || { echo "FAIL: testbed up"; exit 1; }

sweep() { # name privileged|unprivileged: one sweep of both subnets within 2 s, compared with the live hosts
  local rc=0
  in_scanner "$2" timeout 2 "$tavrel" scan 198.51.100 203.0.113 >"$work/$1.out" 2>"$work/$1.err" || rc=$?
  [ $rc -eq 0 ] || fail "$1: exit code $rc (124: over 2 s): $(cat "$work/$1.err")"
  live | awk '{ print $1, $2 }' | diff -u - "$work/$1.out" || fail "$1 ($2): not the live hosts (- live, + found)"
}

sweep first-own-arp privileged
sweep first-table unprivileged
grep -q "^203\.0\.113\." "$work/first-own-arp.out" || fail "nothing found in the second subnet"

# One ordinary and one late host leave. The kernel still holds both as reachable, the case a stale
# cache would get wrong.
late=$(live | awk '$3 == "late" { print $1; exit }')
[ -n "$late" ] || fail "testbed has no late host"
"$testbed" depart --prefix "$prefix" 198.51.100.5 $late
sweep second-table unprivileged
sweep second-own-arp privileged

# Query LAN in the running program, without the privilege of own ARP requests.
live | awk '{ print $1, toupper($2) }' | sort >"$work/expected"
holds_the_live_hosts() { # [ARP] of tavrel.ini as sorted "IP MAC" lines, the scanner's own addresses left out
  tr -d '\r' <"$home/Config/tavrel.ini" 2>/dev/null | awk '/^\[/ { inArp = (tolower($0) == "[arp]"); next }
    inArp && index($0, "=") > 1 { split($0, kv, "="); print kv[1], kv[2] }' |
    grep -Ev '^(198\.51\.100|203\.0\.113)\.1 ' | sort >"$work/found"
  cmp -s "$work/expected" "$work/found"
}
catches_usr1() { # tavrel itself runs (not the wrapper before it) and has its SIGUSR1 handler
  local mask
  [ "$(readlink "/proc/$pid/exe")" = "$(readlink -f "$tavrel")" ] || return 1
  mask=$(awk '/^SigCgt:/ { print $2 }' "/proc/$pid/status" 2>/dev/null)
  [ -n "$mask" ] && [ $((0x$mask & (1 << 9))) -ne 0 ]
}

home="$work/home" port=$((20000 + RANDOM % 20000))
mkdir -p "$home/Config"
printf '[Interface]\nBroadcastAddress=127.0.0.1\nPort=%d\n' "$port" >"$home/Config/zelXap.ini"
printf '[WOL]\nSubnet=198.51.100, 203.0.113\nScanMethod=native\nHTTPPort=%d\nScanInterval=10\nAwayAfter=25\n' \
  $((port + 1)) >"$home/Config/tavrel.ini"
if command -v mosquitto >/dev/null && command -v mosquitto_pub >/dev/null; then
  printf 'user root\nlistener %d 127.0.0.1\nallow_anonymous true\npersistence false\n' $((port + 2)) >"$work/broker.conf"
  ip netns exec "$prefix-scan" mosquitto -c "$work/broker.conf" >/dev/null 2>&1 &
  broker=$!
  printf '[MQTT]\nMQTTBroker=127.0.0.1:%d\n' $((port + 2)) >>"$home/Config/tavrel.ini"
fi
ip netns exec "$prefix-scan" setpriv --bounding-set -net_raw,-net_admin "$tavrel" --home "$home" --no-tray \
  >"$home/stdout" 2>&1 &
pid=$!
if wait_for 10 catches_usr1; then
  kill -USR1 "$pid"
  wait_for 15 holds_the_live_hosts || fail "Query LAN: [ARP] is not the live hosts: $(diff "$work/expected" "$work/found")"
else
  fail "Query LAN: SIGUSR1 not caught within 10 s"
fi
# The page's rows as "IP light MAC WOL|- key", and its WOL button pressed for an address.
page() { in_scanner privileged python3 "$(dirname "$0")/../support/page.py" $((port + 1)) "$@"; }
light() { page rows 2>/dev/null | awk -v ip="$1" '$1 == ip { print $2 }'; }
is_light() { [ "$(light "$1")" = "$2" ]; }
now() { date +%s.%N; }

off=198.51.100.6 flapping=198.51.100.8 listener="$prefix-h1"
wait_for 15 is_light $off Green && wait_for 15 is_light $flapping Green || fail "presence: live hosts not green: $(page rows)"
# The flapping host is unplugged 9 s of every 20: every other sweep misses it.
( for _ in 1 2 3; do sleep 11; "$testbed" unplug --prefix "$prefix" $flapping; sleep 9; "$testbed" plug --prefix "$prefix" $flapping; done ) &
toggler=$!
"$testbed" unplug --prefix "$prefix" $off
unplugged=$(now) red=""
while [ "$(python3 -c "print(int($(now) - $unplugged < 40))")" = 1 ]; do
  rows=$(page rows)
  [ "$(awk -v ip=$flapping '$1 == ip { print $2 }' <<<"$rows")" = Red ] && { fail "presence: a host missing every other sweep turned red"; break; }
  if [ -z "$red" ] && [ "$(awk -v ip=$off '$1 == ip { print $2 }' <<<"$rows")" = Red ]; then
    red=$(python3 -c "print(round($(now) - $unplugged, 1))")
  fi
  sleep 0.5
done
echo "presence: unplugged host red after $red s (AwayAfter 25, ScanInterval 10)"
[ -n "$red" ] || fail "presence: unplugged host not red within 40 s"
[ -z "$red" ] || python3 -c "import sys; sys.exit(0 if 14 <= $red <= 30 else 1)" || fail "presence: red after $red s, not after AwayAfter"

# Query LAN while it is off: its MAC and WOL button stay, and the button wakes it.
kill -USR1 "$pid"
sleep 3
page rows >"$work/rows"
grep -q "^$off Red 02-00-C6-33-64-06 WOL " "$work/rows" || fail "Query LAN: the computer that is off lost its MAC or WOL button: $(grep "^$off " "$work/rows")"
grep -q "^203\.0\.113\.2 Green 02-00-CB-00-71-02 WOL " "$work/rows" || fail "Query LAN: the second subnet lost its MACs"
wakes() { # what command...: the command puts the magic packet for $off on the wire
  ip netns exec "$listener" python3 -c 'import socket; s = socket.socket(socket.AF_INET, socket.SOCK_DGRAM); s.bind(("0.0.0.0", 7)); s.settimeout(10); print(s.recvfrom(512)[0].hex())' >"$work/magic" 2>&1 &
  local listening=$!
  sleep 0.5
  "${@:2}" || fail "$1: press failed"
  wait $listening
  [ "$(cat "$work/magic")" = "ffffffffffff$(printf '0200c6336406%.0s' {1..16})" ] || fail "$1: no magic packet for $off: $(cat "$work/magic")"
}
wakes "WOL button" page wake $off "198.51.100, 203.0.113"
wakes "wake command" in_scanner privileged "$tavrel" wake 02:00:c6:33:64:06 $off
wakes "JSON wake" in_scanner privileged python3 -c "import urllib.request as u; u.urlopen(u.Request(
  'http://127.0.0.1:$((port + 1))/api/wake?computer=02:00:c6:33:64:06', method='POST'), timeout=5)"
# The hub's button for it: topic tavrel/<this machine's name>/<MAC digits>/wake.
if [ -n "$broker" ]; then
  node=$(hostname | cut -d. -f1 | tr 'A-Z' 'a-z' | sed 's/[^a-z0-9_-]/_/g')
  wakes "MQTT wake button" ip netns exec "$prefix-scan" mosquitto_pub -p $((port + 2)) -t "tavrel/$node/0200c6336406/wake" -m PRESS
else
  echo "no MQTT wake button: mosquitto is not installed"
fi

"$testbed" plug --prefix "$prefix" $off
plugged=$(now)
wait_for 12 is_light $off Green || fail "presence: host plugged back in not green within 12 s"
echo "presence: host plugged back in green after $(python3 -c "print(round($(now) - $plugged, 1))") s"
wait $toggler

kill -TERM "$pid"
ended 10
[ "$rc" = 0 ] || fail "Query LAN: exit code $rc after SIGTERM"

[ $failures -eq 0 ] || { echo "$failures check(s) failed"; tail -n 15 "$home/stdout" "$home/Data/tavrel.txt" 2>/dev/null; exit 1; }
echo "all sweep checks passed"
