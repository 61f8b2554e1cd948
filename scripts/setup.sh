#!/usr/bin/env bash
# Installs the Debian packages k52app needs to build, run on the emulated board and test.
# Quick when everything is present: only missing packages are installed.
set -euo pipefail

packages=(
  cmake ninja-build g++ pkg-config python3
  libtinyxml2-dev libisal-dev libsystemd-dev zlib1g-dev
  ocl-icd-opencl-dev opencl-headers pocl-opencl-icd
  libgtest-dev libgmock-dev libbenchmark-dev
  systemd
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done
[ ${#missing[@]} -eq 0 ] && exit 0

echo "setup: installing ${missing[*]}" >&2
sudo_cmd=()
[ "$(id -u)" -ne 0 ] && sudo_cmd=(sudo)
export DEBIAN_FRONTEND=noninteractive
if ! "${sudo_cmd[@]}" apt-get install -y --no-install-recommends "${missing[@]}"; then
  "${sudo_cmd[@]}" apt-get update
  "${sudo_cmd[@]}" apt-get install -y --no-install-recommends "${missing[@]}"
fi
