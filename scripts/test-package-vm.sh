#!/usr/bin/env bash
# Installs the amd64 package and starts the daemon as its systemd units would, then drives it:
#   scripts/test-package-vm.sh [--host] [DEB]
# DEB defaults to the newest dist/k52app_*_amd64.deb (scripts/package.sh amd64 builds it).
#
# Default: inside the kernel VM (scripts/kernel-vm.sh), `dpkg -i` into the VM's throw-away
# overlay, so the maintainer scripts run (system user, groups, unit links), with the kernel
# board configuration (etc/k52app-kernel.conf, ports left out) as the installed conffile.
# --host: on this machine, the package unpacked (`dpkg-deb -x`, no maintainer scripts) into a
# temporary root, with the emulated board configuration.
#
# systemd is not booted in the VM (too heavy for a few-second test): systemd-socket-activate
# opens the two listening sockets named as the socket units name them and, on the first
# connection, runs the installed service's ExecStart= line. Then k52ctl sends a command and streams frames, SIGTERM stops the
# daemon, and the test checks that the container files appeared, were removed, and that the
# exit status is 0.
set -euo pipefail
cd "$(dirname "$0")/.."
repo=$PWD

die() { echo "test-package-vm: $*" >&2; exit 1; }

mode=vm
[ "${1:-}" = --host ] && { mode=host; shift; }
[ "${1:-}" = --inside-vm ] && { mode=inside; shift; }
deb=${1:-$(ls -t dist/k52app_*_amd64.deb 2>/dev/null | head -n 1 || true)}
[ -n "$deb" ] && [ -f "$deb" ] || die "no amd64 package: run scripts/package.sh amd64 first"
deb=$(realpath "$deb")

if [ "$mode" = vm ]; then
  [ -x scripts/kernel-vm.sh ] || die "scripts/kernel-vm.sh is missing; run with --host instead"
  [ -f etc/k52app-kernel.conf ] || die "etc/k52app-kernel.conf is missing; run with --host instead"
  setup=()
  [ -f scripts/kernel-vm-board.sh ] && setup=(--setup scripts/kernel-vm-board.sh)
  exec scripts/kernel-vm.sh --timeout 600 "${setup[@]}" -- scripts/test-package-vm.sh --inside-vm "$deb"
fi

command -v systemd-socket-activate >/dev/null ||
  die "systemd-socket-activate is missing: apt-get install -y systemd"
work=$(mktemp -d /tmp/k52pkgtest.XXXXXX)
daemon=
cleanup() {
  [ -n "$daemon" ] && kill -KILL "$daemon" 2>/dev/null || true
  rm -rf "$work"
}
trap cleanup EXIT

# Drops the port lines (the sockets come from activation) and sets the container directory.
board_conf() {
  sed -E '/^socket-(ctrl|stream)=/d; s|^container-path=.*|container-path='"$containers"'|' "$1"
}

containers=$work/containers/
if [ "$mode" = inside ]; then
  root=
  dpkg -i "$deb" >"$work/dpkg.log" 2>&1 || { cat "$work/dpkg.log" >&2; die "dpkg -i $deb failed"; }
  id k52app >/dev/null 2>&1 || die "the package did not create the k52app user"
  board_conf etc/k52app-kernel.conf >/etc/k52app/k52app.conf
  ports=(4460 4461)
else
  root=$work/root
  dpkg-deb -x "$deb" "$root"
  # Paths the emulated configuration gives relative to the repository, taken from the package
  # where it ships them.
  board_conf etc/k52app-emulated.conf |
    sed -E "s|^smart-sensor-fw-path=.*|smart-sensor-fw-path=$repo/etc/firmware/smartsensor.bin|;
            s|^static-files=.*|static-files=$root/opt/corvane/k52app/etc/static-frames|;
            s|^emulated-button-file=.*|emulated-button-file=$work/button|" >"$root/etc/k52app/k52app.conf"
  ports=($(/usr/bin/python3 -c 'import socket
s=[socket.socket() for _ in range(2)]
[x.bind(("127.0.0.1", 0)) for x in s]
print(*[x.getsockname()[1] for x in s])'))
fi

unit=$root/lib/systemd/system/k52app.service
exec_start=$(sed -n 's/^ExecStart=//p' "$unit")
[ -n "$exec_start" ] || die "no ExecStart= in $unit"
# The unit's absolute paths, inside the unpacked root.
read -r -a command <<<"$(echo "$exec_start" | sed -E "s#(^| )/#\1$root/#g")"
for name in ctrl stream; do
  grep -qx "FileDescriptorName=$name" "$root/lib/systemd/system/k52app-$name.socket" ||
    die "k52app-$name.socket does not name its socket '$name'"
done
ctl=("$root/usr/bin/k52ctl" --host 127.0.0.1 --port "${ports[0]}" --stream-port "${ports[1]}")

systemd-socket-activate -l "127.0.0.1:${ports[0]}" -l "127.0.0.1:${ports[1]}" --fdname=ctrl:stream \
  "${command[@]}" >"$work/daemon.log" 2>&1 &
daemon=$!
# Like a socket unit, it starts the daemon on the first connection: one that only knocks.
for _ in $(seq 50); do
  (exec 3<>"/dev/tcp/127.0.0.1/${ports[0]}") 2>/dev/null && break
  sleep 0.1
done

for _ in $(seq 100); do
  [ -f "${containers}k52XMLContainer" ] && [ -f "${containers}k52generalContainer" ] && break
  kill -0 "$daemon" 2>/dev/null || { cat "$work/daemon.log" >&2; die "the daemon ended at start-up"; }
  sleep 0.2
done
[ -f "${containers}k52generalContainer" ] || die "no container files in $containers after 20 s"

# The files exist before the daemon has filled and checksummed them; once it answers a command
# they are complete. Start-up takes seconds under an emulated CPU, so the first try may time out.
answered=
for _ in 1 2 3 4; do
  timeout 20 "${ctl[@]}" GetRTUFPS && { answered=1; break; }
  sleep 1
done
[ -n "$answered" ] || die "GetRTUFPS was not acknowledged with OK"
"$root/usr/bin/k52ctl" --dir "$containers" containers || die "the container files do not verify"
(cd "$work" && timeout 60 "${ctl[@]}" stream GREY 0 --frames 5) || die "streaming 5 frames failed"

kill -TERM "$daemon"
status=
for _ in $(seq 100); do
  kill -0 "$daemon" 2>/dev/null || { wait "$daemon" && status=0 || status=$?; break; }
  sleep 0.1
done
[ -n "$status" ] || die "the daemon did not stop within 10 s of SIGTERM"
daemon=
[ "$status" -eq 0 ] || { cat "$work/daemon.log" >&2; die "the daemon exited with status $status"; }
[ ! -e "${containers}k52XMLContainer" ] && [ ! -e "${containers}k52generalContainer" ] ||
  die "the container files were not removed"
echo "test-package-vm: installed package ($mode) started, commanded, streamed and stopped cleanly"
