#!/usr/bin/env bash
# Builds k52app and runs it on the emulated board with the example configuration.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
scripts/build.sh build -DK52_BUILD_BENCH=ON -- k52app
exec build/k52app --config etc/k52app-emulated.conf --dry-run "$@"
