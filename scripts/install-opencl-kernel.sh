#!/usr/bin/env bash
# Installs the image kernels where the daemon loads them from, as a board installation does.
set -euo pipefail

repo="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
source_file="$repo/etc/opencl/image_processing.cl"
target_dir=/opt/corvane/k52app/etc/opencl

sudo_cmd=()
[ "$(id -u)" -ne 0 ] && sudo_cmd=(sudo)
"${sudo_cmd[@]}" mkdir -p "$target_dir"
"${sudo_cmd[@]}" install -m 0644 "$source_file" "$target_dir/image_processing.cl"
