#!/usr/bin/env bash
# The native sweep on a namespace testbed. `tavrel scan` must list every live host with its MAC, two
# subnets at once, hosts that answer ARP 200 ms late, and no host that has left since the previous sweep,
# both with the program's own ARP requests (root) and without the privilege to send them (the neighbour
# table path). Then "Query LAN" through the whole program (SIGUSR1, the menu entry's signal on Linux):
# section [ARP] of Config/tavrel.ini must hold exactly the live hosts, and SIGTERM ends it with 0.
#   usage: sweep.sh PATH/TO/tavrel        exit 77 = skipped
set -uo pipefail

tavrel="${1:?usage: sweep.sh PATH/TO/tavrel}"
testbed="$(cd "$(dirname "$0")/../.." && pwd)/scripts/testbed.sh"

[ "$(id -u)" -eq 0 ] || { echo "SKIP: needs root for network namespaces"; exit 77; }
command -v ip >/dev/null && command -v python3 >/dev/null && command -v setpriv >/dev/null ||
  { echo "SKIP: needs ip, python3 and setpriv"; exit 77; }
ip netns add "swchk$$" 2>/dev/null && ip netns del "swchk$$" || { echo "SKIP: network namespaces unavailable"; exit 77; }

prefix="sw$$" work="$(mktemp -d)" pid=""
cleanup() {
  [ -z "$pid" ] || kill -KILL "$pid" 2>/dev/null
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
printf '[WOL]\nSubnet=198.51.100, 203.0.113\nScanMethod=native\nHTTPPort=%d\n' $((port + 1)) >"$home/Config/tavrel.ini"
ip netns exec "$prefix-scan" setpriv --bounding-set -net_raw,-net_admin "$tavrel" --home "$home" --no-tray \
  >"$home/stdout" 2>&1 &
pid=$!
if wait_for 10 catches_usr1; then
  kill -USR1 "$pid"
  wait_for 15 holds_the_live_hosts || fail "Query LAN: [ARP] is not the live hosts: $(diff "$work/expected" "$work/found")"
else
  fail "Query LAN: SIGUSR1 not caught within 10 s"
fi
kill -TERM "$pid"
ended 10
[ "$rc" = 0 ] || fail "Query LAN: exit code $rc after SIGTERM"

[ $failures -eq 0 ] || { echo "$failures check(s) failed"; tail -n 15 "$home/stdout" "$home/Data/tavrel.txt" 2>/dev/null; exit 1; }
echo "all sweep checks passed"
