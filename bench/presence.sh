#!/usr/bin/env bash
# Presence on the namespace testbed. Part 1, with "ScanInterval" 10 and "AwayAfter" 30: the time from a
# host being plugged in (and unplugged) until the page shows it green (red), beside a ping monitor that
# pings the same host every 30 s, started at a random phase, as common uptime monitors do. Part 2, with
# "ScanInterval" 30 on one /24 of 20 hosts for PRESENCE_SECONDS (default 180): the program's CPU seconds
# and the packets its namespace sent, per hour, beside one arp-scan of the same /24 per minute.
# Needs root, ping and arp-scan (scripts/deps.sh bench).
#   usage: bench/presence.sh [PATH/TO/tavrel] [--runs N]      (default build/bench/tavrel, 3 runs)
set -uo pipefail

root="$(cd "$(dirname "$0")/.." && pwd)"
testbed="$root/scripts/testbed.sh"
tavrel="$root/build/bench/tavrel"
runs=3 seconds="${PRESENCE_SECONDS:-180}"
while [ $# -gt 0 ]; do
  case "$1" in
    --runs) runs="$2"; shift 2 ;;
    *) tavrel="$1"; shift ;;
  esac
done
[ "$(id -u)" -eq 0 ] || { echo "bench/presence.sh: needs root (network namespaces)" >&2; exit 2; }
[ -x "$tavrel" ] || { echo "bench/presence.sh: no program at $tavrel" >&2; exit 2; }
for tool in ping arp-scan python3; do
  command -v "$tool" >/dev/null || { echo "bench/presence.sh: $tool missing (scripts/deps.sh bench)" >&2; exit 2; }
done

prefix="bp$$" work="$(mktemp -d)" pid="" monitor=""
cleanup() {
  [ -z "$pid" ] || kill "$pid" 2>/dev/null
  [ -z "$monitor" ] || kill "$monitor" 2>/dev/null
  "$testbed" down --prefix "$prefix" >/dev/null 2>&1
  rm -rf "$work"
}
trap cleanup EXIT INT TERM
ns="$prefix-scan" port=$((20000 + RANDOM % 20000))
now() { date +%s.%N; }
elapsed() { python3 -c "print('%.1f' % ($(now) - $1))"; }
light() { ip netns exec "$ns" python3 "$root/tests/support/page.py" $((port + 1)) rows 2>/dev/null | awk -v ip="$1" '$1 == ip { print $2 }'; }
start() { # ScanInterval AwayAfter
  mkdir -p "$work/home/Config"
  printf '[Interface]\nBroadcastAddress=127.0.0.1\nPort=%d\n' "$port" >"$work/home/Config/zelXap.ini"
  printf '[WOL]\nSubnet=198.51.100\nScanMethod=native\nHTTPPort=%d\nScanInterval=%d\nAwayAfter=%d\n' \
    $((port + 1)) "$1" "$2" >"$work/home/Config/tavrel.ini"
  ip netns exec "$ns" "$tavrel" --home "$work/home" --no-tray >"$work/stdout" 2>&1 &
  pid=$!
}
stop() { kill "$pid"; wait "$pid" 2>/dev/null; pid=""; rm -rf "$work/home"; }

"$testbed" up --prefix "$prefix" --hosts 20 >/dev/null || { echo "testbed up failed" >&2; exit 1; }
host=198.51.100.21

# Part 1: joining and leaving.
start 10 30
until [ "$(light $host)" = Green ]; do sleep 0.2; done
join=() leave=() pjoin=() pleave=()
for ((r = 1; r <= runs; r++)); do
  "$testbed" unplug --prefix "$prefix" $host
  # The ping monitor: one ping every 30 s from a random phase; its view is the last ping's result.
  rm -f "$work/ping"
  ( sleep "$(python3 -c "import random; print(random.uniform(0, 30))")"
    while true; do
      if ip netns exec "$ns" ping -c 1 -W 1 $host >/dev/null 2>&1; then echo up >"$work/ping"; else echo down >"$work/ping"; fi
      sleep 29
    done ) &
  monitor=$!
  until [ "$(light $host)" = Red ]; do sleep 0.2; done
  until [ "$(cat "$work/ping" 2>/dev/null)" = down ]; do sleep 0.2; done
  t=$(now)
  "$testbed" plug --prefix "$prefix" $host
  until [ "$(light $host)" = Green ]; do sleep 0.2; done
  join+=("$(elapsed "$t")")
  until [ "$(cat "$work/ping")" = up ]; do sleep 0.2; done
  pjoin+=("$(elapsed "$t")")
  t=$(now)
  "$testbed" unplug --prefix "$prefix" $host
  until [ "$(light $host)" = Red ]; do sleep 0.2; done
  leave+=("$(elapsed "$t")")
  until [ "$(cat "$work/ping")" = down ]; do sleep 0.2; done
  pleave+=("$(elapsed "$t")")
  kill "$monitor"; wait "$monitor" 2>/dev/null; monitor=""
  "$testbed" plug --prefix "$prefix" $host
  echo "  run $r: joined -> green ${join[-1]} s (ping monitor ${pjoin[-1]} s); left -> red ${leave[-1]} s (ping monitor ${pleave[-1]} s)"
done
stop
echo "presence: host joined -> page green ${join[*]} s, left -> red ${leave[*]} s (ScanInterval 10, AwayAfter 30); a ping monitor every 30 s: ${pjoin[*]} s and ${pleave[*]} s"

# Part 2: what presence costs at ScanInterval 30.
tx() { ip -n "$ns" -s link show eth0 | awk '/TX:/ { getline; print $2; exit }'; }
cpu() { awk '{ print $14 + $15 }' "/proc/$pid/stat"; }
start 30 180
sleep 2
tx0=$(tx) cpu0=$(cpu)
sleep "$seconds"
tx1=$(tx) cpu1=$(cpu)
stop
tick=$(getconf CLK_TCK)
ours=$(python3 -c "print('%.0f packets/h, %.2f CPU s/h' % (($tx1 - $tx0) * 3600 / $seconds, ($cpu1 - $cpu0) / $tick * 3600 / $seconds))")
tx0=$(tx)
t=$( { /usr/bin/time -f "%U %S" ip netns exec "$ns" arp-scan -q -I eth0 198.51.100.0/24 >/dev/null; } 2>&1 | tail -1)
tx1=$(tx)
theirs=$(python3 -c "u, s = '$t'.split(); print('%.0f packets/h, %.2f CPU s/h' % (($tx1 - $tx0) * 60, (float(u) + float(s)) * 60))")
echo "presence cost on one /24 of 20 hosts: ScanInterval 30: $ours; arp-scan once a minute: $theirs"
