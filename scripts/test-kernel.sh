#!/usr/bin/env bash
# The kernel suite: the daemon's Linux drivers against a real kernel's devices. Builds what it
# needs in build-kernel/ (K52_KERNEL_BUILD overrides), boots the kernel VM with the board set up
# (scripts/kernel-vm.sh, scripts/kernel-vm-board.sh) and runs there the end-to-end tests
# against etc/k52app-kernel.conf and the driver tests against vivid and i2c-stub.
# Needs no KVM; skips with one line, status 0, where qemu-system-x86_64 is missing and cannot
# be installed. K52_KERNEL_TIMEOUT bounds the VM's run (seconds, default 1500).
set -euo pipefail
cd "$(dirname "$0")/.."

build=${K52_KERNEL_BUILD:-build-kernel}
need=()
command -v qemu-system-x86_64 >/dev/null || need+=(qemu-system-x86)
[ -x /bin/busybox ] || need+=(busybox-static)
command -v cpio >/dev/null || need+=(cpio)
command -v depmod >/dev/null || need+=(kmod)
pkg-config --exists fuse3 || need+=(libfuse3-dev)
if [ ${#need[@]} -gt 0 ]; then
    apt-get -o DPkg::Lock::Timeout=900 install -y --no-install-recommends "${need[@]}" >/dev/null 2>&1 || true
fi
if ! command -v qemu-system-x86_64 >/dev/null; then
    echo "== kernel suite skipped: qemu-system-x86_64 is missing (apt-get install qemu-system-x86)"
    exit 0
fi

echo "== kernel suite: build ($build)"
scripts/build.sh "$build" -DK52_BUILD_CUSE=ON -DK52_BUILD_TESTS=ON -DK52_BUILD_BENCH=OFF -- \
    k52app k52ctl k52-cuse-board kernel_drivers_test \
    $(cd tests/e2e && ls *_test.cpp | sed 's/^/e2e_/; s/\.cpp$//')

echo "== kernel suite: in the VM"
start=$(date +%s)
status=0
# One test at a time: the tests share the VM's one capture node and CUSE server.
K52_TEST_CONFIG=etc/k52app-kernel.conf K52_CUSE_BOARD=$PWD/$build/tools/cuseboard/k52-cuse-board \
    scripts/kernel-vm.sh --timeout "${K52_KERNEL_TIMEOUT:-1500}" \
    --setup scripts/kernel-vm-board.sh -- \
    ctest --test-dir "$build" -L 'e2e|kernel' --output-on-failure -j 1 || status=$?
echo "== kernel suite: $(( $(date +%s) - start )) s in the VM, status $status"
exit "$status"
