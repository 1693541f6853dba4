#!/usr/bin/env bash
# The program's main job on a laptop: installs what is missing, builds,
# starts the configuration daemon simulator on /tmp/cffs_uds with a copy of
# the default appliance configuration, and lighttpd on 127.0.0.1 with the
# shipped demo configuration serving tzr4417.cgi and the console page; then
# shows a few requests and the page's address. `tools/demo.sh stop` stops both.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)
demo="$root/demo"
port="${TZR_DEMO_PORT:-8417}"
url="http://127.0.0.1:$port/cgi-bin/tzr4417.cgi"

stop() {
  for name in lighttpd simulator; do
    if [ -f "$demo/$name.pid" ]; then
      kill "$(cat "$demo/$name.pid")" 2>/dev/null || true
      rm -f "$demo/$name.pid"
    fi
  done
}

# wait_for WHAT COMMAND...: runs COMMAND until it succeeds, for up to 10 s;
# else stops the demo and fails.
wait_for() {
  local what=$1
  shift
  for _ in $(seq 100); do
    "$@" && return 0
    sleep 0.1
  done
  echo "demo: waited 10 s for $what in vain; see $demo/lighttpd.log and $demo/simulator.log" >&2
  stop
  exit 1
}

if [ "${1:-}" = stop ]; then
  stop
  echo "Demo stopped."
  exit 0
fi

tools/install-deps.sh
tools/build.sh
stop
mkdir -p "$demo"
cmake --install build --prefix "$demo/www" >/dev/null

# The simulator saves into its own copy, never into the shipped default.
cp simulator/appliance-default.conf "$demo/appliance.conf"
: >"$demo/transcript"
coproc SIMULATOR { exec build/simulator/cffs-sim --config "$demo/appliance.conf" \
  --transcript "$demo/transcript" --verbose 2>"$demo/simulator.log"; }
echo "$SIMULATOR_PID" >"$demo/simulator.pid"
read -r -t 5 ready <&"${SIMULATOR[0]}" || true
[ "${ready:-}" = ready ] || { echo "The simulator did not start: see $demo/simulator.log"; exit 1; }

cat >"$demo/lighttpd.conf" <<CONF
var.tzr4417_dir = "$root/web/servers/lighttpd"
var.tzr4417_www = "$demo/www"
var.tzr4417_port = $port
server.errorlog = "$demo/lighttpd.log"
include var.tzr4417_dir + "/demo.conf"
CONF
lighttpd -D -f "$demo/lighttpd.conf" </dev/null >>"$demo/lighttpd.log" 2>&1 &
echo $! >"$demo/lighttpd.pid"
# Listening, and lighttpd itself rather than whatever held the port.
listening() { kill -0 "$(cat "$demo/lighttpd.pid")" 2>/dev/null && curl -s -o /dev/null "$url"; }
wait_for "lighttpd to listen on port $port" listening

show() {
  printf '$ curl -s'
  printf " '%s'" "$@"
  echo
  curl -s "$@"
  echo
}
echo
echo "tzr4417.cgi is served at $url"
echo "(simulator on /tmp/cffs_uds, its tree in $demo/appliance.conf, its requests in $demo/transcript)"
echo
show "$url?read=/configuration/network/ip_addr,/configuration/network/subnet_mask,/configuration/network/broadcast_addr"
show "$url?read=/configuration/encoders/venc1/codec,/configuration/outputs/ts/muxer/mux1/bitrate,/nothing"
show -i "$url?read="
echo "A write: the broadcast address follows the IP address; the reply comes at once,"
echo "and the detached child then sends apply and save. Outside a browser a write"
echo "sends the console page's header, which a foreign page cannot make a browser send:"
show -H 'X-Tzr4417-Console: 1' "$url?write=/configuration/network/ip_addr&value=10.0.0.5"
wait_for "the write's apply and save" grep -q 'ip_addr 10.0.0.5' "$demo/appliance.conf"
echo "\$ tail -n 4 $demo/transcript"
tail -n 4 "$demo/transcript"
echo "\$ grep /network/ $demo/appliance.conf"
grep /network/ "$demo/appliance.conf"
echo
echo "The console page: http://127.0.0.1:$port/console/"
echo
echo "More to try:"
echo "  curl -s '$url?read=/configuration/encoders/venc1/h264/bitrate'"
echo "  curl -s -H 'X-Tzr4417-Console: 1' -d 'read=/configuration/outputs/recorder/enable' '$url'"
echo "  curl -s -H 'X-Tzr4417-Console: 1' '$url?write=/configuration/outputs/rtsp/streams/stream1/aenc&value=2'"
echo "  cat $demo/transcript    # what the daemon received"
echo "  tools/demo.sh stop"
