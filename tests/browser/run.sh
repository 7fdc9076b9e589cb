#!/usr/bin/env bash
# The management page in headless Chromium (page.test.mjs) against the given tavrel binary, the node
# modules installed when missing. As root the run gets a network namespace of its own holding only
# loopback, so neither the page's actions nor the browser can reach any network.
#   usage: run.sh PATH/TO/tavrel        exit 77 = skipped
set -euo pipefail
TAVREL_BINARY="$(realpath "${1:?usage: run.sh PATH/TO/tavrel}")" && export TAVREL_BINARY
cd "$(dirname "$0")"
[ -x /usr/bin/chromium ] || { echo "SKIP: /usr/bin/chromium is missing (Debian package chromium)"; exit 77; }
command -v node >/dev/null && command -v npm >/dev/null || { echo "SKIP: needs node and npm"; exit 77; }
[ -d node_modules/playwright-core ] || npm ci --no-audit --no-fund --loglevel=error
if [ "$(id -u)" -eq 0 ] && unshare -n true 2>/dev/null; then
  exec unshare -n sh -c 'ip link set lo up && exec node --test page.test.mjs'
fi
echo "no network namespace (needs root and unshare): running on the machine's own loopback"
exec node --test page.test.mjs
