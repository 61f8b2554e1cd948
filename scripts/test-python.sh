#!/usr/bin/env bash
# Tests of the Python client and the browser console (python/tests) against the daemon on the
# emulated board, the console in headless chromium. Builds the daemon in build/ first.
# K52_CONSOLE_SCREENSHOT=FILE keeps a screenshot of the console.
set -euo pipefail
cd "$(dirname "$0")/.."

packages=(python3-numpy python3-aiohttp python3-pytest python3-selenium python3-setuptools chromium chromium-driver)
missing=()
for package in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "install ok installed" || missing+=("$package")
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "installing ${missing[*]}"
  timeout 1200 apt-get -o DPkg::Lock::Timeout=900 install -y --no-install-recommends "${missing[@]}" ||
    { echo "test-python.sh: could not install ${missing[*]}" >&2; exit 1; }
fi

scripts/build.sh build -- k52app k52ctl

# Debian's interpreter: the one with python3-numpy and the rest, whatever is first on PATH.
status=0
K52_BUILD="$PWD/build" timeout 900 /usr/bin/python3 -m pytest -p no:cacheprovider -q python/tests "$@" || status=$?
case $status in
  0) ;;
  5) echo "test-python.sh: pytest collected no tests" >&2; exit 1 ;;
  124) echo "test-python.sh: the Python tests ran past 15 minutes" >&2; exit 1 ;;
  *) echo "test-python.sh: Python tests failed (pytest status $status)" >&2; exit "$status" ;;
esac
