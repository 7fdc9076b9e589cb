#!/usr/bin/env bash
# What the script pages cost: the Windows program under Wine with 50 computers in its table serves /wol
# first with its built-in framework steps (the reference), then with ScriptPages=1 and the framework page
# set of tests/wine/framework (the head, 8 cells a row and the foot made by VBScript routines through
# the script control), in the same run. For each: the first page (for the script pages this loads the
# include pages), the mean of 20 pages fetched one after another (each waits for the server's 50 ms
# batch, the same for both), and wrk with 10 connections for 5 s (at most 200/s: 10 per 50 ms batch).
# Runs in a network namespace of its own holding only loopback.
#   usage: bench/script-pages.sh [PATH/TO/tavrel.exe]   (default build/windows/tavrel.exe; needs wine, wrk)
set -uo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
# shellcheck source=bench/load-common.sh
. "$root/bench/load-common.sh"
readonly kComputers=50 kHttpPort=18019 kXapPort=23639

inside() { # exe
  local exe="$1" home
  # Global, for the exit trap.
  pid="" work=""
  work="$(mktemp -d /tmp/tavrel-scripts-XXXXXX)"
  home="$work/home"
  # shellcheck disable=SC2317  # called by the trap
  cleanup() {
    [ -n "$work" ] || return
    [ -z "$pid" ] || kill -KILL "$pid" 2>/dev/null
    wineserver -k 2>/dev/null
    rm -rf "$work"
  }
  trap cleanup EXIT INT TERM
  mkdir -p "$home/Config"
  printf '[Interface]\r\nBroadcastAddress=127.0.0.1\r\nPort=%d\r\n' "$kXapPort" >"$home/Config/zelXap.ini"
  local url="http://127.0.0.1:$kHttpPort/wol" mode
  for mode in built-in script; do
    {
      printf '[WOL]\r\nHTTPPort=%d\r\nSubnet=127.0.0\r\nScanMethod=native\r\n' "$kHttpPort"
      [ "$mode" = script ] && printf 'ScriptPages=1\r\n'
      printf '[Computer]\r\n'
      for ((i = 1; i <= kComputers; i++)); do printf 'PC%02d=127.0.0.%d\r\n' "$i" $((10 + i)); done
      printf '[ARP]\r\n'
      for ((i = 1; i <= kComputers; i++)); do printf '127.0.0.%d=02-00-00-00-00-%02X\r\n' $((10 + i)) $((10 + i)); done
    } >"$home/Config/tavrel.ini"
    [ "$mode" = script ] && cp -r "$root/tests/wine/framework/." "$home/"
    /usr/lib/wine/wine64 "$exe" --home "Z:${home//\//\\}" --no-tray >"$work/out" 2>&1 &
    pid=$!
    local deadline=$((SECONDS + 60))
    until (exec 3<>"/dev/tcp/127.0.0.1/$kHttpPort") 2>/dev/null; do
      [ $SECONDS -lt $deadline ] || { echo "script-pages: no web server within 60 s" >&2; cat "$work/out" >&2; return 1; }
      sleep 0.1
    done
    local first rows mean rps p99
    first=$(curl -s -o "$work/page" -w '%{time_total}' --max-time 30 "$url")
    rows=$(grep -o "name='WOL[0-9]*'" "$work/page" | wc -l)
    if [ "$rows" -ne "$kComputers" ] || { [ "$mode" = script ] && ! grep -q "framework-tablerowodd" "$work/page"; }; then
      echo "script-pages: the $mode page is not the expected one ($rows rows)" >&2
      return 1
    fi
    mean=$(for _ in $(seq 20); do curl -s -o /dev/null -w '%{time_total}\n' "$url"; done |
      awk '{ s += $1 } END { printf "%.1f", 1000 * s / NR }')
    wrk -t 1 -c 10 -d 5s --latency "$url" >"$work/wrk" 2>&1
    rps=$(awk '/^Requests\/sec:/ { printf "%.0f", $2 }' "$work/wrk")
    p99=$(awk '$1 == "99%" { print $2 }' "$work/wrk")
    printf '%-8s first page %6.1f ms   one after another %6.1f ms/page   wrk 10 conn %4s req/s, p99 %s\n' \
      "$mode" "$(awk -v t="$first" 'BEGIN { print 1000 * t }')" "$mean" "$rps" "$p99"
    eval "mean_${mode//-/_}=$mean rps_${mode//-/_}=$rps"
    kill -INT "$pid"
    wait "$pid" 2>/dev/null
    pid=""
  done
  # shellcheck disable=SC2154  # set by the eval above
  awk -v a="$mean_built_in" -v b="$mean_script" -v ra="$rps_built_in" -v rb="$rps_script" 'BEGIN {
    printf "script pages: %.1f ms more per page than the built-in steps (%.0f%% of the built-in throughput with 10 connections)\n", b - a, 100 * rb / ra }'
}

if [ "${1:-}" = --inside ]; then
  shift
  inside "$@"
  exit
fi
exe="$(readlink -f "${1:-$root/build/windows/tavrel.exe}")"
[ -f "$exe" ] || { echo "script-pages: no program at $exe (make test-windows builds it)" >&2; exit 2; }
export WINEPREFIX="${WINEPREFIX:-$(dirname "$exe")/wineprefix}" WINEDEBUG="${WINEDEBUG:--all}"
export WINEDLLOVERRIDES="${WINEDLLOVERRIDES:-mscoree,mshtml=}"
in_own_netns bash "$0" --inside "$exe"
