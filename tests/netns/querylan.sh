#!/usr/bin/env bash
# "Query LAN" through the whole program on a namespace testbed: tavrel runs in the scanner namespace
# with a temporary home, is asked to query the LAN (SIGUSR1, the menu entry's signal on Linux), and
# section [ARP] of Config/tavrel.ini must then hold every live host of both subnets with its MAC
# ("-" form, upper case) and no address where no host is - including one that left after the kernel
# had cached it. Run with and without the privilege to send ARP requests; SIGTERM then ends it with 0.
#   usage: querylan.sh PATH/TO/tavrel        exit 77 = skipped
set -uo pipefail

tavrel="${1:?usage: querylan.sh PATH/TO/tavrel}"
testbed="$(cd "$(dirname "$0")/../.." && pwd)/scripts/testbed.sh"

[ "$(id -u)" -eq 0 ] || { echo "SKIP: needs root for network namespaces"; exit 77; }
command -v ip >/dev/null && command -v python3 >/dev/null && command -v setpriv >/dev/null ||
  { echo "SKIP: needs ip, python3 and setpriv"; exit 77; }
ip netns add "qlchk$$" 2>/dev/null && ip netns del "qlchk$$" || { echo "SKIP: network namespaces unavailable"; exit 77; }

prefix="ql$$" work="$(mktemp -d)" pid="" failures=0
cleanup() {
  [ -z "$pid" ] || kill -KILL "$pid" 2>/dev/null
  "$testbed" down --prefix "$prefix" >/dev/null 2>&1
  rm -rf "$work"
}
trap cleanup EXIT INT TERM
fail() { echo "FAIL: $*"; failures=$((failures + 1)); }

wait_for() { # seconds command...: polls the command until it succeeds or the deadline passes
  local until=$(($(date +%s) + $1))
  shift
  until "$@"; do
    [ "$(date +%s)" -le $until ] || return 1
    sleep 0.05
  done
}

"$testbed" up --prefix "$prefix" --hosts 10 --hosts2 3 --late 2 --delay 200 || { echo "FAIL: testbed up"; exit 1; }
# A host the scanner's kernel has cached as reachable, then unplugged: it must not reach [ARP].
ip netns exec "$prefix-scan" setpriv --bounding-set -net_raw,-net_admin "$tavrel" scan 198.51.100 >/dev/null 2>&1
"$testbed" depart --prefix "$prefix" 198.51.100.4
"$testbed" hosts --prefix "$prefix" | awk '{ print $1, toupper($2) }' | sort >"$work/expected"

holds_every_live_host() { # ini: writes its [ARP] section as sorted "IP MAC" lines to $work/found
  tr -d '\r' <"$1" 2>/dev/null | awk '/^\[/ { inArp = (tolower($0) == "[arp]"); next }
    inArp && index($0, "=") > 1 { split($0, kv, "="); print kv[1], kv[2] }' | sort >"$work/found"
  [ -z "$(comm -23 "$work/expected" "$work/found")" ]
}
catches_usr1() { # pid: tavrel itself runs (not the shell or wrapper before it) and has its SIGUSR1 handler
  local mask
  [ "$(readlink "/proc/$1/exe")" = "$(readlink -f "$tavrel")" ] || return 1
  mask=$(awk '/^SigCgt:/ { print $2 }' "/proc/$1/status" 2>/dev/null)
  [ -n "$mask" ] && [ $((0x$mask & (1 << 9))) -ne 0 ]
}
exited() { [ ! -e "/proc/$1" ] || grep -q '^State:[[:space:]]*Z' "/proc/$1/status" 2>/dev/null; }
show() { tail -n 15 "$1/stdout" "$1/Data/tavrel.txt" 2>/dev/null; }

run_program() { # name privileged|unprivileged
  local name="$1 ($2)" home="$work/$1" wrap=() port=$((20000 + RANDOM % 20000)) rc=0
  [ "$2" = unprivileged ] && wrap=(setpriv --bounding-set -net_raw,-net_admin)
  mkdir -p "$home/Config"
  printf '[Interface]\nBroadcastAddress=127.0.0.1\nPort=%d\n' "$port" >"$home/Config/zelXap.ini"
  printf '[WOL]\nSubnet=198.51.100, 203.0.113\nScanMethod=native\nHTTPPort=%d\n' $((port + 1)) \
    >"$home/Config/tavrel.ini"
  ip netns exec "$prefix-scan" "${wrap[@]}" "$tavrel" --home "$home" --no-tray >"$home/stdout" 2>&1 &
  pid=$!
  if ! wait_for 10 catches_usr1 "$pid"; then
    fail "$name: SIGUSR1 not caught within 10 s"; show "$home"; kill -KILL "$pid"; wait "$pid"; pid=""; return
  fi
  kill -USR1 "$pid"
  if wait_for 15 holds_every_live_host "$home/Config/tavrel.ini"; then
    echo "ok: $name: [ARP] holds all $(wc -l <"$work/expected") live hosts"
  else
    fail "$name: live hosts missing from [ARP] after 15 s: $(comm -23 "$work/expected" "$work/found" | tr '\n' ' ')"
    show "$home"
  fi
  # Nothing where no host is; the scanner's own addresses may be listed.
  local extra
  extra=$(comm -13 "$work/expected" "$work/found" | grep -Ev '^(198\.51\.100|203\.0\.113)\.1 ' | tr '\n' ' ')
  [ -z "$extra" ] || fail "$name: [ARP] lists addresses where no host is: $extra"
  kill -TERM "$pid"
  if wait_for 10 exited "$pid"; then
    wait "$pid" || rc=$?
    [ $rc -eq 0 ] || { fail "$name: exit code $rc after SIGTERM"; show "$home"; }
  else
    fail "$name: still running 10 s after SIGTERM"; kill -KILL "$pid"; wait "$pid"
  fi
  pid=""
}

run_program own-arp privileged
run_program table unprivileged

[ $failures -eq 0 ] || { echo "$failures check(s) failed"; exit 1; }
echo "all Query LAN checks passed"
