#!/usr/bin/env bash
# Builds and runs every test: once in a normal build, once under AddressSanitizer and
# UndefinedBehaviorSanitizer.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh

jobs=${K52_TEST_JOBS:-$(nproc)}

echo "== tests (RelWithDebInfo)"
scripts/build.sh build -DK52_BUILD_TESTS=ON -DK52_BUILD_BENCH=ON
ctest --test-dir build --output-on-failure -j "$jobs"

echo "== tests (AddressSanitizer + UndefinedBehaviorSanitizer)"
scripts/build.sh build-asan -DK52_BUILD_TESTS=ON -DK52_SANITIZE=ON -DK52_BUILD_BENCH=OFF
ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1 \
  ctest --test-dir build-asan --output-on-failure -j "$jobs"
