#!/usr/bin/env bash
# The wake packet of `tavrel wake` must be byte for byte the one wakeonlan sends, go to the subnet
# broadcast on port 7, and a bad MAC must send nothing. Runs in two network namespaces of its own
# (sender 198.51.100.1, listener 198.51.100.2, joined by a veth pair); nothing reaches a real network.
#   usage: wol_packet.sh TAVREL_BINARY      exit 0 pass, 1 fail, 77 skipped
set -u

bin=${1:-}
if [ -z "$bin" ] || [ ! -x "$bin" ]; then
  echo "usage: $0 TAVREL_BINARY" >&2
  exit 2
fi

skip() {
  echo "SKIP: $*"
  exit 77
}
fail() {
  echo "FAIL: $*" >&2
  exit 1
}

[ "$(id -u)" -eq 0 ] || skip "needs root for network namespaces"
command -v ip >/dev/null 2>&1 || skip "ip (iproute2) is not installed"
command -v wakeonlan >/dev/null 2>&1 || skip "wakeonlan is not installed"
command -v tcpdump >/dev/null 2>&1 || skip "tcpdump is not installed"
command -v python3 >/dev/null 2>&1 || skip "python3 is not installed"

sender="tvwol-s-$$"
listener="tvwol-l-$$"
vethS="tvws$$"
vethL="tvwl$$"
work=$(mktemp -d "${TMPDIR:-/tmp}/tavrel-wol.XXXXXX")
created=()
pids=()

cleanup() {
  local pid ns
  for pid in "${pids[@]}"; do
    kill "$pid" 2>/dev/null && wait "$pid" 2>/dev/null
  done
  for ns in "${created[@]}"; do
    ip netns del "$ns" 2>/dev/null
  done
  rm -rf "$work"
}
trap cleanup EXIT

# wait_for SECONDS COMMAND...: polls COMMAND until it succeeds or the deadline passes.
wait_for() {
  local deadline=$((SECONDS + $1))
  shift
  until "$@"; do
    [ "$SECONDS" -lt "$deadline" ] || return 1
    sleep 0.05
  done
}
lines_at_least() { [ -f "$1" ] && [ "$(wc -l <"$1")" -ge "$2" ]; }
captured_at_least() { [ "$(tcpdump -nn -r "$1" 2>/dev/null | wc -l)" -ge "$2" ]; }

ip netns add "$sender" 2>/dev/null || skip "cannot create network namespaces here"
created+=("$sender")
ip netns add "$listener" || fail "cannot create namespace $listener"
created+=("$listener")
ip link add "$vethS" netns "$sender" type veth peer name "$vethL" netns "$listener" ||
  fail "cannot create the veth pair"
ip -n "$sender" addr add 198.51.100.1/24 broadcast 198.51.100.255 dev "$vethS"
ip -n "$listener" addr add 198.51.100.2/24 broadcast 198.51.100.255 dev "$vethL"
for ns in "$sender" "$listener"; do ip -n "$ns" link set lo up; done
ip -n "$sender" link set "$vethS" up
ip -n "$listener" link set "$vethL" up

# Listener: one line per datagram on port 7, "source-ip payload-hex".
received="$work/received.txt"
cat >"$work/listen.py" <<'EOF'
import socket, sys
out, ready = sys.argv[1], sys.argv[2]
s = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
s.bind(("0.0.0.0", 7))
open(ready, "w").close()
with open(out, "a") as f:
    while True:
        data, addr = s.recvfrom(2048)
        f.write("%s %s\n" % (addr[0], data.hex()))
        f.flush()
EOF
ip netns exec "$listener" python3 "$work/listen.py" "$received" "$work/ready" &
pids+=($!)
wait_for 10 test -f "$work/ready" || fail "listener did not start"

# The capture shows where the packets went (address and port), which the listener cannot.
ip netns exec "$listener" tcpdump -i "$vethL" -nn --immediate-mode -U -w "$work/wol.pcap" udp port 7 2>"$work/tcpdump.err" &
pids+=($!)
wait_for 10 grep -q "listening on" "$work/tcpdump.err" || fail "tcpdump did not start: $(cat "$work/tcpdump.err")"

ip netns exec "$sender" "$bin" wake 00-11-22-33-44-55 198.51.100.2 >"$work/wake.out" 2>&1 ||
  fail "tavrel wake failed: $(cat "$work/wake.out")"
wait_for 10 lines_at_least "$received" 1 || fail "no packet from tavrel wake"

ip netns exec "$sender" wakeonlan -i 198.51.100.255 -p 7 00:11:22:33:44:55 >/dev/null ||
  fail "wakeonlan failed"
wait_for 10 lines_at_least "$received" 2 || fail "no packet from wakeonlan"

ours=$(sed -n 1p "$received")
theirs=$(sed -n 2p "$received")
[ "${ours%% *}" = "198.51.100.1" ] || fail "packet came from ${ours%% *}"
[ "${ours#* }" = "${theirs#* }" ] || fail "payloads differ: ours ${ours#* } wakeonlan ${theirs#* }"
expected="ffffffffffff$(printf '001122334455%.0s' $(seq 16))"
[ "${ours#* }" = "$expected" ] || fail "payload is not the magic packet: ${ours#* }"

# Bad input: a non-zero exit and no packet. A marker datagram sent afterwards proves the listener would
# have seen one, without waiting a fixed time.
for mac in 00:11:22:33:44:55 00-11-22-33-44-GG 00-11-22-33-44; do
  if ip netns exec "$sender" "$bin" wake "$mac" 198.51.100.2 >"$work/bad.out" 2>&1; then
    fail "tavrel wake accepted the MAC $mac"
  fi
  [ -s "$work/bad.out" ] || fail "tavrel wake rejected $mac without a message"
done
ip netns exec "$sender" python3 -c '
import socket
s = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
s.setsockopt(socket.SOL_SOCKET, socket.SO_BROADCAST, 1)
s.sendto(b"marker", ("198.51.100.255", 7))'
wait_for 10 lines_at_least "$received" 3 || fail "marker packet not received"
[ "$(wc -l <"$received")" -eq 3 ] || fail "a rejected wake sent a packet: $(cat "$received")"
[ "$(sed -n 3p "$received")" = "198.51.100.1 $(printf marker | od -An -tx1 | tr -d ' \n')" ] ||
  fail "unexpected third packet: $(sed -n 3p "$received")"

# Check where our packet went, then stop the capture (only the one started here).
wait_for 10 captured_at_least "$work/wol.pcap" 3 || fail "tcpdump did not capture the packets"
kill -INT "${pids[1]}" && wait "${pids[1]}" 2>/dev/null
first=$(tcpdump -nn -r "$work/wol.pcap" 2>/dev/null | head -n 1)
case "$first" in
  *"198.51.100.1."*" > 198.51.100.255.7: UDP, length 102"*) ;;
  *) fail "tavrel's packet was not a 102-byte datagram to 198.51.100.255 port 7: $first" ;;
esac

echo "PASS: tavrel wake sends the same magic packet as wakeonlan to 198.51.100.255:7; bad MACs send nothing"
