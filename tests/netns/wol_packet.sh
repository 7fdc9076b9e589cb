#!/usr/bin/env bash
# The wake packet of `tavrel wake` must be byte for byte the one wakeonlan sends, go to the subnet
# broadcast on port 7, and a bad MAC must send nothing. Runs in two network namespaces of its own
# (sender 198.51.100.1, listener 198.51.100.2, joined by a veth pair); nothing reaches a real network.
#   usage: wol_packet.sh TAVREL_BINARY      exit 0 pass, 1 fail, 77 skipped
set -u
bin=${1:?usage: $0 TAVREL_BINARY}

skip() { echo "SKIP: $*"; exit 77; }
fail() { echo "FAIL: $*" >&2; exit 1; }

[ "$(id -u)" -eq 0 ] || skip "needs root for network namespaces"
for tool in ip wakeonlan python3; do command -v "$tool" >/dev/null 2>&1 || skip "$tool is not installed"; done

sender="tvwol-s-$$"
listener="tvwol-l-$$"
work=$(mktemp -d "${TMPDIR:-/tmp}/tavrel-wol.XXXXXX")
created=()
listenerPid=
cleanup() {
  [ -z "$listenerPid" ] || { kill "$listenerPid" 2>/dev/null; wait "$listenerPid" 2>/dev/null; }
  for ns in "${created[@]}"; do ip netns del "$ns" 2>/dev/null; done
  rm -rf "$work"
}
trap cleanup EXIT

# lines_within SECONDS COUNT: waits until the listener has written COUNT lines.
received="$work/received.txt"
lines_within() {
  local deadline=$((SECONDS + $1))
  until [ -f "$received" ] && [ "$(wc -l <"$received")" -ge "$2" ]; do
    [ "$SECONDS" -lt "$deadline" ] || return 1
    sleep 0.05
  done
}

ip netns add "$sender" 2>/dev/null || skip "cannot create network namespaces here"
created+=("$sender")
ip netns add "$listener" || fail "cannot create namespace $listener"
created+=("$listener")
ip link add tvws$$ netns "$sender" type veth peer name tvwl$$ netns "$listener" || fail "cannot create the veth pair"
ip -n "$sender" addr add 198.51.100.1/24 broadcast 198.51.100.255 dev tvws$$
ip -n "$listener" addr add 198.51.100.2/24 broadcast 198.51.100.255 dev tvwl$$
ip -n "$sender" link set tvws$$ up
ip -n "$listener" link set tvwl$$ up

# The listener is bound to the broadcast address and port 7, so only datagrams sent there reach it; it
# writes one line per datagram: "source-ip payload-hex".
ip netns exec "$listener" python3 -c '
import socket, sys
s = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
s.bind(("198.51.100.255", 7))
open(sys.argv[1], "w").close()
while True:
    data, addr = s.recvfrom(2048)
    with open(sys.argv[1], "a") as f: f.write("%s %s\n" % (addr[0], data.hex()))' "$received" &
listenerPid=$!
lines_within 10 0 || fail "listener did not start"

ip netns exec "$sender" "$bin" wake 00:11:22:33:44:55 198.51.100.2 >"$work/out" 2>&1 ||
  fail "tavrel wake failed: $(cat "$work/out")"
lines_within 10 1 || fail "no packet from tavrel wake to 198.51.100.255:7"
ip netns exec "$sender" wakeonlan -i 198.51.100.255 -p 7 00:11:22:33:44:55 >/dev/null || fail "wakeonlan failed"
lines_within 10 2 || fail "no packet from wakeonlan"
ours=$(sed -n 1p "$received")
theirs=$(sed -n 2p "$received")
[ "${ours%% *}" = 198.51.100.1 ] || fail "packet came from ${ours%% *}"
[ "${ours#* }" = "${theirs#* }" ] || fail "payloads differ: ours ${ours#* } wakeonlan ${theirs#* }"
[ "${ours#* }" = "ffffffffffff$(printf '001122334455%.0s' {1..16})" ] || fail "not the magic packet: ${ours#* }"

# Bad MACs: a non-zero exit with a message, and no packet. The marker sent afterwards arrives next only
# when none of them sent anything, so there is no fixed wait.
for mac in 00_11_22_33_44_55 00-11-22-33-44-GG 00-11-22-33-44; do
  ! ip netns exec "$sender" "$bin" wake "$mac" 198.51.100.2 >"$work/out" 2>&1 || fail "tavrel wake accepted $mac"
  [ -s "$work/out" ] || fail "tavrel wake rejected $mac without a message"
done
ip netns exec "$sender" wakeonlan -i 198.51.100.255 -p 7 66:77:88:99:aa:bb >/dev/null || fail "wakeonlan failed"
lines_within 10 3 || fail "marker packet not received"
[ "$(sed -n 3p "$received")" = "198.51.100.1 ffffffffffff$(printf '66778899aabb%.0s' {1..16})" ] ||
  fail "a rejected wake sent a packet: $(sed -n 3p "$received")"

echo "PASS: tavrel wake sends the same magic packet as wakeonlan to 198.51.100.255:7; bad MACs send nothing"
