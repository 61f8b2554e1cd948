#!/usr/bin/env bash
# Installs what the 64-bit ARM cross build needs: Debian's aarch64 cross compilers, qemu's
# user-mode emulator (to run the arm64 tests on this machine) and the arm64 development packages
# of k52app's libraries (multiarch). Quick when everything is present.
#
# The emulator is the static qemu-aarch64-static: the daemons under test get an arm64 LD_PRELOAD
# (their syslog shim), which a dynamically linked emulator's own loader would try, and fail, to
# load into itself.
#
# ISA-L's packages are not multiarch (they cannot be installed for arm64 next to the amd64 ones
# the native build uses), so its arm64 library and development files are unpacked, not
# installed, into a small side tree:
#   K52_ARM64_SYSROOT (default /var/cache/k52app/arm64-sysroot)
# cmake/toolchain-aarch64.cmake finds it there at build time, and the build tree's run path at
# run time; DEBIAN/libisal2/shlibs there is the library's dependency line for dpkg-shlibdeps.
#
# No OpenCL platform is installed for arm64: the emulated board's tests of the accelerated path
# skip without one, and the daemon starts without one.
set -euo pipefail

sysroot=${K52_ARM64_SYSROOT:-/var/cache/k52app/arm64-sysroot}
host_packages=(crossbuild-essential-arm64 qemu-user-static cmake ninja-build pkg-config opencl-headers)
arm64_packages=(libc6 libtinyxml2-dev libsystemd-dev ocl-icd-opencl-dev libgtest-dev libgmock-dev
                libbenchmark-dev zlib1g-dev)
isal_packages=(libisal2 libisal-dev)

die() { echo "setup-arm64: $*" >&2; exit 1; }

sudo_cmd=()
[ "$(id -u)" -ne 0 ] && sudo_cmd=(sudo)
apt() { "${sudo_cmd[@]}" env DEBIAN_FRONTEND=noninteractive apt-get -o DPkg::Lock::Timeout=900 "$@"; }

installed() { dpkg-query -W -f='${Status}' "$1" 2>/dev/null | grep -q "install ok installed"; }

updated=0
if ! dpkg --print-foreign-architectures | grep -qx arm64; then
    "${sudo_cmd[@]}" dpkg --add-architecture arm64
    apt update >/dev/null || die "apt-get update failed after adding the arm64 architecture"
    updated=1
fi

missing=()
for p in "${host_packages[@]}"; do installed "$p" || missing+=("$p"); done
for p in "${arm64_packages[@]}"; do installed "$p:arm64" || missing+=("$p:arm64"); done
if [ ${#missing[@]} -gt 0 ]; then
    echo "setup-arm64: installing ${missing[*]}" >&2
    if ! apt install -y --no-install-recommends "${missing[@]}"; then
        [ $updated -eq 1 ] && die "cannot install ${missing[*]}"
        apt update >/dev/null || die "apt-get update failed"
        apt install -y --no-install-recommends "${missing[@]}" || die "cannot install ${missing[*]}"
    fi
fi

# The unpacked ISA-L follows the version the archive offers; a stamp records what was unpacked.
version=$(apt-cache policy libisal2 | awk '/Candidate:/ {print $2}')
[ -n "$version" ] && [ "$version" != "(none)" ] || die "no libisal2 in the package lists (apt-get update)"
if [ "$(cat "$sysroot/.version" 2>/dev/null)" != "$version" ]; then
    echo "setup-arm64: unpacking ISA-L $version for arm64 into $sysroot" >&2
    work=$(mktemp -d)
    trap 'rm -rf "$work"' EXIT
    (cd "$work" && timeout 600 apt-get -o APT::Sandbox::User="$(id -un)" download "${isal_packages[@]/%/:arm64=$version}" >/dev/null) ||
        die "cannot download ${isal_packages[*]} for arm64 (network or package lists: apt-get update)"
    "${sudo_cmd[@]}" rm -rf "$sysroot"
    "${sudo_cmd[@]}" mkdir -p "$sysroot/DEBIAN"
    for deb in "$work"/*.deb; do "${sudo_cmd[@]}" dpkg-deb -x "$deb" "$sysroot"; done
    # Its shlibs file, for dpkg-shlibdeps of an arm64 package (no dpkg database knows the library).
    "${sudo_cmd[@]}" dpkg-deb -e "$work"/libisal2_*.deb "$sysroot/DEBIAN/libisal2"
    # pkg-config resolves the side tree's own paths, not the system's.
    "${sudo_cmd[@]}" sed -i "s|^prefix=.*|prefix=$sysroot/usr|" \
        "$sysroot/usr/lib/aarch64-linux-gnu/pkgconfig/libisal.pc"
    echo "$version" | "${sudo_cmd[@]}" tee "$sysroot/.version" >/dev/null
fi
