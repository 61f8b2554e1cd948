#!/usr/bin/env bash
# Configures and builds one build directory: scripts/build.sh DIR [cmake options...] -- [targets...]
# The options are applied every time, so a directory configured earlier follows them.
set -euo pipefail
dir=$1; shift
opts=(); targets=()
while [ $# -gt 0 ] && [ "$1" != "--" ]; do opts+=("$1"); shift; done
[ $# -gt 0 ] && shift
targets=("$@")
cmake -G Ninja -S . -B "$dir" "${opts[@]}" >/dev/null
ninja -C "$dir" "${targets[@]}"
