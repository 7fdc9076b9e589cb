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
in_scanner() { # privileged|unprivileged command...: runs in the scanner namespace, unprivileged without
  local wrap=()  # the capabilities that allow own ARP requests (and changing the neighbour table)
  [ "$1" = unprivileged ] && wrap=(setpriv --bounding-set -net_raw,-net_admin)
  shift
  ip netns exec "$prefix-scan" "${wrap[@]}" "$@"
}

"$testbed" up --prefix "$prefix" --hosts 12 --hosts2 4 --late 3 --delay 200 || { echo "FAIL: testbed up"; exit 1; }

sweep() { # name privileged|unprivileged: one sweep of both subnets, compared with the live hosts
  local start ms rc=0
  start=$(date +%s%N)
  in_scanner "$2" "$tavrel" scan 198.51.100 203.0.113 >"$work/$1.out" 2>"$work/$1.err" || rc=$?
  ms=$((($(date +%s%N) - start) / 1000000))
  [ $rc -eq 0 ] || fail "$1: exit code $rc: $(cat "$work/$1.err")"
  [ $ms -le 2000 ] || fail "$1: took $ms ms"
  "$testbed" hosts --prefix "$prefix" | awk '{ print $1, $2 }' >"$work/$1.expected"
  if diff -u "$work/$1.expected" "$work/$1.out"; then
    echo "ok: $1 ($2): $(wc -l <"$work/$1.out") hosts with their MACs in $ms ms"
  else
    fail "$1 ($2): found hosts differ from the live ones (- expected, + found)"
  fi
}

sweep first-own-arp privileged
sweep first-table unprivileged
late_hosts=$("$testbed" hosts --prefix "$prefix" | awk '$3 == "late" { print $1 }')
[ -n "$late_hosts" ] || fail "testbed has no late host"
grep -q "^203\.0\.113\." "$work/first-own-arp.out" || fail "nothing found in the second subnet"

# One ordinary and one late host leave. The kernel still holds both as reachable, the case a stale
# cache would get wrong.
gone="198.51.100.5 $(echo "$late_hosts" | head -1)"
"$testbed" depart --prefix "$prefix" $gone
sweep second-table unprivileged
sweep second-own-arp privileged

# Query LAN in the running program, without the privilege of own ARP requests.
"$testbed" hosts --prefix "$prefix" | awk '{ print $1, toupper($2) }' | sort >"$work/expected"
arp_section() { # ini: its [ARP] section as sorted "IP MAC" lines, the scanner's own addresses left out
  tr -d '\r' <"$1" 2>/dev/null | awk '/^\[/ { inArp = (tolower($0) == "[arp]"); next }
    inArp && index($0, "=") > 1 { split($0, kv, "="); print kv[1], kv[2] }' |
    grep -Ev '^(198\.51\.100|203\.0\.113)\.1 ' | sort
}
holds_the_live_hosts() { arp_section "$home/Config/tavrel.ini" >"$work/found" && cmp -s "$work/expected" "$work/found"; }
catches_usr1() { # tavrel itself runs (not the wrapper before it) and has its SIGUSR1 handler
  local mask
  [ "$(readlink "/proc/$pid/exe")" = "$(readlink -f "$tavrel")" ] || return 1
  mask=$(awk '/^SigCgt:/ { print $2 }' "/proc/$pid/status" 2>/dev/null)
  [ -n "$mask" ] && [ $((0x$mask & (1 << 9))) -ne 0 ]
}
exited() { [ ! -e "/proc/$pid" ] || grep -q '^State:[[:space:]]*Z' "/proc/$pid/status" 2>/dev/null; }

home="$work/home" port=$((20000 + RANDOM % 20000)) rc=0
mkdir -p "$home/Config"
printf '[Interface]\nBroadcastAddress=127.0.0.1\nPort=%d\n' "$port" >"$home/Config/zelXap.ini"
printf '[WOL]\nSubnet=198.51.100, 203.0.113\nScanMethod=native\nHTTPPort=%d\n' $((port + 1)) >"$home/Config/tavrel.ini"
ip netns exec "$prefix-scan" setpriv --bounding-set -net_raw,-net_admin "$tavrel" --home "$home" --no-tray \
  >"$home/stdout" 2>&1 &
pid=$!
if wait_for 10 catches_usr1; then
  kill -USR1 "$pid"
  wait_for 15 holds_the_live_hosts || fail "Query LAN: [ARP] is not the live hosts (- expected, + found):
$(diff "$work/expected" "$work/found")"
else
  fail "Query LAN: SIGUSR1 not caught within 10 s"
fi
kill -TERM "$pid"
if wait_for 10 exited; then
  wait "$pid" || rc=$?
  [ $rc -eq 0 ] || fail "Query LAN: exit code $rc after SIGTERM"
else
  fail "Query LAN: still running 10 s after SIGTERM"
fi
pid=""

[ $failures -eq 0 ] || { echo "$failures check(s) failed"; tail -n 15 "$home/stdout" "$home/Data/tavrel.txt" 2>/dev/null; exit 1; }
echo "all sweep checks passed"
