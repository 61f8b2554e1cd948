#!/usr/bin/env bash
# Builds the Debian packages of k52app into dist/: scripts/package.sh [amd64|arm64|all]
# (default all). amd64 is built natively, arm64 with Debian's cross toolchain. Each package is
# checked with lintian (only the overrides in debian/ are accepted) and its size printed.
# The working tree (tracked and untracked files git does not ignore) is copied to
# build-package/<arch>/ first, so the build leaves the tree itself untouched.
set -euo pipefail
cd "$(dirname "$0")/.."
repo=$PWD

which_arch=${1:-all}
case $which_arch in
  amd64) arches=(amd64) ;;
  arm64) arches=(arm64) ;;
  all) arches=(amd64 arm64) ;;
  *) echo "package.sh: unknown architecture '$which_arch': use amd64, arm64 or all" >&2; exit 2 ;;
esac

sudo_cmd=()
[ "$(id -u)" -ne 0 ] && sudo_cmd=(sudo)
apt_install() {
  DEBIAN_FRONTEND=noninteractive "${sudo_cmd[@]}" apt-get -o DPkg::Lock::Timeout=900 install -y \
    --no-install-recommends "$@" ||
    { "${sudo_cmd[@]}" apt-get -o DPkg::Lock::Timeout=900 update &&
      DEBIAN_FRONTEND=noninteractive "${sudo_cmd[@]}" apt-get -o DPkg::Lock::Timeout=900 install -y \
        --no-install-recommends "$@"; }
}

tools=(build-essential debhelper dpkg-dev fakeroot lintian cmake ninja-build pkg-config ccache)
missing=()
for p in "${tools[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] || apt_install "${missing[@]}"

# Installs what debian/control's Build-Depends still lack (native build).
install_build_deps() {
  local unmet
  unmet=$(dpkg-checkbuilddeps 2>&1 | sed -n 's/.*Unmet build dependencies: //p') || true
  [ -z "$unmet" ] && return 0
  # Version constraints and alternatives go; the first of each alternative is installed.
  # shellcheck disable=SC2046
  set -- $(echo "$unmet" | sed -E 's/\([^)]*\)//g; s/\|[^ ]*//g')
  echo "package.sh: installing build dependencies: $*" >&2
  apt_install "$@"
}

mkdir -p dist
native=$(dpkg --print-architecture)
debs=()
for arch in "${arches[@]}"; do
  opts=(-b -us -uc)
  if [ "$arch" != "$native" ]; then
    if [ ! -x scripts/setup-arm64.sh ]; then
      echo "package.sh: scripts/setup-arm64.sh is missing; it installs the $arch cross toolchain" >&2
      exit 1
    fi
    scripts/setup-arm64.sh
    # ISA-L cannot be installed for arm64 beside the amd64 one (not multi-arch): setup-arm64.sh
    # unpacks it into a side tree that debian/rules uses, so its Build-Depends is not checked.
    opts+=("-a$arch" -Pcross,nocheck -d)
  else
    install_build_deps
  fi

  work=$repo/build-package/$arch
  rm -rf "$work" && mkdir -p "$work/k52app"
  git ls-files -z --cached --others --exclude-standard |
    (while IFS= read -r -d '' f; do [ -e "$f" ] && printf '%s\0' "$f"; done) |
    tar --null -T - -cf - | tar -xf - -C "$work/k52app"

  echo "package.sh: building $arch" >&2
  start=$SECONDS
  (cd "$work/k52app" &&
   PATH=/usr/lib/ccache:$PATH CCACHE_BASEDIR=$work/k52app DEB_BUILD_OPTIONS="parallel=2 ${DEB_BUILD_OPTIONS:-}" \
     dpkg-buildpackage "${opts[@]}") >"$work/build.log" 2>&1 ||
    { tail -n 40 "$work/build.log" >&2; echo "package.sh: $arch build failed (log: $work/build.log)" >&2; exit 1; }
  echo "package.sh: $arch built in $((SECONDS - start)) s" >&2

  # The -dbgsym package holds the debugging symbols, for reading a core dump from the board.
  for deb in "$work"/*.deb; do
    cp "$deb" dist/
    debs+=("dist/$(basename "$deb")")
  done
done

status=0
for deb in "${debs[@]}"; do
  echo "== lintian $deb"
  lintian --fail-on error,warning --display-info "$deb" || status=1
done
echo "== sizes (file size, installed size)"
for deb in "${debs[@]}"; do
  printf '%-40s %6d KiB  %6s KiB installed\n' "$(basename "$deb")" $(( $(stat -c %s "$deb") / 1024 )) \
    "$(dpkg-deb -f "$deb" Installed-Size)"
done
[ $status -eq 0 ] || echo "package.sh: lintian reported errors or warnings" >&2
exit $status
