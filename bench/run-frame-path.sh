#!/usr/bin/env bash
# Measures the frame path and its references in one run: the daemon's stream against the ideal
# path and a bare loopback send (frame_path_bench), GStreamer's videotestsrc ! tcpserversink to
# tcpclientsrc ! fakesink at the same sizes and formats, and the GPU path (gpu_path_bench).
#
#   bench/run-frame-path.sh [build-dir]     (default: build-bench, a Release build)
set -euo pipefail

repo="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
build="${1:-$repo/build-bench}"

sudo_cmd=()
[ "$(id -u)" -ne 0 ] && sudo_cmd=(sudo)

gstreamer=(gstreamer1.0-tools gstreamer1.0-plugins-base gstreamer1.0-plugins-good)
missing=()
for p in "${gstreamer[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  export DEBIAN_FRONTEND=noninteractive
  "${sudo_cmd[@]}" apt-get install -y --no-install-recommends "${missing[@]}" >/dev/null 2>&1 ||
    { "${sudo_cmd[@]}" apt-get update >/dev/null 2>&1 &&
      "${sudo_cmd[@]}" apt-get install -y --no-install-recommends "${missing[@]}" >/dev/null 2>&1; } ||
    echo "note: GStreamer could not be installed; its reference is skipped" >&2
fi

cmake -G Ninja -S "$repo" -B "$build" -DCMAKE_BUILD_TYPE=Release -DK52_BUILD_TESTS=OFF >/dev/null
ninja -C "$build" k52app frame_path_bench gpu_path_bench >/dev/null

echo "== frame path (daemon) and its references =="
"$build/bench/frame_path_bench" "--k52app=$build/k52app" "--source=$repo"

echo
echo "== GStreamer: videotestsrc ! tcpserversink -> tcpclientsrc ! fakesink =="
if ! command -v gst-launch-1.0 >/dev/null; then
  echo "skipped: gst-launch-1.0 is not installed"
else
  free_port() { python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1",0)); print(s.getsockname()[1])'; }
  # name width height gst-format bytes-per-pixel frames
  while read -r name width height format bpp frames; do
    port=$(free_port)
    gst-launch-1.0 -q videotestsrc num-buffers="$frames" pattern=solid-color \
      ! "video/x-raw,format=$format,width=$width,height=$height,framerate=1000/1" \
      ! tcpserversink host=127.0.0.1 port="$port" sync=false &
    server=$!
    # The client connects as soon as the server listens; frames produced before that are
    # dropped by the server, so the rate below is an upper bound (by a few percent).
    for _ in $(seq 100); do
      start=$(date +%s%N)
      if gst-launch-1.0 -q tcpclientsrc host=127.0.0.1 port="$port" ! fakesink sync=false 2>/dev/null; then
        break
      fi
      sleep 0.02
    done
    end=$(date +%s%N)
    wait "$server" || true
    python3 - "$name" "$frames" "$width" "$height" "$bpp" "$start" "$end" <<'PY'
import sys
name, frames, w, h, bpp, start, end = sys.argv[1], *map(int, sys.argv[2:])
seconds = (end - start) / 1e9
size = w * h * bpp
print(f"GStreamer/{name:<16} {seconds / frames * 1e3:8.3f} ms/frame  {frames / seconds:8.1f} frames/s  {frames * size / seconds / 1e9:6.3f} GB/s")
PY
  done <<'FORMATS'
1456x1088_GREY 1456 1088 GRAY8 1 1200
2472x2064_GREY 2472 2064 GRAY8 1 600
2472x2064_RGB3 2472 2064 RGB 3 300
FORMATS
fi

echo
echo "== GPU path =="
"$build/bench/gpu_path_bench" "--kernel-file=$repo/etc/opencl/image_processing.cl"
