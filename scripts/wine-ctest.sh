#!/usr/bin/env bash
# Runs the Windows build's tests under Wine, inside a virtual X display (the tray code needs one).
set -euo pipefail
cd "$(dirname "$0")/.."
export WINEPREFIX="$PWD/build/windows/wineprefix" WINEDEBUG=-all,err+module WINEDLLOVERRIDES="mscoree,mshtml="
mkdir -p "$WINEPREFIX"
# The first start creates the prefix; do it once before the tests so no test pays for it.
xvfb-run -a sh -c '/usr/lib/wine/wine64 cmd /c exit >/dev/null 2>&1; ctest --preset windows -j 2 -LE "netns|integration"; rc=$?; wineserver -w; exit $rc'
