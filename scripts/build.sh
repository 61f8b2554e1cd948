#!/usr/bin/env bash
# Configures (once) and builds one build directory: scripts/build.sh DIR [cmake options...] -- [targets...]
set -euo pipefail
dir=$1; shift
opts=(); targets=()
while [ $# -gt 0 ] && [ "$1" != "--" ]; do opts+=("$1"); shift; done
[ $# -gt 0 ] && shift
targets=("$@")
if [ ! -f "$dir/build.ninja" ]; then
  cmake -G Ninja -S . -B "$dir" "${opts[@]}" >/dev/null
fi
ninja -C "$dir" "${targets[@]}"
