#!/usr/bin/env bash
# Installs the Debian packages k52app needs to build, run on the emulated board and test.
# Quick when everything is present: only missing packages are installed.
set -euo pipefail

packages=(
  cmake ninja-build g++ pkg-config python3
  libtinyxml2-dev libisal-dev libsystemd-dev zlib1g-dev
  ocl-icd-opencl-dev opencl-headers pocl-opencl-icd
  libgtest-dev libgmock-dev libbenchmark-dev
  clang libclang-rt-14-dev
  systemd
  # the kernel-VM suite: qemu, a busybox initramfs, the CUSE board server
  qemu-system-x86 busybox-static cpio xz-utils zstd kmod libfuse3-dev fuse3
  # Debian packages of k52app
  debhelper dpkg-dev fakeroot lintian
  # the Python client and the browser console, tested headless
  python3-numpy python3-aiohttp python3-pytest python3-selenium python3-setuptools chromium chromium-driver
)

# The OpenCL kernel lives at a fixed path, as on the camera.
install_kernel() {
  if [ -x scripts/install-opencl-kernel.sh ]; then
    scripts/install-opencl-kernel.sh
  fi
}

cd "$(dirname "$0")/.."

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done
if [ ${#missing[@]} -eq 0 ]; then
  install_kernel
  exit 0
fi

echo "setup: installing ${missing[*]}" >&2
sudo_cmd=()
[ "$(id -u)" -ne 0 ] && sudo_cmd=(sudo)
export DEBIAN_FRONTEND=noninteractive
if ! "${sudo_cmd[@]}" apt-get -o DPkg::Lock::Timeout=900 install -y --no-install-recommends "${missing[@]}"; then
  "${sudo_cmd[@]}" apt-get -o DPkg::Lock::Timeout=900 update
  "${sudo_cmd[@]}" apt-get -o DPkg::Lock::Timeout=900 install -y --no-install-recommends "${missing[@]}"
fi
install_kernel
