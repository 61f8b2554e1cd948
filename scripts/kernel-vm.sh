#!/usr/bin/env bash
# Runs a command inside a virtual machine that boots Debian's own x86-64 kernel, so that the
# daemon's Linux drivers meet real kernel drivers (vivid, i2c-stub, CUSE) without any hardware
# and without KVM (qemu's TCG emulation).
#
#   scripts/kernel-vm.sh [--timeout S] [--setup SCRIPT] [--share DIR] [--] COMMAND [ARG...]
#
# The host's root file system is the VM's root, at the same paths: read-only underneath, with a
# throw-away writable layer in memory on top (so /tmp, /etc, ... can be written, and is lost at
# power-off). DIR (default: the current directory) is shared writable, so results and logs
# written under it come back to the host. COMMAND runs as root in the current directory, with
# /proc, /sys, /dev (devtmpfs), /dev/pts, /dev/shm and the loopback interface up; its standard
# output and error are the script's. The script exits with COMMAND's status, or:
#   124  the VM did not finish within S seconds (default 1800; boot and power-off included)
#   125  the VM could not be prepared or did not boot (one line on standard error says why)
# SCRIPT, when given, runs as root in the VM before COMMAND (e.g. scripts/kernel-vm-board.sh,
# which loads the board's kernel modules); if it fails, COMMAND does not run and its status is
# the script's.
#
# Environment passed into the VM: PATH, HOME, LANG, TERM and every variable whose name begins
# with K52_, GTEST_ or CTEST_. Inside, K52_VM_KERNEL_ROOT names the unpacked kernel package
# (its /lib/modules tree is also mounted at /lib/modules/<version>).
#
# Settings (environment):
#   K52_VM_CACHE   cache of the kernel package and initramfs (default: build-vm/ in the repository)
#   K52_VM_MEMORY  memory of the VM in MiB (default 2048)
#   K52_VM_CPUS    virtual processors (default: the host's, at most 4)
#   K52_VM_VERBOSE=1 shows the kernel's boot messages
#
# The kernel package is fetched with `apt-get download` and unpacked into the cache; nothing is
# installed on the host. Needs qemu-system-x86, busybox-static, cpio and kmod (apt-get install
# -y qemu-system-x86 busybox-static cpio kmod).
set -euo pipefail

repo=$(cd "$(dirname "$0")/.." && pwd)
timeout_s=1800
setup=
share=$PWD

die() { echo "kernel-vm: $*" >&2; exit 125; }

while [ $# -gt 0 ]; do
    case $1 in
        --timeout) [ $# -ge 2 ] || die "--timeout needs a number of seconds"; timeout_s=$2; shift 2 ;;
        --setup) [ $# -ge 2 ] || die "--setup needs a script"; setup=$(realpath "$2"); shift 2 ;;
        --share) [ $# -ge 2 ] || die "--share needs a directory"; share=$(realpath "$2"); shift 2 ;;
        --) shift; break ;;
        -*) die "unknown option $1 (usage: kernel-vm.sh [--timeout S] [--setup SCRIPT] [--share DIR] [--] COMMAND [ARG...])" ;;
        *) break ;;
    esac
done
[ $# -gt 0 ] || die "no command given (usage: kernel-vm.sh [--timeout S] [--setup SCRIPT] [--share DIR] [--] COMMAND [ARG...])"
[[ $timeout_s =~ ^[1-9][0-9]*$ ]] || die "--timeout wants a positive number of seconds, not '$timeout_s'"
[ -d "$share" ] || die "shared directory $share does not exist"
[ -z "$setup" ] || [ -r "$setup" ] || die "setup script $setup is not readable"

command -v qemu-system-x86_64 >/dev/null ||
    die "qemu-system-x86_64 is missing: apt-get install -y qemu-system-x86"
busybox=$(command -v busybox || true)
# ldd fails on a static executable, which the initramfs needs (it has no libraries).
[ -n "$busybox" ] && ! ldd "$busybox" >/dev/null 2>&1 ||
    die "a static busybox is missing: apt-get install -y busybox-static"
command -v cpio >/dev/null || die "cpio is missing: apt-get install -y cpio"
command -v depmod >/dev/null || die "depmod is missing: apt-get install -y kmod"
# The VM's paths are passed on the kernel command line, which splits at blanks.
for p in "$share" "$PWD" "$setup"; do
    [[ $p != *[[:space:]]* ]] || die "paths with blanks are not supported: '$p'"
done

cache=${K52_VM_CACHE:-$repo/build-vm}
mkdir -p "$cache"
cache=$(realpath "$cache")

# The kernel: the version linux-image-amd64 depends on, unpacked once.
package=$(apt-cache depends linux-image-amd64 2>/dev/null |
    sed -n 's/^ *Depends: \(linux-image-[0-9][^ ]*\)$/\1/p' | head -n 1)
if [ -z "$package" ]; then
    # Without package lists, reuse what is cached.
    package=$(cd "$cache" && ls -d linux-image-[0-9]* 2>/dev/null | tail -n 1 || true)
    [ -n "$package" ] || die "cannot resolve linux-image-amd64 (run apt-get update)"
fi
kroot=$cache/$package
version=${package#linux-image-}
if [ ! -e "$kroot/.unpacked" ]; then
    rm -rf "$kroot" "$cache/download"
    mkdir -p "$cache/download"
    (cd "$cache/download" && timeout 600 apt-get download "$package" >/dev/null 2>&1) ||
        die "apt-get download $package failed (network or package lists: apt-get update)"
    dpkg-deb -x "$cache"/download/"$package"_*.deb "$kroot" ||
        die "cannot unpack $package"
    rm -rf "$cache/download"
    depmod -b "$kroot" "$version" || die "depmod failed on $package"
    touch "$kroot/.unpacked"
fi
kernel_image=$kroot/boot/vmlinuz-$version
moddir=$kroot/lib/modules/$version
[ -r "$kernel_image" ] || die "no kernel image in $package (remove $kroot and retry)"

# The initramfs: static busybox, the modules that reach the host's files (virtio PCI, 9p,
# overlay) and an init that mounts them and hands over to the per-run stage in the control
# share. Rebuilt when the kernel or this script changes.
initrd=$cache/initrd-$version.cpio.gz
stamp="$version $(sha256sum "$0" | cut -c1-16)"
if [ ! -e "$initrd" ] || [ "$(cat "$initrd.stamp" 2>/dev/null)" != "$stamp" ]; then
    staging=$(mktemp -d "$cache/initrd.XXXXXX")
    trap 'rm -rf "$staging"' EXIT
    mkdir -p "$staging"/{bin,dev,proc,sys,lower,rw,newroot,modules}
    cp "$busybox" "$staging/bin/busybox"
    for tool in sh mount umount mkdir insmod switch_root poweroff sleep cat echo; do
        ln -s busybox "$staging/bin/$tool"
    done
    # Modules in load order: dependencies first, as modules.dep lists them.
    : >"$staging/modules/order"
    for module in virtio_pci 9pnet_virtio 9p overlay; do
        line=$(grep -E "/$module\.ko(\.xz|\.zst|\.gz)?:" "$moddir/modules.dep") ||
            die "module $module is missing from $package"
        for dep in $(echo "${line#*:}" | tr ' ' '\n' | tac) "${line%%:*}"; do
            name=$(basename "$dep"); name=${name%.xz}; name=${name%.zst}; name=${name%.gz}
            grep -qx "$name" "$staging/modules/order" && continue
            case $dep in
                *.xz) xz -dc "$moddir/$dep" >"$staging/modules/$name" ;;
                *.zst) zstd -qdc "$moddir/$dep" >"$staging/modules/$name" ;;
                *.gz) gzip -dc "$moddir/$dep" >"$staging/modules/$name" ;;
                *) cp "$moddir/$dep" "$staging/modules/$name" ;;
            esac || die "cannot unpack module $dep (xz-utils/zstd missing?)"
            echo "$name" >>"$staging/modules/order"
        done
    done
    cat >"$staging/init" <<'EOF'
#!/bin/sh
# Stage 1: mount the host's root read-only under an in-memory writable layer, then hand over.
fail() { echo "kernel-vm: $*" >&2; poweroff -f; }
mount -t proc proc /proc
mount -t sysfs sysfs /sys
mount -t devtmpfs devtmpfs /dev
for m in $(cat /modules/order); do insmod /modules/$m || fail "insmod $m failed"; done
for arg in $(cat /proc/cmdline); do
    case $arg in k52ctl=*) ctl=${arg#k52ctl=} ;; k52share=*) share=${arg#k52share=} ;; esac
done
mount -t 9p -o trans=virtio,version=9p2000.L,ro,msize=524288,cache=loose hostroot /lower || fail "cannot mount the host's root over 9p"
mount -t tmpfs -o mode=0755 rw /rw
mkdir -p /rw/upper /rw/work
mount -t overlay -o lowerdir=/lower,upperdir=/rw/upper,workdir=/rw/work overlay /newroot || fail "cannot mount the overlay"
mkdir -p /newroot$ctl /newroot$share
mount -t 9p -o trans=virtio,version=9p2000.L,msize=262144 k52ctl /newroot$ctl || fail "cannot mount the control share"
mount -t 9p -o trans=virtio,version=9p2000.L,msize=262144 k52share /newroot$share || fail "cannot mount the shared directory"
for d in proc sys dev; do mount -o move /$d /newroot/$d; done
exec switch_root /newroot /bin/sh $ctl/stage2.sh
EOF
    chmod +x "$staging/init"
    (cd "$staging" && find . | cpio -o -H newc --quiet | gzip -1) >"$initrd.new" ||
        die "cannot build the initramfs"
    mv "$initrd.new" "$initrd"
    echo "$stamp" >"$initrd.stamp"
    rm -rf "$staging"
    trap - EXIT
fi

# The per-run control share: stage 2 (the command and its environment) and the exit status.
ctl=$(mktemp -d "$cache/run.XXXXXX")
trap 'rm -rf "$ctl"' EXIT
{
    echo '#!/bin/sh'
    echo '# Stage 2, on the host root: the usual mounts, the setup script, the command.'
    echo 'set -u'
    echo "ctl=$ctl"
    printf 'repo=%q\n' "$PWD"
    cat <<'EOF'
finish() { echo "$1" >"$ctl/status"; sync; busybox poweroff -f; }
stty -onlcr 2>/dev/null
# A fresh /tmp, unless the repository or this control share lives under it (a clone in /tmp):
# then the overlay's /tmp, writable in memory too, keeps them visible.
case "$repo/:$ctl/" in
    /tmp/*|*:/tmp/*) ;;
    *) mount -t tmpfs -o mode=1777 tmp /tmp ;;
esac
mount -t tmpfs -o mode=0755 run /run
mkdir -p /dev/pts /dev/shm
mount -t devpts -o gid=5,mode=620 devpts /dev/pts
mount -t tmpfs -o mode=1777 shm /dev/shm
ip link set lo up 2>/dev/null || ifconfig lo 127.0.0.1 up 2>/dev/null ||
    echo "kernel-vm: cannot bring lo up" >&2
EOF
    # The host's name, so that what a command sees of it matches a run outside the VM.
    printf 'hostname %q\n' "$(hostname)"
    echo "export K52_VM_KERNEL_ROOT=$kroot"
    echo "mkdir -p /lib/modules/$version && mount --bind $moddir /lib/modules/$version"
    env | grep -E '^(PATH|HOME|LANG|TERM|K52_[A-Za-z0-9_]*|GTEST_[A-Za-z0-9_]*|CTEST_[A-Za-z0-9_]*)=' |
        while IFS='=' read -r name value; do printf 'export %s=%q\n' "$name" "$value"; done
    printf 'cd %q || finish 125\n' "$PWD"
    if [ -n "$setup" ]; then
        printf '/bin/bash %q || finish $?\n' "$setup"
    fi
    printf '%q ' "$@"
    echo
    echo 'finish $?'
} >"$ctl/stage2.sh"

cpus=${K52_VM_CPUS:-$(nproc)}
[ "$cpus" -le 4 ] || cpus=4
quiet="quiet loglevel=0"
[ "${K52_VM_VERBOSE:-0}" = 1 ] && quiet=
# Everything the VM prints arrives on the serial console (standard output); stdin stays closed
# so that the console does not steal the terminal.
# In the background, so that a signal to this script stops the VM too (timeout runs it in a
# process group of its own, which a terminal's or a CI runner's signal does not reach).
qemu_status=0
timeout --kill-after=10 "$timeout_s" qemu-system-x86_64 -accel tcg -nographic -no-reboot \
    -m "${K52_VM_MEMORY:-2048}" -smp "$cpus" -cpu max -nic none -vga none \
    -bios qboot.rom \
    -kernel "$kernel_image" -initrd "$initrd" \
    -append "console=ttyS0 panic=-1 $quiet k52ctl=$ctl k52share=$share" \
    -virtfs "local,path=/,mount_tag=hostroot,security_model=none,readonly=on,multidevs=remap" \
    -virtfs "local,path=$ctl,mount_tag=k52ctl,security_model=none,multidevs=remap" \
    -virtfs "local,path=$share,mount_tag=k52share,security_model=none,multidevs=remap" \
    </dev/null &
vm=$!
trap 'kill "$vm" 2>/dev/null || true; rm -rf "$ctl"' EXIT
trap 'exit 143' INT TERM HUP
wait "$vm" || qemu_status=$?
if [ "$qemu_status" = 124 ] || [ "$qemu_status" = 137 ]; then
    echo "kernel-vm: the VM did not finish within $timeout_s s (--timeout)" >&2
    exit 124
fi
if [ ! -s "$ctl/status" ]; then
    echo "kernel-vm: the VM did not boot or stopped before the command finished (qemu status $qemu_status; K52_VM_VERBOSE=1 shows the kernel's messages)" >&2
    exit 125
fi
exit "$(cat "$ctl/status")"
