#!/usr/bin/env bash
# The loop while a sweep's results are stored: the node sweeps four /24s (198.51.100, 203.0.113, each
# listed twice: 4 x 253 answers) started by SIGUSR1, with ScanMethod=native and its own ARP requests,
# while an echo query every millisecond records the longest wait for an answer, beside the same before
# the sweep; then the same while the node sweeps by itself every 10 s ("ScanInterval"). Needs root: the
# node runs in a scanner namespace wired by a veth pair to a second namespace that holds every host
# address of both test ranges, so its kernel answers every ARP request. Nothing else is created or touched.
#   usage: bench/scan-store.sh [PATH/TO/tavrel] [--runs N]   (default build/bench/tavrel, 1 run)
# The load program is bench/node_load beside the binary's build (or $NODE_LOAD).
set -uo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
# shellcheck source=bench/load-common.sh
. "$root/bench/load-common.sh"
parse_load_args "$@"
[ "$(id -u)" -eq 0 ] || { echo "scan-store.sh: skipped: needs root (network namespaces)" >&2; exit 2; }

scan="ss$$-scan"
lan="ss$$-lan"
cleanup() { ip netns del "$scan" 2>/dev/null; ip netns del "$lan" 2>/dev/null; }
trap cleanup EXIT INT TERM

set -e
ip netns add "$scan"
ip netns add "$lan"
ip -n "$scan" link add eth0 address 02:00:00:00:00:01 type veth peer name eth0 address 02:00:00:00:00:02 netns "$lan"
ip -n "$scan" addr add 198.51.100.1/24 dev eth0
ip -n "$scan" addr add 203.0.113.1/24 dev eth0
{
  for net in 198.51.100 203.0.113; do
    for ((h = 2; h <= 254; h++)); do echo "addr add $net.$h/24 dev eth0"; done
  done
} | ip -n "$lan" -batch -
for ns in "$scan" "$lan"; do
  ip -n "$ns" link set lo up
  ip -n "$ns" link set eth0 up
done
set +e

for what in stall presence; do
  ip netns exec "$scan" "$load" $what "$tavrel" --runs "$runs" \
    --subnets 198.51.100,203.0.113,198.51.100,203.0.113 --expect 506
done
