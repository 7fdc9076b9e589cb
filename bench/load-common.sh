# shellcheck shell=bash
# shellcheck disable=SC2154  # root is set by the script that sources this file
# Shared by stream.sh, senders.sh and scan-store.sh: arguments, the load program, a private namespace;
# by http.sh and api.sh: reading wrk, a process's CPU time and memory, waiting for a URL.

parse_load_args() { # [PATH/TO/tavrel] [--runs N]
  tavrel="$root/build/bench/tavrel"
  runs=1
  while [ $# -gt 0 ]; do
    case "$1" in
      --runs) runs="$2"; shift 2 ;;
      *) tavrel="$1"; shift ;;
    esac
  done
  [[ "$runs" =~ ^[1-9][0-9]*$ ]] || { echo "$(basename "$0"): --runs wants a number" >&2; exit 2; }
  [ -x "$tavrel" ] || { echo "$(basename "$0"): no program at $tavrel" >&2; exit 2; }
  tavrel="$(cd "$(dirname "$tavrel")" && pwd)/$(basename "$tavrel")"
  load="${NODE_LOAD:-$(dirname "$tavrel")/bench/node_load}"
  [ -x "$load" ] || { echo "$(basename "$0"): no load program at $load (build target node_load)" >&2; exit 2; }
}

# Runs a command in a new network namespace holding only loopback: as root directly, otherwise in a
# user namespace of its own. Without either it refuses rather than touch the machine's network.
in_own_netns() {
  local inner='ip link set lo up && exec "$@"'
  if [ "$(id -u)" -eq 0 ]; then
    unshare --net sh -c "$inner" sh "$@"
  elif unshare --user --map-root-user --net true 2>/dev/null; then
    unshare --user --map-root-user --net sh -c "$inner" sh "$@"
  else
    echo "$(basename "$0"): skipped: cannot make a network namespace (needs root or user namespaces)" >&2
    return 2
  fi
}

# ---- HTTP load (http.sh, api.sh)

ms() { # a wrk duration (850.00us, 12.34ms, 1.20s, 2.00m) in milliseconds
  awk -v d="$1" 'BEGIN {
    v = d + 0; u = d; sub(/^[0-9.]+/, "", u)
    f = (u == "us") ? 0.001 : (u == "ms") ? 1 : (u == "s") ? 1000 : (u == "m") ? 60000 : -1
    if (f < 0) print "-1"; else printf "%.2f", v * f }'
}

# Reads wrk --latency output; sets rps p50 p99 requests non2xx sockerr sockdetail.
parse_wrk() {
  local out="$1"
  rps=$(awk '/^Requests\/sec:/ { printf "%.0f", $2 }' "$out")
  p50=$(ms "$(awk '$1 == "50%" { print $2 }' "$out")")
  p99=$(ms "$(awk '$1 == "99%" { print $2 }' "$out")")
  requests=$(awk '/ requests in / { print $1 }' "$out")
  non2xx=$(awk -F': *' '/Non-2xx or 3xx responses/ { print $2 }' "$out")
  non2xx=${non2xx:-0}
  sockdetail=$(awk '/Socket errors:/ { sub(/^ *Socket errors: */, ""); print }' "$out")
  sockerr=$(awk '/Socket errors:/ { gsub(/,/, ""); print $4 + $6 + $8 + $10 }' "$out")
  sockerr=${sockerr:-0}
  # wrk keeps a connection for the next request unless the answer says "Connection: close"; ours does
  # not (its header block is fixed), so the request after each answer meets our close and counts as a
  # read error. Everything beyond one such read error per answer is a real error.
  readerr=$(awk '/Socket errors:/ { gsub(/,/, ""); print $6 }' "$out")
  readerr=${readerr:-0}
  othererr=$((non2xx + sockerr - readerr + (readerr > requests ? readerr - requests : 0)))
  sockdetail=${sockdetail:-none}
  [ -n "$rps" ] || rps=0
}

# User plus system CPU time of a process so far, in clock ticks.
cpu_ticks() { awk '{ sub(/^.*\) /, ""); print $12 + $13 }' "/proc/$1/stat" 2>/dev/null || echo 0; }

rss_kb() { awk '/^VmRSS:/ { print $2 }' "/proc/$1/status" 2>/dev/null || echo 0; }

wait_http() { # url seconds: true once the url answers
  local deadline=$((SECONDS + $2))
  while [ $SECONDS -lt $deadline ]; do
    curl -s -o /dev/null --max-time 1 "$1" && return 0
    sleep 0.1
  done
  return 1
}

# nginx serving the files of DIR/www on 127.0.0.1:PORT as TYPE, closing each connection after one answer
# (keepalive_timeout 0) as the program does; its pid in npid. master_process off: one process (like
# ours), and no switch to another user, so it also runs in a user namespace.
start_nginx() { # dir port type
  local dir="$1" port="$2" type="$3"
  mkdir -p "$dir/www" "$dir/tmp"
  cat >"$dir/nginx.conf" <<EOF
daemon off;
master_process off;
worker_processes 1;
pid $dir/nginx.pid;
error_log $dir/error.log warn;
events { worker_connections 1024; }
http {
  access_log off;
  keepalive_timeout 0;
  client_body_temp_path $dir/tmp/body;
  proxy_temp_path $dir/tmp/proxy;
  fastcgi_temp_path $dir/tmp/fastcgi;
  uwsgi_temp_path $dir/tmp/uwsgi;
  scgi_temp_path $dir/tmp/scgi;
  server {
    listen 127.0.0.1:$port;
    root $dir/www;
    default_type $type;
  }
}
EOF
  nginx -p "$dir" -c "$dir/nginx.conf" -e "$dir/error.log" >"$dir/nginx.out" 2>&1 &
  npid=$!
}
