#!/usr/bin/env bash
# Cross-builds k52app for the board's 64-bit ARM (build-arm64/) and runs the unit and end-to-end
# suites on the emulated board under qemu's user-mode emulator, then prints the build and suite
# times. Needs no ARM machine: scripts/setup-arm64.sh installs the cross toolchain, the emulator
# and the arm64 libraries.
#
#   scripts/test-arm64.sh [ctest arguments...]   e.g. -R Crc, or -L unit
#
# The machine cannot run arm64 executables by itself (no binfmt_misc registration is assumed),
# so every arm64 program is started through the emulator: ctest's and test discovery's through
# the toolchain file, and the daemon and k52ctl, which the end-to-end tests start, through
# K52_TEST_LAUNCHER.
# Settings (environment): K52_TEST_JOBS (default: the number of processors) for the build and
# ctest; K52_ARM64_SYSROOT (see setup-arm64.sh).
set -euo pipefail
cd "$(dirname "$0")/.."

die() { echo "test-arm64: $*" >&2; exit 1; }

scripts/setup-arm64.sh
emulator=$(command -v qemu-aarch64-static) || die "qemu-aarch64-static is missing: apt-get install -y qemu-user-static"
[ -e /lib/ld-linux-aarch64.so.1 ] || die "no arm64 C library in /lib: apt-get install -y libc6:arm64"
"$emulator" --version >/dev/null || die "$emulator does not run on this machine"

jobs=${K52_TEST_JOBS:-$(nproc)}
launchers=()
if command -v ccache >/dev/null; then
    launchers=(-DCMAKE_C_COMPILER_LAUNCHER=ccache -DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
fi

start=$(date +%s)
cmake -G Ninja -S . -B build-arm64 -DCMAKE_TOOLCHAIN_FILE="$PWD/cmake/toolchain-aarch64.cmake" \
    -DK52_BUILD_TESTS=ON -DK52_BUILD_BENCH=OFF -DK52_FUZZ=OFF "${launchers[@]}" >/dev/null
ninja -C build-arm64 -j "$jobs"
built=$(date +%s)

# No OpenCL platform is installed for arm64: the accelerated path's tests skip, saying so.
export K52_TEST_LAUNCHER=$emulator
# Left out: the one death test that re-executes the test binary itself (the machine cannot run
# it without the emulator in front). What it checks, that k52app works without an OpenCL
# platform, every daemon of the end-to-end suites shows here, where arm64 has none.
ctest_status=0
ctest --test-dir build-arm64 --output-on-failure -j "$jobs" -E '^IOOpenCLWithoutDevice\.' "$@" ||
    ctest_status=$?
# ISA-L chooses its CRC code by the processor's features and model (it reads the main ID
# register), so the CRC test runs once more on a Cortex-A72 model, besides the default "max".
QEMU_CPU=cortex-a72 "$emulator" build-arm64/tests/unit_crc_test --gtest_brief=1 >/dev/null ||
    { echo "test-arm64: the CRC test fails on a Cortex-A72 model" >&2; ctest_status=1; }
done=$(date +%s)

echo "arm64: cross build $((built - start)) s, suites under qemu-aarch64 $((done - built)) s (-j $jobs)"
[ "$ctest_status" -eq 0 ] || die "arm64 suites failed (ctest status $ctest_status)"
