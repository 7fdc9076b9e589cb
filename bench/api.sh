#!/usr/bin/env bash
# The JSON interface under load: `wrk --latency` against http://127.0.0.1:PORT/api/computers with 50 and
# with 1,000 computers in the table, 10 and 100 connections each, beside nginx serving the same JSON
# bytes as a static file (keepalive_timeout 0: both close the connection after each answer) in the same
# run. Answers per second, p50/p99 latency, errors and CPU per answer, next to the limit the server's
# batching sets (queued requests are served every 50 ms, one answer per connection: 10 connections
# 200/s, 100 connections 2,000/s). Everything runs in a network namespace holding only loopback.
#   usage: bench/api.sh [PATH/TO/tavrel] [--runs N] [--seconds S]   (default build/bench/tavrel, 1 run, 10 s)
# Needs wrk, nginx and curl (scripts/deps.sh bench).
set -uo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
# shellcheck source=bench/load-common.sh
. "$root/bench/load-common.sh"

readonly kHttpPort=18019 kNginxPort=18080 kXapPort=23639 kBatchMs=50

# ---- inside the namespace

# A home whose table holds n computers, each with an address and a MAC.
make_home() { # home n
  local home="$1" n="$2" i
  mkdir -p "$home/Config"
  printf '[Interface]\nBroadcastAddress=127.0.0.1\nPort=%d\n' "$kXapPort" >"$home/Config/zelXap.ini"
  {
    printf '[WOL]\nHTTPPort=%d\n[Computer]\n' "$kHttpPort"
    for ((i = 1; i <= n; i++)); do printf 'PC%04d=127.0.%d.%d\n' "$i" $((i / 200)) $((i % 200 + 10)); done
    printf '[ARP]\n'
    for ((i = 1; i <= n; i++)); do
      printf '127.0.%d.%d=02-00-00-00-%02X-%02X\n' $((i / 200)) $((i % 200 + 10)) $((i / 256)) $((i % 256))
    done
  } >"$home/Config/tavrel.ini"
}

inside() { # tavrel runs seconds
  local tavrel="$1" runs="$2" secs="$3"
  # Global, for the exit trap.
  pid="" npid="" work=""
  work="$(mktemp -d /tmp/tavrel-api-XXXXXX)"
  chmod 755 "$work"
  # shellcheck disable=SC2317  # called by the trap
  cleanup() {
    [ -n "$work" ] || return
    [ -n "$pid" ] && kill -TERM "$pid" 2>/dev/null && wait "$pid" 2>/dev/null
    [ -n "$npid" ] && kill -TERM "$npid" 2>/dev/null && wait "$npid" 2>/dev/null
    rm -rf "$work"
  }
  trap cleanup EXIT INT TERM

  start_nginx "$work/nginx" "$kNginxPort" application/json
  echo "api: GET /api/computers; wrk -t1 --latency ${secs}s per case; nginx 1 process, keepalive_timeout 0"
  local n summary=() hz
  hz=$(getconf CLK_TCK)
  for n in 50 1000; do
    make_home "$work/home$n" "$n"
    "$tavrel" --home "$work/home$n" --no-tray >"$work/tavrel$n.out" 2>&1 </dev/null &
    pid=$!
    local ours="http://127.0.0.1:$kHttpPort/api/computers" ref="http://127.0.0.1:$kNginxPort/computers$n"
    if ! wait_http "$ours" 10; then
      echo "api: the program did not answer on $ours within 10 s" >&2
      tail -n 20 "$work/tavrel$n.out" >&2
      return 1
    fi
    # The same bytes for nginx; the table holds the n computers and this machine.
    curl -s -o "$work/nginx/www/computers$n" "$ours"
    local rows bytes
    rows=$(grep -o '"seenBy"' "$work/nginx/www/computers$n" | wc -l)
    bytes=$(wc -c <"$work/nginx/www/computers$n")
    if [ "$rows" -ne $((n + 1)) ]; then
      echo "api: the document holds $rows computers, expected $((n + 1))" >&2
      return 1
    fi
    if ! wait_http "$ref" 10 || ! curl -s "$ref" | cmp -s - "$work/nginx/www/computers$n"; then
      echo "api: nginx does not serve the same bytes" >&2
      cat "$work/nginx/error.log" >&2
      return 1
    fi
    local conns r
    for conns in 10 100; do
      local limit=$((conns * 1000 / kBatchMs)) worst="" nWorst="" p99w=0 nP99w=0 errs=0 cpuw=0
      for ((r = 1; r <= runs; r++)); do
        local t0 t1 oRps oP50 oP99 oErr oCpu nCpu
        t0=$(cpu_ticks "$pid")
        wrk -t1 -c"$conns" -d"${secs}s" --latency "$ours" >"$work/wrk.out" 2>&1
        t1=$(cpu_ticks "$pid")
        parse_wrk "$work/wrk.out"
        oRps=$rps oP50=$p50 oP99=$p99 oErr=$((non2xx + sockerr))
        oCpu=$(awk -v t=$((t1 - t0)) -v n="$requests" -v hz="$hz" 'BEGIN { printf "%.3f", n ? 1000 * t / hz / n : 0 }')
        t0=$(cpu_ticks "$npid")
        wrk -t1 -c"$conns" -d"${secs}s" --latency "$ref" >"$work/wrk-nginx.out" 2>&1
        t1=$(cpu_ticks "$npid")
        parse_wrk "$work/wrk-nginx.out"
        nCpu=$(awk -v t=$((t1 - t0)) -v n="$requests" -v hz="$hz" 'BEGIN { printf "%.3f", n ? 1000 * t / hz / n : 0 }')
        printf '  %4d computers (%s bytes), %3d connections, run %d: ours %5s answers/s (%s%% of the %d/s limit), p50 %s ms, p99 %s ms, errors %s (%s), CPU %s ms per answer | nginx %s answers/s, p50 %s ms, p99 %s ms, errors %s, CPU %s ms per answer\n' \
          "$n" "$bytes" "$conns" "$r" "$oRps" "$(awk -v a="$oRps" -v b="$limit" 'BEGIN { printf "%.0f", 100 * a / b }')" \
          "$limit" "$oP50" "$oP99" "$oErr" "$sockdetail" "$oCpu" "$rps" "$p50" "$p99" $((non2xx + sockerr)) "$nCpu"
        if [ -z "$worst" ] || [ "$oRps" -lt "$worst" ]; then worst=$oRps; fi
        if [ -z "$nWorst" ] || [ "$rps" -lt "$nWorst" ]; then nWorst=$rps; fi
        p99w=$(awk -v a="$p99w" -v b="$oP99" 'BEGIN { print (b > a) ? b : a }')
        nP99w=$(awk -v a="$nP99w" -v b="$p99" 'BEGIN { print (b > a) ? b : a }')
        cpuw=$(awk -v a="$cpuw" -v b="$oCpu" 'BEGIN { print (b > a) ? b : a }')
        errs=$((errs + oErr))
      done
      summary+=("$n computers/$conns conns: $worst/s = $(awk -v a="$worst" -v b="$limit" 'BEGIN { printf "%.0f", 100 * a / b }')% of $limit/s, x$(awk -v a="$worst" -v b="$nWorst" 'BEGIN { printf "%.3f", b ? a / b : 0 }') of nginx $nWorst/s, p99 $p99w ms (nginx $nP99w), CPU $cpuw ms/answer, errors $errs")
    done
    kill -TERM "$pid" 2>/dev/null && wait "$pid" 2>/dev/null
    pid=""
  done
  echo "summary: api /api/computers (worst of $runs runs) $(printf '%s; ' "${summary[@]}")"
}

if [ "${1:-}" = "--inside" ]; then
  shift
  inside "$@"
  exit
fi

tavrel="$root/build/bench/tavrel"
runs=1
secs=10
while [ $# -gt 0 ]; do
  case "$1" in
    --runs) runs="$2"; shift 2 ;;
    --seconds) secs="$2"; shift 2 ;;
    *) tavrel="$1"; shift ;;
  esac
done
[[ "$runs" =~ ^[1-9][0-9]*$ ]] || { echo "api.sh: --runs wants a number" >&2; exit 2; }
[[ "$secs" =~ ^[1-9][0-9]*$ ]] || { echo "api.sh: --seconds wants a number" >&2; exit 2; }
[ -x "$tavrel" ] || { echo "api.sh: no program at $tavrel" >&2; exit 2; }
for tool in wrk nginx curl; do
  command -v "$tool" >/dev/null || { echo "api.sh: $tool missing (scripts/deps.sh bench)" >&2; exit 2; }
done
tavrel="$(cd "$(dirname "$tavrel")" && pwd)/$(basename "$tavrel")"
in_own_netns bash "$root/bench/api.sh" --inside "$tavrel" "$runs" "$secs"
