# shellcheck shell=bash
# What the shell tests share: failures counted (not fatal, so every check runs), and waiting for a
# condition with a deadline instead of sleeping for a fixed time.
failures=0
fail() { echo "FAIL: $*"; failures=$((failures + 1)); }
wait_for() { # seconds command...: polls the command until it succeeds or the deadline passes
  local until=$(($(date +%s) + $1))
  shift
  until "$@"; do
    [ "$(date +%s)" -le $until ] || return 1
    sleep 0.05
  done
}
ended() { # seconds: waits for the background program $pid to end; rc is its exit code, or "running"
  rc=running
  wait_for "$1" sh -c "! kill -0 $pid 2>/dev/null" || return 1
  wait "$pid"
  rc=$? pid=""
}
