#!/usr/bin/env bash
# Builds and runs every test: once in a normal build, once under AddressSanitizer and
# UndefinedBehaviorSanitizer; then the threaded suites under ThreadSanitizer, each fuzz target
# for a bounded time and a two-minute soak of the daemon (docs/reliability.md); the Python
# client and the browser console; the kernel suite in a VM on Debian's kernel; the Debian
# package, installed and started in that VM; the arm64 cross build with its suites under
# qemu-aarch64 (docs/deployment.md).
# K52_FUZZ_SECONDS (default 30) and K52_SOAK_MINUTES (default 2) change the fuzz and soak times.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh

jobs=${K52_TEST_JOBS:-$(nproc)}

echo "== tests (RelWithDebInfo)"
scripts/build.sh build -DK52_BUILD_TESTS=ON -DK52_BUILD_BENCH=ON -DK52_BUILD_CUSE=ON -DK52_WERROR=ON
ctest --test-dir build --output-on-failure -j "$jobs"

echo "== tests (AddressSanitizer + UndefinedBehaviorSanitizer)"
scripts/build.sh build-asan -DK52_BUILD_TESTS=ON -DK52_SANITIZE=ON -DK52_BUILD_BENCH=OFF
ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1 \
  ctest --test-dir build-asan --output-on-failure -j "$jobs"

echo "== threaded suites (ThreadSanitizer)"
scripts/build.sh build-tsan -DK52_BUILD_TESTS=ON -DK52_TSAN=ON -DK52_BUILD_BENCH=OFF -- threaded_suites
# Every process writes its reports to build-tsan/tsan/ (the daemons of the end-to-end suites
# too, whose standard error the tests do not show); any report fails the run. Without ASLR:
# GCC 12's ThreadSanitizer cannot map its shadow under the kernel's wider randomization.
rm -rf build-tsan/tsan && mkdir -p build-tsan/tsan
tsan_status=0
TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1 log_path=$PWD/build-tsan/tsan/report" \
  setarch "$(uname -m)" -R ctest --test-dir build-tsan -L threaded --output-on-failure -j "$jobs" ||
  tsan_status=$?
if compgen -G "build-tsan/tsan/report*" >/dev/null; then
  cat build-tsan/tsan/report*
  echo "ThreadSanitizer reports above (build-tsan/tsan/)" >&2
  exit 1
fi
[ "$tsan_status" -eq 0 ] || exit "$tsan_status"

echo "== fuzz targets (libFuzzer, ${K52_FUZZ_SECONDS:-30} s each)"
CC=clang CXX=clang++ scripts/build.sh build-fuzz -DK52_FUZZ=ON -DK52_BUILD_TESTS=OFF \
  -DK52_BUILD_BENCH=OFF -- fuzzers
fuzz/make_corpus.py build-fuzz/corpus
mkdir -p build-fuzz/artifacts
for target in command_fuzzer config_fuzzer xmlblock_fuzzer ackframe_fuzzer \
              framemessage_fuzzer descriptor_fuzzer; do
  dict=()
  [ "$target" = command_fuzzer ] && dict=(-dict=build-fuzz/corpus/command.dict)
  log=build-fuzz/artifacts/$target.log
  if ! build-fuzz/fuzz/$target "${dict[@]}" -max_total_time="${K52_FUZZ_SECONDS:-30}" -timeout=10 \
      -rss_limit_mb=4096 -print_final_stats=1 -artifact_prefix=build-fuzz/artifacts/$target- \
      build-fuzz/corpus/$target >"$log" 2>&1; then
    tail -n 60 "$log"
    echo "$target failed: the input is in build-fuzz/artifacts/" >&2
    exit 1
  fi
  echo "$target: $(grep -E '^stat::number_of_executed_units' "$log")"
done

echo "== soak (${K52_SOAK_MINUTES:-2} min)"
scripts/soak.py --build build --minutes "${K52_SOAK_MINUTES:-2}" --csv build/soak.csv

echo "== Python client and browser console"
scripts/test-python.sh

echo "== kernel suite (Debian's kernel in qemu)"
K52_KERNEL_BUILD=build scripts/test-kernel.sh

echo "== Debian package, installed and started in the kernel VM"
scripts/package.sh amd64
K52_CUSE_BOARD=$PWD/build/tools/cuseboard/k52-cuse-board scripts/test-package-vm.sh

echo "== arm64: cross build, suites under qemu-aarch64"
scripts/test-arm64.sh
