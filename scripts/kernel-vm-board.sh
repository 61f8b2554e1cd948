#!/usr/bin/env bash
# Sets up the camera board's devices inside the kernel VM, as root, before the command runs:
#   scripts/kernel-vm.sh --setup scripts/kernel-vm-board.sh -- COMMAND...
# What etc/k52app-kernel.conf names then exists:
#   /dev/video0        vivid: one single-planar video capture node, webcam input only
#   /dev/i2c-1..5      links to the one i2c-stub adapter, whose number the kernel picks; it holds
#                      the RTU (66), the smart sensor (40), the EEPROMs (80) and temperature
#                      sensors (72) of the raw buses
#   /dev/k52rtu, /dev/imx0, /dev/k52tof, /dev/k52illum, /dev/k52af
#                      the board's own modules, served through CUSE by k52-cuse-board from the
#                      emulated board's models (its log: /tmp/k52-cuse-board.log)
#   /sys/class/gpio/gpio431/value, gpio479/value
#                      plain files on a tmpfs: this kernel has no GPIO simulator, so the
#                      analog-output lines are files that the RTU routes write and tests read
# The button's GPIO chip cannot be simulated with this kernel: it is absent.
# K52_CUSE_BOARD names the server binary (default: build/tools/cuseboard/k52-cuse-board, the
# build that scripts/test.sh makes with -DK52_BUILD_CUSE=ON).
set -euo pipefail

repo=$(cd "$(dirname "$0")/.." && pwd)
server=${K52_CUSE_BOARD:-$repo/build/tools/cuseboard/k52-cuse-board}

die() { echo "kernel-vm-board: $*" >&2; exit 1; }
load() { modprobe "$@" || die "cannot load kernel module $1 (is it in the kernel package?)"; }

[ -x "$server" ] ||
    die "$server is missing: build it with -DK52_BUILD_CUSE=ON (target k52-cuse-board) or set K52_CUSE_BOARD"

# Capture only and single-planar, as the board's sensor; one webcam input (discrete sizes).
load vivid n_devs=1 node_types=0x1 multiplanar=1 num_inputs=1 input_types=0
[ -c /dev/video0 ] || die "vivid did not create /dev/video0"

load i2c-stub chip_addr=66,40,80,72
load i2c-dev
stub=
for adapter in /sys/class/i2c-dev/i2c-*; do
    [ "$(cat "$adapter/name")" = "SMBus stub driver" ] && stub=${adapter##*/}
done
[ -n "$stub" ] || die "the i2c-stub adapter has no i2c-dev node"
# The board's bus numbers come from its wiring; here one adapter stands in for all of them.
for bus in 1 2 3 4 5; do
    [ "/dev/i2c-$bus" = "/dev/$stub" ] || ln -sf "$stub" "/dev/i2c-$bus"
done

mount -t tmpfs -o mode=0755 gpio /sys/class/gpio
for line in 431 479; do
    mkdir "/sys/class/gpio/gpio$line"
    echo 0 >"/sys/class/gpio/gpio$line/value"
done

load cuse
nodes=(/dev/k52rtu /dev/imx0 /dev/k52tof /dev/k52illum /dev/k52af)
log=/tmp/k52-cuse-board.log
setsid "$server" "${nodes[@]}" >"$log" 2>&1 </dev/null &
# Under TCG the server takes a few seconds to start: wait for its "ready", bounded.
for _ in $(seq 300); do
    grep -q '^ready$' "$log" && exit 0
    kill -0 $! 2>/dev/null || die "k52-cuse-board stopped: $(tail -n 1 "$log")"
    sleep 0.1
done
die "k52-cuse-board did not become ready within 30 s"
