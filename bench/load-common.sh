# shellcheck shell=bash
# shellcheck disable=SC2154  # root is set by the script that sources this file
# Shared by stream.sh, senders.sh and scan-store.sh: arguments, the load program, a private namespace.

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
