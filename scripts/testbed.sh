#!/usr/bin/env bash
# A LAN made of network namespaces, for sweep tests and benchmarks. Needs root.
#
#   scripts/testbed.sh up --prefix P [--hosts N] [--hosts2 M] [--late K] [--delay MS]
#   scripts/testbed.sh depart --prefix P IP...     remove hosts (their port and namespace go away)
#   scripts/testbed.sh unplug|plug --prefix P IP... take a host's link down or bring it back up
#   scripts/testbed.sh hosts --prefix P            one line per live host: "IP MAC normal|late"
#   scripts/testbed.sh down --prefix P             remove everything the testbed made
#
# Layout: namespace P-br holds bridge br0; namespace P-scan is the scanner (198.51.100.1/24 and, with
# --hosts2, 203.0.113.1/24 on eth0, lo up); namespaces P-h1.. hold one test host each, eth0 plugged into
# the bridge. Hosts take 198.51.100.2 upwards (N of them), then 203.0.113.2 upwards (M). Each MAC is
# 02-00 followed by the four address bytes, so the expected MAC follows from the IP. The last K hosts of
# 198.51.100 answer ARP only after MS milliseconds (default 200): their own kernel ignores ARP requests
# (arp_ignore=8) and scripts/testbed-arp-responder.py answers for them.
#
# Nothing is created in the caller's namespace and no real interface or route is touched; only
# 198.51.100.0/24 and 203.0.113.0/24 are used. P (letters and digits, at most 12) keeps parallel
# testbeds apart; state lives in ${TMPDIR:-/tmp}/tavrel-testbed-P.
set -euo pipefail

here="$(cd "$(dirname "$0")" && pwd)"

die() { echo "testbed: $*" >&2; exit 2; }

cmd="${1:-}"
[ -n "$cmd" ] && shift
prefix="" hosts=20 hosts2=0 late=0 delay=200 args=()
while [ $# -gt 0 ]; do
  case "$1" in
    --prefix) prefix="$2"; shift 2 ;;
    --hosts) hosts="$2"; shift 2 ;;
    --hosts2) hosts2="$2"; shift 2 ;;
    --late) late="$2"; shift 2 ;;
    --delay) delay="$2"; shift 2 ;;
    -*) die "unknown option $1" ;;
    *) args+=("$1"); shift ;;
  esac
done
[[ "$prefix" =~ ^[A-Za-z][A-Za-z0-9]{0,11}$ ]] || die "--prefix P is required (letters and digits, at most 12)"
for n in "$hosts" "$hosts2" "$late" "$delay"; do [[ "$n" =~ ^[0-9]+$ ]] || die "not a number: $n"; done
[ "$hosts" -le 253 ] && [ "$hosts2" -le 253 ] || die "at most 253 hosts per subnet"
[ "$late" -le "$hosts" ] || die "--late is more than --hosts"

state="${TMPDIR:-/tmp}/tavrel-testbed-$prefix"
br="$prefix-br"
scan="$prefix-scan"

mac_of() { # IP -> 02:00:a:b:c:d
  local IFS=.
  # shellcheck disable=SC2086
  printf '02:00:%02x:%02x:%02x:%02x' $1
}

host_ns_of() { # IP -> namespace, from the state file
  awk -v ip="$1" '$1 == ip { print $4 }' "$state/hosts"
}

add_host() { # index ip late
  local ns="$prefix-h$1" ip="$2"
  ip netns add "$ns"
  ip -n "$br" link add name "p$1" type veth peer name eth0 address "$(mac_of "$ip")" netns "$ns"
  ip -n "$br" link set "p$1" master br0 up
  ip -n "$ns" addr add "$ip/24" dev eth0
  if [ "$3" = late ]; then
    ip netns exec "$ns" sh -c 'echo 8 > /proc/sys/net/ipv4/conf/eth0/arp_ignore'
  fi
  ip -n "$ns" link set eth0 up
  ip -n "$ns" link set lo up
  echo "$ip $(mac_of "$ip" | tr : -) $3 $ns p$1" >>"$state/hosts"
}

up() {
  [ "$(id -u)" -eq 0 ] || die "needs root"
  if ip netns list | grep -q "^$prefix-"; then die "namespaces $prefix-* exist already"; fi
  rm -rf "$state"
  mkdir -p "$state"
  : >"$state/hosts"
  ip netns add "$br"
  ip -n "$br" link add name br0 type bridge
  ip -n "$br" link set br0 up
  ip netns add "$scan"
  ip -n "$br" link add name s0 type veth peer name eth0 address 02:00:00:00:00:01 netns "$scan"
  ip -n "$br" link set s0 master br0 up
  ip -n "$scan" addr add 198.51.100.1/24 dev eth0
  if [ "$hosts2" -gt 0 ]; then ip -n "$scan" addr add 203.0.113.1/24 dev eth0; fi
  ip -n "$scan" link set eth0 up
  ip -n "$scan" link set lo up

  local i index=0 kind late_entries=()
  for ((i = 1; i <= hosts; i++)); do
    index=$((index + 1))
    kind=normal
    if [ "$i" -gt $((hosts - late)) ]; then
      kind=late
      late_entries+=("$prefix-h$index:eth0:198.51.100.$((i + 1)):$(mac_of "198.51.100.$((i + 1))")")
    fi
    add_host "$index" "198.51.100.$((i + 1))" "$kind"
  done
  for ((i = 1; i <= hosts2; i++)); do
    index=$((index + 1))
    add_host "$index" "203.0.113.$((i + 1))" normal
  done

  if [ ${#late_entries[@]} -gt 0 ]; then
    python3 "$here/testbed-arp-responder.py" "$state/responder.ready" "$delay" "${late_entries[@]}" \
      >"$state/responder.log" 2>&1 &
    echo $! >"$state/responder.pid"
    local waited=0
    until [ -f "$state/responder.ready" ]; do
      kill -0 "$(cat "$state/responder.pid")" 2>/dev/null || { cat "$state/responder.log" >&2; down; die "responder failed"; }
      [ $waited -ge 100 ] && { down; die "responder not ready after 10 s"; }
      sleep 0.1
      waited=$((waited + 1))
    done
  fi
  # Wait until the bridge forwards on every port (carrier and port state settle asynchronously).
  local waited=0
  until [ -z "$(ip -n "$br" -o link show master br0 | grep -v 'state UP')" ]; do
    [ $waited -ge 100 ] && die "bridge ports not up after 10 s"
    sleep 0.1
    waited=$((waited + 1))
  done
}

depart() {
  local ip ns port
  for ip in "${args[@]}"; do
    ns="$(host_ns_of "$ip")"
    [ -n "$ns" ] || die "no host $ip"
    port="$(awk -v ip="$ip" '$1 == ip { print $5 }' "$state/hosts")"
    # Unplug first: removing the port removes both ends at once, even while the late-host responder
    # still holds a socket in the host's namespace.
    ip -n "$br" link del "$port"
    ip netns del "$ns"
    awk -v ip="$ip" '$1 != ip' "$state/hosts" >"$state/hosts.new"
    mv "$state/hosts.new" "$state/hosts"
  done
}

link() { # up|down: the hosts' ports on the bridge
  local ip port
  for ip in "${args[@]}"; do
    port="$(awk -v ip="$ip" '$1 == ip { print $5 }' "$state/hosts")"
    [ -n "$port" ] || die "no host $ip"
    ip -n "$br" link set "$port" "$1"
  done
}

down() {
  if [ -f "$state/responder.pid" ]; then
    kill "$(cat "$state/responder.pid")" 2>/dev/null || true
  fi
  local ns
  for ns in $(ip netns list | awk '{ print $1 }' | grep -E "^$prefix-(br|scan|h[0-9]+)$" || true); do
    ip netns del "$ns" 2>/dev/null || true
  done
  rm -rf "$state"
}

case "$cmd" in
  up) up ;;
  depart) depart ;;
  unplug) link down ;;
  plug) link up ;;
  hosts) awk '{ print $1, $2, $3 }' "$state/hosts" ;;
  down) down ;;
  *) die "usage: testbed.sh up|depart|unplug|plug|hosts|down --prefix P [options]" ;;
esac
