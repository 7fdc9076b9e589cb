#!/usr/bin/env bash
# "Query LAN" through the whole program on a namespace testbed: tavrel runs in the scanner namespace
# with a temporary home, is asked to query the LAN (SIGUSR1, the menu entry's signal on Linux), and
# section [ARP] of Config/tavrel.ini must then hold every live host of both subnets with its MAC
# ("-" form, upper case) and no address where no host is - including one that left after the kernel
# had cached it. Run with and without the privilege to send ARP requests; SIGTERM then ends it with 0.
#   usage: querylan.sh PATH/TO/tavrel        exit 77 = skipped
set -uo pipefail

tavrel="${1:?usage: querylan.sh PATH/TO/tavrel}"
root="$(cd "$(dirname "$0")/../.." && pwd)"
testbed="$root/scripts/testbed.sh"

[ "$(id -u)" -eq 0 ] || { echo "SKIP: needs root for network namespaces"; exit 77; }
command -v ip >/dev/null && command -v python3 >/dev/null || { echo "SKIP: needs ip and python3"; exit 77; }
ip netns add "qlchk$$" 2>/dev/null && ip netns del "qlchk$$" || { echo "SKIP: network namespaces unavailable"; exit 77; }

prefix="ql$$"
work="$(mktemp -d)"
pid=""
cleanup() {
  if [ -n "$pid" ] && kill -0 "$pid" 2>/dev/null; then kill -KILL "$pid" 2>/dev/null; fi
  "$testbed" down --prefix "$prefix" >/dev/null 2>&1
  rm -rf "$work"
}
trap cleanup EXIT INT TERM

failures=0
fail() { echo "FAIL: $*"; failures=$((failures + 1)); }

# Polls a command until it succeeds or the deadline (seconds) passes.
wait_for() { # seconds command...
  local until=$(($(date +%s%N) + $1 * 1000000000))
  shift
  until "$@"; do
    [ "$(date +%s%N)" -lt $until ] || return 1
    sleep 0.05
  done
}

"$testbed" up --prefix "$prefix" --hosts 10 --hosts2 3 --late 2 --delay 200 || { echo "FAIL: testbed up"; exit 1; }

# A host the scanner's kernel has cached as reachable, then unplugged: it must not reach [ARP].
gone=198.51.100.4
ip netns exec "$prefix-scan" setpriv --bounding-set -net_raw,-net_admin "$tavrel" scan 198.51.100 \
  >/dev/null 2>&1 || true
"$testbed" depart --prefix "$prefix" "$gone"

"$testbed" hosts --prefix "$prefix" | awk '{ print $1, toupper($2) }' | sort >"$work/expected"

# The [ARP] section of an INI file as sorted "IP MAC" lines.
arp_section() {
  tr -d '\r' <"$1" 2>/dev/null | awk '
    /^\[/ { inArp = (tolower($0) == "[arp]"); next }
    inArp && index($0, "=") > 1 { split($0, kv, "="); print kv[1], kv[2] }' | sort
}

holds_every_live_host() { # ini
  arp_section "$1" >"$work/found"
  [ -z "$(comm -23 "$work/expected" "$work/found")" ]
}

handles_usr1() { # pid: the program has installed its handler for SIGUSR1
  local mask
  mask=$(awk '/^SigCgt:/ { print $2 }' "/proc/$1/status" 2>/dev/null) || return 1
  [ -n "$mask" ] && [ $((0x$mask & (1 << 9))) -ne 0 ]
}

show_program() { # home: what the program printed and logged
  echo "--- program output:"; cat "$1/stdout"
  echo "--- log:"; cat "$1/Data/tavrel.txt" 2>/dev/null
  echo "--- Config/tavrel.ini:"; cat "$1/Config/tavrel.ini"
}

exited() { # pid: gone, or a zombie waiting for us
  [ ! -e "/proc/$1" ] || grep -q '^State:[[:space:]]*Z' "/proc/$1/status" 2>/dev/null
}

run_program() { # name privileged|unprivileged
  local name="$1" home="$work/$1" wrap=()
  [ "$2" = unprivileged ] && wrap=(setpriv --bounding-set -net_raw,-net_admin)
  mkdir -p "$home/Config"
  local port=$((20000 + RANDOM % 20000))
  printf '[Interface]\nBroadcastAddress=127.0.0.1\nPort=%d\n' "$port" >"$home/Config/zelXap.ini"
  printf '[WOL]\nSubnet=198.51.100, 203.0.113\nScanMethod=native\nHTTPPort=%d\n' $((port + 1)) \
    >"$home/Config/tavrel.ini"

  ip netns exec "$prefix-scan" "${wrap[@]}" "$tavrel" --home "$home" --no-tray >"$home/stdout" 2>&1 &
  pid=$!
  if ! wait_for 10 handles_usr1 "$pid"; then
    fail "$name: program not ready for SIGUSR1 within 10 s: $(cat "$home/stdout")"
    kill -KILL "$pid" 2>/dev/null
    pid=""
    return
  fi
  local start end
  start=$(date +%s%N)
  kill -USR1 "$pid"
  if wait_for 15 holds_every_live_host "$home/Config/tavrel.ini"; then
    end=$(date +%s%N)
    echo "ok: $name ($2): [ARP] holds all $(wc -l <"$work/expected") live hosts $(((end - start) / 1000000)) ms after Query LAN"
  else
    fail "$name ($2): live hosts missing from [ARP] after 15 s:"
    comm -23 "$work/expected" "$work/found"
    show_program "$home"
  fi
  # Nothing where no host is; this machine's own addresses may be listed.
  local extra
  extra=$(comm -13 "$work/expected" "$work/found" | grep -Ev '^(198\.51\.100|203\.0\.113)\.1 ')
  [ -z "$extra" ] || fail "$name: [ARP] lists addresses where no host is: $extra"

  kill -TERM "$pid"
  local rc=0
  if wait_for 10 exited "$pid"; then
    wait "$pid"
    rc=$?
    [ $rc -eq 0 ] || { fail "$name: exit code $rc after SIGTERM"; show_program "$home"; }
  else
    fail "$name: still running 10 s after SIGTERM"
    kill -KILL "$pid" 2>/dev/null
  fi
  pid=""
}

run_program own-arp privileged
if command -v setpriv >/dev/null; then
  run_program table unprivileged
else
  echo "note: no setpriv, the unprivileged path is not checked"
fi

if [ $failures -gt 0 ]; then
  echo "$failures check(s) failed"
  exit 1
fi
echo "all Query LAN checks passed"
