#!/usr/bin/env bash
# Every benchmark, each beside its reference, in one run. Expects the bench preset built
# (`make bench` does both). Everything stays on loopback or inside namespaces the scripts create.
set -uo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
build="$root/build/bench"

echo "== micro-benchmarks (ours beside a plain reference in the same program)"
for b in bench_ini bench_xap bench_handler bench_page; do
  "$build/bench/$b" --benchmark_min_time=0.3 2>/dev/null | grep -E '^[A-Za-z]'
done

echo "== the node over loopback"
"$build/bench/bench_node" "$build/tavrel" all

echo "== the node under load, each in a network namespace of its own"
bash "$root/bench/stream.sh" "$build/tavrel"
bash "$root/bench/senders.sh" "$build/tavrel"
bash "$root/bench/http.sh" "$build/tavrel"
bash "$root/bench/api.sh" "$build/tavrel"
if [ "$(id -u)" -eq 0 ]; then
  bash "$root/bench/scan-store.sh" "$build/tavrel"
else
  echo "skipped: the scan-store benchmark needs root for its network namespaces"
fi

echo "== LAN sweep on the namespace testbed"
if [ "$(id -u)" -eq 0 ]; then
  bash "$root/bench/sweep.sh" "$build/tavrel"
else
  echo "skipped: the sweep benchmark needs root for its network namespaces"
fi

echo "== MQTT: presence on the testbed, traffic, memory with 1,000 computers"
if [ "$(id -u)" -eq 0 ]; then
  bash "$root/bench/mqtt.sh" "$build/tavrel"
else
  echo "skipped: the MQTT benchmark needs root for its network namespaces"
fi

echo "== script pages (the Windows program under Wine)"
if [ -f "$root/build/windows/tavrel.exe" ] && [ -x /usr/lib/wine/wine64 ]; then
  bash "$root/bench/script-pages.sh" "$root/build/windows/tavrel.exe"
else
  echo "skipped: needs Wine and the Windows build (make test-windows)"
fi
