#!/usr/bin/env bash
# What MQTT costs and how fast it tells, with Debian's mosquitto as the broker. Needs root.
#  1. Presence: on the namespace testbed ("ScanInterval" 10, "AwayAfter" 12) one host is unplugged until
#     its sensor turns OFF, then plugged back in: the time until its sensor is ON in the broker, beside the
#     time until GET /api/computers says it is seen (rounds, median and worst).
#  2. Traffic: 50 hosts, "ScanInterval" 30: the first announcement, then messages and bytes (MQTT payloads,
#     and TCP bytes both ways as the kernel counts them) over a quiet window, scaled to an hour.
#  3. Memory: 1,000 computers in tavrel.ini (no sweep, a private namespace with loopback only): resident
#     memory without MQTT and with every computer announced.
#   usage: bench/mqtt.sh [PATH/TO/tavrel] [--rounds N] [--window S]   (default build/bench/tavrel, 5, 180)
set -uo pipefail

root="$(cd "$(dirname "$0")/.." && pwd)"
testbed="$root/scripts/testbed.sh"
tavrel="$root/build/bench/tavrel" rounds=5 window=180
while [ $# -gt 0 ]; do
  case "$1" in
    --rounds) rounds="$2"; shift 2 ;;
    --window) window="$2"; shift 2 ;;
    *) tavrel="$1"; shift ;;
  esac
done
[ "$(id -u)" -eq 0 ] || { echo "bench/mqtt.sh: needs root (network namespaces)" >&2; exit 2; }
[ -x "$tavrel" ] || { echo "bench/mqtt.sh: no program at $tavrel" >&2; exit 2; }
for tool in mosquitto mosquitto_sub python3 ss; do
  command -v "$tool" >/dev/null || { echo "bench/mqtt.sh: $tool missing (scripts/deps.sh bench)" >&2; exit 2; }
done

prefix="bm$$" work="$(mktemp -d)" pids=()
cleanup() {
  for p in "${pids[@]}"; do kill "$p" 2>/dev/null; done
  wait 2>/dev/null
  "$testbed" down --prefix "$prefix" >/dev/null 2>&1
  rm -rf "$work"
}
trap cleanup EXIT INT TERM
ns="$prefix-scan" port=1883 xap=$((20000 + RANDOM % 20000))
printf 'user root\nlistener %d 127.0.0.1\nallow_anonymous true\npersistence false\n' $port >"$work/broker.conf"

# runs a command in the background (ip netns exec becomes the command: the pid is the program's own)
bg() { "$@" & pids+=($!); }
home() { # dir ini-text: a home on loopback xAP
  mkdir -p "$1/Config"
  printf '[Interface]\nBroadcastAddress=127.0.0.1\nPort=%d\n' $xap >"$1/Config/zelXap.ini"
  printf '%b' "$2" >"$1/Config/tavrel.ini"
}
rss_kb() { awk '/^VmRSS:/ { print $2 }' "/proc/$1/status"; }
lines() { wc -l <"$1" 2>/dev/null || echo 0; }
settle() { # file: waits until the file has stopped growing for 2 s
  local before=-1 now
  while now=$(lines "$1"); [ "$now" != "$before" ]; do before=$now; sleep 2; done
}

# 1. Presence --------------------------------------------------------------------------------------------
"$testbed" up --prefix "$prefix" --hosts 10 >/dev/null || { echo "testbed up failed" >&2; exit 1; }
in_ns() { ip netns exec "$ns" "$@"; }
bg ip netns exec "$ns" mosquitto -c "$work/broker.conf" 2>/dev/null
sleep 0.5
home "$work/p" "[WOL]\nSubnet=198.51.100\nScanMethod=native\nHTTPPort=8019\nScanInterval=10\nAwayAfter=12\n[MQTT]\nMQTTBroker=127.0.0.1:$port\n"
bg ip netns exec "$ns" mosquitto_sub -p $port -F '%U %t %p' -t 'tavrel/+/+/seen' >"$work/seen.txt"
bg ip netns exec "$ns" "$tavrel" --home "$work/p" --no-tray >/dev/null 2>&1
target=198.51.100.5 key=0200c6336405
cat >"$work/round.py" <<'EOF'
# Plugs the host in, then polls the JSON interface and the broker's messages until both show it: two
# delays in s.
import json, subprocess, sys, time, urllib.request
testbed, prefix, ip, key, seen = sys.argv[1:6]
def api_seen():
    try:
        doc = json.load(urllib.request.urlopen("http://127.0.0.1:8019/api/computers", timeout=2))
    except (OSError, ValueError):
        return False
    return any(c["ip"] == ip and c["seen"] for c in doc["computers"])
def broker_on(since):
    for line in open(seen):
        t, topic, payload = (line.split(" ") + ["", ""])[:3]
        if topic.endswith("/%s/seen" % key) and payload.strip() == "ON" and float(t) >= since:
            return True
    return False
subprocess.run([testbed, "plug", "--prefix", prefix, ip], check=True)
t0 = time.time()
api = mqtt = None
while (api is None or mqtt is None) and time.time() - t0 < 30:
    now = time.time()
    if api is None and api_seen(): api = now - t0
    if mqtt is None and broker_on(t0): mqtt = now - t0
    time.sleep(0.05)
print("%.2f %.2f" % (mqtt if mqtt is not None else -1, api if api is not None else -1))
EOF
state_of() { awk -v k="/$key/seen" 'index($2, k) { s = $3 } END { print s }' "$work/seen.txt"; }
for ((i = 0; i < 60; i++)); do [ "$(state_of)" = ON ] && break; sleep 0.5; done
delays=()
for ((r = 0; r < rounds; r++)); do
  "$testbed" unplug --prefix "$prefix" $target
  for ((i = 0; i < 80; i++)); do [ "$(state_of)" = OFF ] && break; sleep 0.5; done
  sleep "$(python3 -c "import random; print(round(random.uniform(0, 10), 2))")"  # any phase of the sweep
  d=$(in_ns python3 "$work/round.py" "$testbed" "$prefix" $target $key "$work/seen.txt")
  echo "round $((r + 1)): sensor ON in the broker after ${d% *} s, seen in /api/computers after ${d#* } s"
  delays+=("$d")
done
presence=$(printf '%s\n' "${delays[@]}" | python3 -c "
import statistics, sys
m, p = zip(*[map(float, l.split()) for l in sys.stdin])
print('presence: broker median %.2f s worst %.2f s, /api/computers median %.2f s worst %.2f s' % (statistics.median(m), max(m), statistics.median(p), max(p)))")
echo "$presence"
for p in "${pids[@]}"; do kill "$p" 2>/dev/null; done
wait 2>/dev/null
pids=()
"$testbed" down --prefix "$prefix" >/dev/null 2>&1

# 2. Traffic ---------------------------------------------------------------------------------------------
"$testbed" up --prefix "$prefix" --hosts 50 >/dev/null || { echo "testbed up failed" >&2; exit 1; }
bg ip netns exec "$ns" mosquitto -c "$work/broker.conf" 2>/dev/null
sleep 0.5
home "$work/t" "[WOL]\nSubnet=198.51.100\nScanMethod=native\nHTTPPort=8019\nScanInterval=30\n[MQTT]\nMQTTBroker=127.0.0.1:$port\n"
bg ip netns exec "$ns" mosquitto_sub -p $port -v -t 'tavrel/#' -t 'homeassistant/#' >"$work/all.txt"
bg ip netns exec "$ns" "$tavrel" --home "$work/t" --no-tray >/dev/null 2>&1
node=$!
sleep 35  # the first sweep and its announcements
settle "$work/all.txt"
tcp() { # bytes the program sent and received on its broker connection
  in_ns ss -tinpH state established "( dport = :$port )" | awk '/"tavrel"/ { getline; print }' |
    tr -s ' \t' '\n\n' |
    awk -F: '$1 == "bytes_sent" { s = $2 } $1 == "bytes_received" { r = $2 } END { print s + 0, r + 0 }'
}
first=$(lines "$work/all.txt") firstBytes=$(wc -c <"$work/all.txt") before=($(tcp))
sleep "$window"
after=($(tcp)) last=$(lines "$work/all.txt") lastBytes=$(wc -c <"$work/all.txt")
scale() { python3 -c "print(round($1 * 3600 / $window))"; }
traffic="traffic (50 hosts, ScanInterval 30): first announcement $first messages, $firstBytes bytes as topic and payload; then $(scale $((last - first))) messages/h, $(scale $((lastBytes - firstBytes))) bytes/h of topics and payloads, TCP $(scale $((after[0] - before[0]))) bytes/h sent and $(scale $((after[1] - before[1]))) received"
echo "$traffic"
for p in "${pids[@]}"; do kill "$p" 2>/dev/null; done
wait 2>/dev/null
pids=()
"$testbed" down --prefix "$prefix" >/dev/null 2>&1

# 3. Memory ----------------------------------------------------------------------------------------------
# 500 computers with an address and MAC in the two test subnets, 500 more at one address without a MAC
# (announced by name); nothing is swept or woken.
table=$(python3 -c "
c, a = [], []
for i in range(500):
    ip = '%s.%d' % ('198.51.100' if i < 250 else '203.0.113', i % 250 + 2)
    c.append('pc%03d=%s' % (i, ip)); a.append('%s=02-00-00-00-%02X-%02X' % (ip, i // 256, i % 256))
c += ['name%03d=203.0.113.254' % i for i in range(500)]
print('\\\\n'.join(['[Computer]'] + c + ['[ARP]'] + a))")
memory() { # with-mqtt(0|1): RSS in kB once the program has announced everything (or after 3 s without)
  local dir="$work/m$1" mqtt=""
  [ "$1" = 1 ] && mqtt="[MQTT]\nMQTTBroker=127.0.0.1:$port\n"
  home "$dir" "[WOL]\nHTTPPort=8019\n$mqtt$table\n"
  unshare -n sh -c "ip link set lo up; mosquitto -c '$work/broker.conf' 2>/dev/null & b=\$!; sleep 0.5
    mosquitto_sub -p $port -v -t 'homeassistant/#' -t 'tavrel/#' >'$dir/all.txt' & s=\$!
    '$tavrel' --home '$dir' --no-tray >/dev/null 2>&1 & t=\$!; sleep 3
    before=-1; while now=\$(wc -l <'$dir/all.txt'); [ \$now != \$before ]; do before=\$now; sleep 2; done
    echo \$(awk '/^VmRSS:/ { print \$2 }' /proc/\$t/status) \$now; kill \$t \$s \$b; wait" 2>/dev/null
}
off=($(memory 0)) on=($(memory 1))
mem="memory (1,000 computers): ${off[0]} kB resident without MQTT, ${on[0]} kB with all announced (${on[1]} messages): +$((on[0] - off[0])) kB"
echo "$mem"
echo "SUMMARY mqtt: $presence; $traffic; $mem"
