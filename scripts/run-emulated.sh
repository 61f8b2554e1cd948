#!/usr/bin/env bash
# Builds k52app and runs it in the foreground on the emulated board with the example
# configuration (etc/k52app-emulated.conf). Its log records are printed here: by the system
# log when the machine has one (see journalctl / /var/log), otherwise by scripts/logsink.py.
# Stop it with Ctrl-C. Extra arguments go to k52app.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
scripts/build.sh build -DK52_BUILD_TESTS=ON -DK52_BUILD_BENCH=ON -- k52app k52ctl

sink=""
if [ ! -S /dev/log ]; then
  scripts/logsink.py &
  sink=$!
  trap 'kill $sink 2>/dev/null || true' EXIT
  for _ in $(seq 50); do [ -S /dev/log ] && break; sleep 0.05; done
fi

echo "k52app: control port 4460, stream port 4461 on 127.0.0.1; try: build/k52ctl help" >&2
status=0
build/k52app --config etc/k52app-emulated.conf "$@" || status=$?
sleep 0.2 # let the sink print the last records
exit $status
