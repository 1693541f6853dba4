#!/usr/bin/env bash
# An emulated ARM board that runs the whole stack the way the appliance does:
# an ARM kernel under qemu-system, busybox init and syslogd, the daemon
# simulator as the appliance's daemon, the web server and the program
# installed from the release archive as INSTALL.md says, and a data
# partition that keeps the saved configuration and the device's certificate.
#
#   board/board.sh start [armhf|arm64] [--server lighttpd|busybox] [--clock WHEN]
#                                   WHEN (UTC, 2040-06-01T00:00:00 or 2040-06-01):
#                                   the board's real-time clock at power-on
#   board/board.sh build [armhf|arm64]   only fetch and build what start needs
#   board/board.sh stop             power off cleanly
#   board/board.sh reboot           reboot, and wait until it answers again
#   board/board.sh cut              pull the power: qemu killed on the spot
#   board/board.sh run 'COMMAND' [SECONDS]   a command on the board's serial console
#   board/board.sh daemon [OPTION...]   restart the board's daemon with the
#                                   simulator's options (--delay-ms 500: a
#                                   slow daemon); none: as it boots
#   board/board.sh status           the console's address and the board's
#                                   time, if a board runs
#
# Everything listens on 127.0.0.1 only. TZR_BOARD_DIR (build/board by
# default) holds one board: its data disk, which outlives starts and stops,
# and its password, ports, console and image.
set -euo pipefail
cd "$(dirname "$0")/.."
state=${TZR_BOARD_DIR:-$PWD/build/board}

die() {
  echo "board: $*" >&2
  exit 1
}

# A qemu that has ended but not been reaped yet has no command line.
running() {
  local pid
  pid=$(cat "$state/qemu.pid" 2>/dev/null) && grep -qa qemu-system "/proc/$pid/cmdline" 2>/dev/null
}

# The console page on the host: over HTTPS from lighttpd, plain HTTP from busybox.
console_url() {
  local server port scheme=https
  read -r server port <"$state/web"
  [ "$server" = lighttpd ] || scheme=http
  echo "$scheme://127.0.0.1:$port/console/"
}

address() {
  echo "$(console_url)  login: admin  password: $(cat "$state/password")"
}

# The preferred port when it is free, so the address stays the same from one
# start to the next; any free one otherwise.
port() {
  /usr/bin/python3 -c 'import socket, sys
s = socket.socket()
try: s.bind(("127.0.0.1", int(sys.argv[1])))
except OSError: s.bind(("127.0.0.1", 0))
print(s.getsockname()[1])' "$1"
}

console() {
  running || die "no board is running"
  exec 9>"$state/console.lock"
  flock 9
  /usr/bin/python3 board/console.py "$state/console.sock" "$@"
}

since() {
  awk -v from="$1" -v to="$EPOCHREALTIME" 'BEGIN { printf "%.1f", to - from }'
}

# Boots counted in the console's log: init's script prints a line for each.
boots() {
  grep -c '^board: booted' "$state/console.log" 2>/dev/null || true
}

wait_ready() {
  local before=$1 deadline=$((SECONDS + 180))
  until [ "$(boots)" -gt "$before" ] && curl -sk -o /dev/null --max-time 5 "$(console_url)"; do
    running || die "qemu ended during the boot; its console said:$(printf '\n'; tail -n 30 "$state/console.log")"
    [ $SECONDS -lt $deadline ] || die "the board did not answer within 3 minutes; see $state/console.log"
    sleep 0.2
  done
}

# What a board of ARCH needs from the network and the compilers: the
# target's release archive, kernel and userland. Sets archive and debs.
prepare() {
  local arch=$1 flavour
  case $arch in armhf) flavour=armmp ;; arm64) flavour=arm64 ;; *) die "no board for '$arch': armhf or arm64" ;; esac
  tools/install-deps.sh qemu-system-arm kmod e2fsprogs cpio busybox binutils curl python3 >&2
  archive=$(tools/build-arm.sh "$arch" --package | tail -n 2 | head -n 1)
  [ -f "$archive" ] || die "no release archive for $arch"

  # The board's userland: busybox, lighttpd with the modules the snippets
  # load, openssl for the certificate, nft for the connection limit, and the
  # libraries they link (named:
  # letting apt resolve lighttpd against an empty status pulls in systemd and
  # perl). image.py refuses an image whose programs lack a library. armhf's
  # comes from Debian 13, whose 32-bit ARM has 64-bit time_t throughout
  # (12's busybox cannot set a date past 2038); its kernel stays 12's, which
  # has the 64-bit time calls too. Add a package to the list it belongs to.
  local userland=(busybox-static lighttpd lighttpd-mod-openssl lighttpd-modules-lua openssl libc6 libcrypt1
                  libpcre2-8-0 libxxhash0 liblua5.4-0
                  nftables libnftables1 libedit2 libbsd0 libmd0 libtinfo6 libgmp10 libjansson4 libmnl0 libnftnl11
                  libxtables12) suite=()
  case $arch in
    armhf) userland+=(libnettle8t64 libssl3t64 libzstd1 zlib1g) suite=(--suite trixie) ;;
    arm64) userland+=(libnettle8 libssl3) ;;
  esac
  local kernel wanted
  debs=$PWD/build/$arch/board-debs
  kernel=$(tools/target-apt.sh "$arch" depends "linux-image-$flavour" | grep '^linux-image-')
  wanted="$kernel ${suite[*]} ${userland[*]}"
  if [ "$(cat "$debs/.packages" 2>/dev/null)" != "$wanted" ]; then
    rm -rf "$debs"
    tools/target-apt.sh "$arch" download "$debs" "$kernel"
    tools/target-apt.sh "${suite[@]}" "$arch" download "$debs" "${userland[@]}"
    echo "$wanted" >"$debs/.packages"
  fi
}

start() {
  local arch=armhf server=lighttpd clock=utc
  while [ $# -gt 0 ]; do
    case $1 in
      armhf | arm64) arch=$1 ;;
      --server) server=${2:-} && shift ;;
      --clock) clock=${2:-} && shift ;;
      *) die "usage: board/board.sh start [armhf|arm64] [--server lighttpd|busybox] [--clock WHEN]" ;;
    esac
    shift
  done
  case $server in lighttpd | busybox) ;; *) die "--server is lighttpd or busybox" ;; esac
  # qemu's two forms; its RTC then runs on from there, in UTC as the host's does.
  [[ $clock =~ ^(utc|[0-9]{4}-[0-9]{2}-[0-9]{2}(T[0-9]{2}:[0-9]{2}:[0-9]{2})?)$ ]] ||
    die "--clock is a UTC time: 2040-06-01T00:00:00 or 2040-06-01"
  running && die "a board is already running: $(address)"
  local begun=$EPOCHREALTIME qemu machine archive debs
  case $arch in
    armhf) qemu=qemu-system-arm machine=(-M virt -cpu cortex-a15) ;;
    arm64) qemu=qemu-system-aarch64 machine=(-M virt -cpu cortex-a53) ;;
  esac
  prepare "$arch"

  mkdir -p "$state"
  [ -s "$state/password" ] || head -c 12 /dev/urandom | base64 | tr -d '/+=' >"$state/password"
  PYTHONPATH=tools /usr/bin/python3 board/image.py "$archive" "$debs" "build/$arch/simulator/cffs-sim" "$server" \
    "$(cat "$state/password")" "$state/image"
  if [ ! -e "$state/data.img" ]; then
    truncate -s 64M "$state/data.img"
    # 256-byte inodes: their times go past 2038, 128-byte ones stop there.
    mkfs.ext4 -q -L data -I 256 "$state/data.img"
  fi

  local https http
  https=$(port 8443) http=$(port 8080)
  if [ "$server" = lighttpd ]; then echo "lighttpd $https" >"$state/web"; else echo "busybox $http" >"$state/web"; fi
  rm -f "$state/console.sock" "$state/qemu.pid"
  local booted=$EPOCHREALTIME
  "$qemu" "${machine[@]}" -m 256 -smp 1 -nodefaults -no-user-config -display none -monitor none \
    -kernel "$state/image/kernel" -initrd "$state/image/initrd.gz" \
    -append "console=ttyAMA0 rdinit=/sbin/init quiet" -rtc "base=$clock" \
    -chardev "socket,id=console,path=$state/console.sock,server=on,wait=off,logfile=$state/console.log" \
    -serial chardev:console \
    -drive "if=none,id=data,format=raw,file=$state/data.img" -device virtio-blk-device,drive=data \
    -netdev "user,id=net,hostfwd=tcp:127.0.0.1:$https-:443,hostfwd=tcp:127.0.0.1:$http-:80" \
    -device virtio-net-device,netdev=net -device virtio-rng-device \
    -daemonize -pidfile "$state/qemu.pid"
  wait_ready 0
  echo "board: $arch with $server, ready in $(since "$begun") s, of which the boot $(since "$booted") s"
  grep -a -o 'tzr4417-certificate: .*Fingerprint=.*' "$state/console.log" | tr -d '\r' || true
  echo "board: its serial console: board/board.sh run 'COMMAND'; power off: board/board.sh stop"
  address
}

stop() {
  running || {
    echo "board: none is running"
    return 0
  }
  console 20 'poweroff' || true
  for _ in $(seq 150); do
    running || break
    sleep 0.2
  done
  if running; then
    echo "board: it did not power off within 30 s; qemu killed" >&2
    kill -9 "$(cat "$state/qemu.pid")"
  fi
  rm -f "$state/qemu.pid" "$state/console.sock"
}

case ${1:-} in
  # Each on a line of its own: set -e does not reach into a function that
  # runs on the left of && or ||.
  start)
    shift
    start "$@"
    ;;
  build)
    prepare "${2:-armhf}"
    echo "board: $archive and the board's packages are ready"
    ;;
  stop) stop ;;
  reboot)
    before=$(boots)
    console 20 'reboot'
    wait_ready "$before"
    ;;
  cut)
    running || die "no board is running"
    kill -9 "$(cat "$state/qemu.pid")"
    rm -f "$state/qemu.pid" "$state/console.sock"
    ;;
  run)
    [ $# -ge 2 ] || die "usage: board/board.sh run 'COMMAND' [SECONDS]"
    status=0
    console "${3:-60}" "$2" || status=$?
    [ $status -eq 0 ] || echo "board: exit status $status" >&2
    exit $status
    ;;
  daemon)
    shift
    case "$*" in *[!A-Za-z0-9\ ._=-]*) die "daemon: options are plain words" ;; esac
    # init starts the next one with the options; the wait is for it to answer.
    console 60 "echo '$*' >/run/daemon.options && old=\$(pidof cffs-sim) && killall cffs-sim &&
      until [ -n \"\$(pidof cffs-sim)\" ] && [ \"\$(pidof cffs-sim)\" != \"\$old\" ] &&
        REQUEST_METHOD=GET QUERY_STRING=read=/configuration/network/ip_addr /www/cgi-bin/tzr4417.cgi |
        grep -q '^{'; do sleep 0.1; done"
    ;;
  status)
    running || die "no board is running"
    address
    echo "board: its clock reads $(console 10 date)"
    ;;
  *) sed -n '/^#   board/s/^# *//p' "$0" >&2 && exit 2 ;;
esac
