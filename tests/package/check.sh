#!/usr/bin/env bash
# The Debian package made from a build directory: unpacked into a scratch root (never installed), its
# control fields and its exact file list checked, the unpacked program run for its version, and its
# systemd unit verified by systemd-analyze against the unpacked program. No service is started.
#   tests/package/check.sh BUILD_DIR
set -euo pipefail

build=$1
for tool in cpack dpkg-deb dpkg-shlibdeps systemd-analyze; do
  command -v "$tool" >/dev/null || { echo "SKIP: $tool is missing (scripts/deps.sh test installs it)"; exit 77; }
done
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
fail() { echo "FAIL: $*"; exit 1; }

(cd "$build" && cpack -G DEB -B "$scratch/out" >"$scratch/cpack.log" 2>&1) || { cat "$scratch/cpack.log"; fail "cpack"; }
debs=("$scratch"/out/tavrel_*_*.deb)
[ ${#debs[@]} -eq 1 ] && [ -f "${debs[0]}" ] || fail "expected one tavrel_VERSION_ARCH.deb, got: ${debs[*]}"
deb=${debs[0]}

field() { dpkg-deb -f "$deb" "$1"; }
[ "$(field Package) $(field Section)" = "tavrel net" ] || fail "Package, Section: $(field Package) $(field Section)"
[ -n "$(field Maintainer)" ] || fail "no Maintainer"
[[ "$(field Depends)" == *libc6* ]] || fail "Depends not computed from the program: $(field Depends)"
[[ "$(field Depends)" == *libnettle* ]] || fail "Depends lacks Nettle (the password hash): $(field Depends)"
version=$(field Version)

# Exactly these files, nothing else (directories aside).
expected="./lib/systemd/system/tavrel.service
./usr/bin/tavrel
./usr/share/doc/tavrel/README.md
./usr/share/tavrel/HTML/StyleNoBody.css
./usr/share/tavrel/HTML/led-Green.gif
./usr/share/tavrel/HTML/led-Red.gif
./usr/share/tavrel/HTML/led-yellow.gif"
actual=$(dpkg-deb -c "$deb" | awk '$1 !~ /^d/ {print $NF}' | sort)
[ "$actual" = "$expected" ] || fail "file list differs:$(diff <(echo "$expected") <(echo "$actual"))"

root=$scratch/root
dpkg-deb -x "$deb" "$root"
[ "$("$root/usr/bin/tavrel" --version)" = "tavrel $version" ] || fail "the unpacked program is not version $version"

# The static files are the ones the program writes into a fresh home (never overwritten there).
home=$scratch/home
mkdir -p "$home/Config"
# Keeps the program on loopback in a network namespace of its own when it can have one (root).
printf '[Interface]\r\nBroadcastAddress=127.0.0.1\r\nPort=39639\r\n' >"$home/Config/zelXap.ini"
printf '[WOL]\r\nHTTPPort=""\r\n' >"$home/Config/tavrel.ini"
run=()
if [ "$(id -u)" -eq 0 ] && unshare -n true 2>/dev/null; then run=(unshare -n); fi
"${run[@]}" "$root/usr/bin/tavrel" --home "$home" --no-tray 2>"$scratch/stderr" &
pid=$!
for _ in $(seq 100); do [ -s "$scratch/stderr" ] && break; sleep 0.05; done
kill -INT "$pid" 2>/dev/null || true
wait "$pid" || fail "the unpacked program did not end cleanly: $(cat "$scratch/stderr")"
[[ "$(head -n 1 "$scratch/stderr")" == "tavrel: xAP node "* ]] || fail "no start-up line: $(cat "$scratch/stderr")"
for f in StyleNoBody.css led-Green.gif led-Red.gif led-yellow.gif; do
  cmp -s "$home/HTML/$f" "$root/usr/share/tavrel/HTML/$f" || fail "HTML/$f differs from the program's own"
done

unit=$root/lib/systemd/system/tavrel.service
grep -qx 'ExecStart=/usr/bin/tavrel --home /var/lib/tavrel --no-tray' "$unit" || fail "ExecStart"
grep -qx 'AmbientCapabilities=CAP_NET_RAW' "$unit" || fail "AmbientCapabilities"
grep -qx 'CapabilityBoundingSet=CAP_NET_RAW' "$unit" || fail "CapabilityBoundingSet"
# A copy that starts the unpacked program, so verify checks the command that is really shipped.
mkdir "$scratch/unit"
sed "s#^ExecStart=/usr/bin/tavrel #ExecStart=$root/usr/bin/tavrel #" "$unit" >"$scratch/unit/tavrel.service"
# Unknown keys and other complaints are only warnings to verify: any output fails the check.
if ! out=$(systemd-analyze verify "$scratch/unit/tavrel.service" 2>&1) || [ -n "$out" ]; then
  fail "systemd-analyze verify: $out"
fi
echo "ok: $(basename "$deb") ($(stat -c %s "$deb") bytes) unpacks, its program runs, its unit verifies"
