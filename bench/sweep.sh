#!/usr/bin/env bash
# Sweep time and hosts found on the namespace testbed: `tavrel scan` (with its own ARP requests, and
# without the privilege to send them) next to arp-scan and nmap -sn, each run in the scanner namespace
# with a cold neighbour cache. Needs root, arp-scan and nmap (scripts/deps.sh bench).
#   usage: bench/sweep.sh [PATH/TO/tavrel] [--runs N]      (default build/bench/tavrel, 3 runs, median)
set -uo pipefail

root="$(cd "$(dirname "$0")/.." && pwd)"
testbed="$root/scripts/testbed.sh"
tavrel="$root/build/bench/tavrel"
runs=3
while [ $# -gt 0 ]; do
  case "$1" in
    --runs) runs="$2"; shift 2 ;;
    *) tavrel="$1"; shift ;;
  esac
done

[ "$(id -u)" -eq 0 ] || { echo "bench/sweep.sh: needs root (network namespaces)" >&2; exit 2; }
[ -x "$tavrel" ] || { echo "bench/sweep.sh: no program at $tavrel" >&2; exit 2; }
for tool in arp-scan nmap python3 setpriv; do
  command -v "$tool" >/dev/null || { echo "bench/sweep.sh: $tool missing (scripts/deps.sh bench)" >&2; exit 2; }
done

prefix="bs$$"
work="$(mktemp -d)"
cleanup() { "$testbed" down --prefix "$prefix" >/dev/null 2>&1; rm -rf "$work"; }
trap cleanup EXIT INT TERM

ns="$prefix-scan"
summary=()

# Runs one tool `runs` times with a cold cache; prints "median_seconds found_ips" and keeps the found
# addresses of the last run in $work/found.
measure() { # parser command...
  local parser="$1" times=() i start end
  shift
  for ((i = 0; i < runs; i++)); do
    ip -n "$ns" neigh flush all >/dev/null 2>&1
    start=$(date +%s%N)
    ip netns exec "$ns" "$@" >"$work/out" 2>"$work/err"
    end=$(date +%s%N)
    times+=($(((end - start) / 1000)))
  done
  "$parser" <"$work/out" | grep -Ev '^(198\.51\.100|203\.0\.113)\.1$' | sort -u >"$work/found"
  local median
  median=$(printf '%s\n' "${times[@]}" | sort -n | awk '{ t[NR] = $1 } END { print t[int((NR + 1) / 2)] }')
  echo "$(awk -v us="$median" 'BEGIN { printf "%.3f", us / 1e6 }') $(wc -l <"$work/found")"
}

parse_tavrel() { awk '{ print $1 }'; }
parse_arpscan() { awk -F'\t' '$1 ~ /^[0-9]+\.[0-9]+\.[0-9]+\.[0-9]+$/ { print $1 }'; }
parse_nmap() { awk '/^Nmap scan report for / { print $NF }' | tr -d '()'; }

row() { # label seconds found live
  local complete="all"
  [ "$3" -eq "$4" ] || complete="MISSING $(($4 - $3))"
  printf '  %-38s %8s s %6s/%-4s %s\n' "$1" "$2" "$3" "$4" "$complete"
}

ratio() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%.2f", a / b }'; }

run_case() { # label title live subnets-for-tavrel... -- cidrs-for-the-others...
  local label="$1" title="$2" live="$3"
  shift 3
  local ours=() others=()
  while [ "$1" != "--" ]; do ours+=("$1"); shift; done
  shift
  others=("$@")
  echo
  echo "$title"
  echo "  cold neighbour cache before every run; median of $runs runs; wall time of the whole command"
  echo "  tavrel scan ${ours[*]}; arp-scan --interface=eth0 ${others[*]}; nmap -sn -n ${others[*]}"
  local own table arpscan nmapsn
  own=$(measure parse_tavrel "$tavrel" scan "${ours[@]}")
  table=$(measure parse_tavrel setpriv --bounding-set -net_raw,-net_admin "$tavrel" scan "${ours[@]}")
  arpscan=$(measure parse_arpscan arp-scan --interface=eth0 --quiet "${others[@]}")
  nmapsn=$(measure parse_nmap nmap -sn -n "${others[@]}")
  set -- $own; local ownT=$1 ownN=$2
  set -- $table; local tableT=$1 tableN=$2
  set -- $arpscan; local arpT=$1 arpN=$2
  set -- $nmapsn; local nmapT=$1 nmapN=$2
  row "tavrel scan (own ARP requests)" "$ownT" "$ownN" "$live"
  row "tavrel scan (neighbour table, no root)" "$tableT" "$tableN" "$live"
  row "arp-scan" "$arpT" "$arpN" "$live"
  row "nmap -sn" "$nmapT" "$nmapN" "$live"
  echo "  ours/arp-scan $(ratio "$ownT" "$arpT") (no root: $(ratio "$tableT" "$arpT")); ours/nmap $(ratio "$ownT" "$nmapT") (no root: $(ratio "$tableT" "$nmapT"))"
  local all=yes
  [ "$ownN" -eq "$live" ] && [ "$tableN" -eq "$live" ] || all=NO
  summary+=("$label ${ownT}s (no root ${tableT}s) all found: $all, x$(ratio "$ownT" "$arpT") of arp-scan ${arpT}s, x$(ratio "$ownT" "$nmapT") of nmap ${nmapT}s")
}

testbed_up() { "$testbed" up --prefix "$prefix" "$@" >/dev/null || { echo "testbed up failed" >&2; exit 1; }; }

testbed_up --hosts 20 --late 4
run_case "20 hosts:" "one /24, 20 live hosts (4 answer ARP 200 ms late)" 20 198.51.100 -- 198.51.100.0/24
"$testbed" down --prefix "$prefix"

testbed_up --hosts 100 --late 10
run_case "100 hosts:" "one /24, 100 live hosts (10 answer ARP 200 ms late)" 100 198.51.100 -- 198.51.100.0/24
"$testbed" down --prefix "$prefix"

# Only two ranges may be used, so the load of four /24s is made by listing each of them twice:
# 4 x 254 = 1,016 probes, 200 distinct live hosts.
testbed_up --hosts 100 --hosts2 100 --late 10
run_case "four /24s:" "four /24s: 198.51.100, 203.0.113, 198.51.100, 203.0.113 (each range listed twice: 1,016 probes, the load of four /24s), 200 live hosts (10 late)" \
  200 198.51.100 203.0.113 198.51.100 203.0.113 -- 198.51.100.0/24 203.0.113.0/24 198.51.100.0/24 203.0.113.0/24

echo
echo "summary: tavrel scan $(printf '%s; ' "${summary[@]}")goal: all found, <= 1.0 s for a /24, <= 1.2 s for four"
