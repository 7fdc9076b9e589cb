#!/usr/bin/env bash
# Installs the Debian packages a task needs, only those missing; quiet when all are present.
#   scripts/deps.sh build    what `make run` needs
#   scripts/deps.sh test     what `make test` needs (the build, the Windows cross build, Wine, test tools)
#   scripts/deps.sh package  what `make package` needs (the build, the Windows cross build, the Debian tools)
#   scripts/deps.sh bench    what the benchmarks need
set -euo pipefail

build=(cmake ninja-build g++ pkg-config libasio-dev libsystemd-dev nettle-dev libmosquitto-dev nlohmann-json3-dev)
test=("${build[@]}" libgtest-dev libgmock-dev googletest clang clang-format libclang-rt-14-dev
      g++-mingw-w64-x86-64-posix mingw-w64-tools wine wine64 xvfb xauth
      iproute2 wakeonlan python3 util-linux chromium dbus-daemon dpkg-dev file systemd
      mosquitto mosquitto-clients)
package=("${build[@]}" dpkg-dev file g++-mingw-w64-x86-64-posix mingw-w64-tools googletest)
bench=("${test[@]}" libbenchmark-dev arp-scan nmap wrk hyperfine nginx-light curl iputils-ping)

case "${1:-test}" in
  build) want=("${build[@]}") ;;
  test) want=("${test[@]}") ;;
  package) want=("${package[@]}") ;;
  bench) want=("${bench[@]}") ;;
  *) echo "usage: $0 build|test|package|bench" >&2; exit 2 ;;
esac

missing=()
for p in "${want[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0

sudo=""
[ "$(id -u)" -ne 0 ] && sudo="sudo"
echo "installing: ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -qq
$sudo apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
