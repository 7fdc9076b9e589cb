#!/usr/bin/env bash
# `tavrel scan` on a namespace testbed: every live host with its MAC, two subnets at once, hosts that
# answer ARP 200 ms late, and no host that has left since the previous sweep, both with the program's
# own ARP requests (root) and without the privilege to send them (the neighbour table path).
#   usage: sweep.sh PATH/TO/tavrel        exit 77 = skipped
set -uo pipefail

tavrel="${1:?usage: sweep.sh PATH/TO/tavrel}"
root="$(cd "$(dirname "$0")/../.." && pwd)"
testbed="$root/scripts/testbed.sh"

[ "$(id -u)" -eq 0 ] || { echo "SKIP: needs root for network namespaces"; exit 77; }
command -v ip >/dev/null && command -v python3 >/dev/null || { echo "SKIP: needs ip and python3"; exit 77; }
ip netns add "swchk$$" 2>/dev/null && ip netns del "swchk$$" || { echo "SKIP: network namespaces unavailable"; exit 77; }

prefix="sw$$"
work="$(mktemp -d)"
cleanup() { "$testbed" down --prefix "$prefix" >/dev/null 2>&1; rm -rf "$work"; }
trap cleanup EXIT INT TERM

failures=0
fail() { echo "FAIL: $*"; failures=$((failures + 1)); }

"$testbed" up --prefix "$prefix" --hosts 12 --hosts2 4 --late 3 --delay 200 || { echo "FAIL: testbed up"; exit 1; }

# Runs one sweep of both subnets in the scanner namespace; unprivileged drops the capabilities that
# allow own ARP requests (and changing the neighbour table).
sweep() { # name privileged|unprivileged
  local wrap=()
  if [ "$2" = unprivileged ]; then wrap=(setpriv --bounding-set -net_raw,-net_admin); fi
  local start end rc
  start=$(date +%s%N)
  ip netns exec "$prefix-scan" "${wrap[@]}" "$tavrel" scan 198.51.100 203.0.113 >"$work/$1.out" 2>"$work/$1.err"
  rc=$?
  end=$(date +%s%N)
  [ $rc -eq 0 ] || fail "$1: exit code $rc: $(cat "$work/$1.err")"
  local ms=$(((end - start) / 1000000))
  [ $ms -le 2000 ] || fail "$1: took $ms ms"
  "$testbed" hosts --prefix "$prefix" | awk '{ print $1, $2 }' >"$work/$1.expected"
  if diff -u "$work/$1.expected" "$work/$1.out" >"$work/$1.diff"; then
    echo "ok: $1 ($2): $(wc -l <"$work/$1.out") hosts with their MACs in $ms ms"
  else
    fail "$1 ($2): found hosts differ from the live ones (- expected, + found):"
    cat "$work/$1.diff"
  fi
}

have_setpriv=1
command -v setpriv >/dev/null || { have_setpriv=0; echo "note: no setpriv, the unprivileged path is not checked"; }

sweep first-own-arp privileged
[ $have_setpriv -eq 1 ] && sweep first-table unprivileged
late_hosts=$("$testbed" hosts --prefix "$prefix" | awk '$3 == "late" { print $1 }')
[ -n "$late_hosts" ] || fail "testbed has no late host"
for ip in $late_hosts; do
  grep -q "^$ip " "$work/first-own-arp.out" || fail "late host $ip not found"
done
grep -q "^203\.0\.113\." "$work/first-own-arp.out" || fail "nothing found in the second subnet"

# One ordinary and one late host leave. The kernel still holds both as reachable, the case a stale
# cache would get wrong.
gone_normal=198.51.100.5
gone_late=$(echo "$late_hosts" | head -1)
"$testbed" depart --prefix "$prefix" "$gone_normal" "$gone_late"
ip -n "$prefix-scan" neigh show "$gone_normal" | grep -q lladdr || echo "note: the departed host was not cached"
[ $have_setpriv -eq 1 ] && sweep second-table unprivileged
sweep second-own-arp privileged
for f in "$work"/second-*.out; do
  if grep -E "^($gone_normal|$gone_late) " "$f"; then fail "$(basename "$f" .out): departed host reported"; fi
done

if [ $failures -gt 0 ]; then
  echo "$failures check(s) failed"
  exit 1
fi
echo "all sweep checks passed"
