#!/usr/bin/env bash
# The node under a stream: two senders flood it with echo queries for 5 s; how long SIGTERM waits for
# its turn (sent 1 s into the stream, and right after it) and the node's peak memory. Runs in a network
# namespace of its own (loopback only), so nothing can leave the machine.
#   usage: bench/stream.sh [PATH/TO/tavrel] [--runs N]   (default build/bench/tavrel, 1 run)
# The load program is bench/node_load beside the binary's build (or $NODE_LOAD).
set -uo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
# shellcheck source=bench/load-common.sh
. "$root/bench/load-common.sh"
parse_load_args "$@"
in_own_netns "$load" stream "$tavrel" --runs "$runs"
