#!/usr/bin/env bash
# What the emulated board costs: its boot, a request through its web server
# from the host, the program alone on the board, and its memory in use.
#   bench/board.sh [armhf|arm64]
# Boots a board of its own (three times, for the boot) in TZR_BOARD_DIR,
# build/board-bench by default, and powers it off at the end.
set -euo pipefail
cd "$(dirname "$0")/.."
arch=${1:-armhf}
export TZR_BOARD_DIR=${TZR_BOARD_DIR:-$PWD/build/board-bench}
board=board/board.sh

for _ in 1 2 3; do
  $board start "$arch" | grep 'ready in'
  $board stop >/dev/null
done
$board start "$arch" >/dev/null
trap '$board stop >/dev/null' EXIT
password=$(cat "$TZR_BOARD_DIR/password")
port=$(awk '{ print $2 }' "$TZR_BOARD_DIR/web")
$board run 'cat /etc/lighttpd/tzr4417/tls/cert.pem' >"$TZR_BOARD_DIR/cert.pem"
program=https://127.0.0.1:$port/cgi-bin/tzr4417.cgi
every=$(awk '/^\// { print $1 }' simulator/appliance-default.conf | paste -sd,)

median() {
  sort -n | awk '{ t[NR] = $1 * 1000 } END { printf "%.1f ms (median of %d; %.1f to %.1f)\n", t[int((NR + 1) / 2)], NR, t[1], t[NR] }'
}

# 20 requests over one connection; the first, which makes it, is left out.
kept() {
  for _ in $(seq 20); do printf 'url = "%s"\noutput = "/dev/null"\n' "$1"; done |
    curl -s -w '%{time_total}\n' --cacert "$TZR_BOARD_DIR/cert.pem" -u "admin:$password" \
      -H 'X-Tzr4417-Console: 1' -K - | tail -n +2 | median
}

printf 'a new connection, TLS handshake and a read of 1 name: '
curl -s -o /dev/null -w '%{time_total}\n' --cacert "$TZR_BOARD_DIR/cert.pem" -u "admin:$password" \
  -H 'X-Tzr4417-Console: 1' "$program?read=/configuration/network/ip_addr" | median
printf 'a read of 1 name: '
kept "$program?read=/configuration/network/ip_addr"
printf 'a read of all %s known names: ' "$(tr , '\n' <<<"$every" | wc -l)"
kept "$program?read=$every"
printf 'a write of the host name: '
kept "$program?write=/configuration/network/hostname&value=encoder"
# busybox's date has no nanoseconds: 5 rounds of 50 runs, timed by uptime.
printf 'the program alone on the board, a read of 1 name: '
$board run 'for round in 1 2 3 4 5; do
  read -r from _ </proc/uptime
  for run in $(seq 50); do
    REQUEST_METHOD=GET QUERY_STRING=read=/configuration/network/ip_addr /www/cgi-bin/tzr4417.cgi >/dev/null
  done
  read -r to _ </proc/uptime
  echo "$from $to"
done' | awk '{ print ($2 - $1) / 50 }' | median
echo 'memory on the board, the whole stack running:'
$board run free
