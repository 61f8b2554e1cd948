#!/usr/bin/env bash
# Builds k52app and runs it in the foreground on the emulated board with the example
# configuration (etc/k52app-emulated.conf). Its log records are printed here: by the system
# log when the machine has one (see journalctl / /var/log), otherwise by scripts/logsink.py.
# The browser console (k52console) runs next to it on http://127.0.0.1:8452/.
# Stop both with Ctrl-C. Extra arguments go to k52app.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
scripts/build.sh build -DK52_BUILD_TESTS=ON -DK52_BUILD_BENCH=ON -- k52app k52ctl

sink=""
console=""
# Background jobs of a script ignore Ctrl-C, so they are ended here when the daemon is.
trap 'kill $sink $console 2>/dev/null || true' EXIT
if [ ! -S /dev/log ]; then
  scripts/logsink.py &
  sink=$!
  for _ in $(seq 50); do [ -S /dev/log ] && break; sleep 0.05; done
fi

PYTHONPATH="$PWD/python" /usr/bin/python3 -m k52.console --port 8452 --container-dir /tmp/k52app-emulated/ &
console=$!

echo "k52app: control port 4460, stream port 4461 on 127.0.0.1; try: build/k52ctl help" >&2
echo "console: http://127.0.0.1:8452/ (it holds the control socket while a page is open)" >&2
status=0
build/k52app --config etc/k52app-emulated.conf "$@" || status=$?
sleep 0.2 # let the sink print the last records
exit $status
