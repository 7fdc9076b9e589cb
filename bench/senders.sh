#!/usr/bin/env bash
# The cost of learning senders: 3,000 messages from 3,000 invented senders at 1,000 a second against the
# same messages from one sender the node knows; the node's CPU time, memory growth and the size of
# tavrel.ini. Runs in a network namespace of its own (loopback only).
#   usage: bench/senders.sh [PATH/TO/tavrel] [--runs N]   (default build/bench/tavrel, 1 run)
# The load program is bench/node_load beside the binary's build (or $NODE_LOAD).
set -uo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
# shellcheck source=bench/load-common.sh
. "$root/bench/load-common.sh"
parse_load_args "$@"
in_own_netns "$load" senders "$tavrel" --runs "$runs"
