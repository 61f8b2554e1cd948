#!/usr/bin/env bash
# Ranks the daemon's frame stream against two references, in alternating rounds, each source
# read by the same reader (bench/frame_path_probe):
#   daemon    the daemon on the emulated board, frame rate unconstrained, plain reader
#   gst       GStreamer's videotestsrc ! tcpserversink at the same size and format
#   raw       a sender that sends the daemon's message size from memory as fast as the socket
#             takes it: the loopback limit
#   stored    the same sender, storing each message first as the daemon stores a frame (copy
#             and checksum in 64 KiB runs, sent in 4 MiB parts): the limit of that work
#   verified  the daemon again, read by the client library's verifying frame stream
# Each round runs the five back to back, so a change of load hits all of them alike; the table
# gives the median and the spread (min-max) of the per-round ratios. Then the GPU path.
#
#   bench/run-frame-path.sh [--rounds N] [--seconds S] [--sizes LIST] [--k52app PATH] [--no-gpu] [build-dir]
#     N rounds (default 7), S seconds measured per source and round (default 2),
#     LIST a comma-separated subset of 1456x1088_GREY,2472x2064_GREY,2472x2064_RGB3,
#     PATH a daemon other than the build's (a before/after comparison),
#     build-dir a Release build (default build-bench).
set -euo pipefail

repo="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
rounds=7
seconds=2
sizes=1456x1088_GREY,2472x2064_GREY,2472x2064_RGB3
k52app=
gpu=1
build="$repo/build-bench"
while [ $# -gt 0 ]; do
  case "$1" in
    --rounds) rounds=$2; shift 2 ;;
    --seconds) seconds=$2; shift 2 ;;
    --sizes) sizes=$2; shift 2 ;;
    --k52app) k52app=$2; shift 2 ;;
    --no-gpu) gpu=0; shift ;;
    -*) echo "unknown option $1" >&2; exit 2 ;;
    *) build=$1; shift ;;
  esac
done

sudo_cmd=()
[ "$(id -u)" -ne 0 ] && sudo_cmd=(sudo)

gstreamer=(gstreamer1.0-tools gstreamer1.0-plugins-base gstreamer1.0-plugins-good)
missing=()
for p in "${gstreamer[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  export DEBIAN_FRONTEND=noninteractive
  "${sudo_cmd[@]}" apt-get -o DPkg::Lock::Timeout=900 install -y --no-install-recommends "${missing[@]}" >/dev/null 2>&1 ||
    { "${sudo_cmd[@]}" apt-get update >/dev/null 2>&1 &&
      "${sudo_cmd[@]}" apt-get -o DPkg::Lock::Timeout=900 install -y --no-install-recommends "${missing[@]}" >/dev/null 2>&1; } ||
    echo "note: GStreamer could not be installed; its column stays empty" >&2
fi

cmake -G Ninja -S "$repo" -B "$build" -DCMAKE_BUILD_TYPE=Release -DK52_BUILD_BENCH=ON >/dev/null
targets=(k52app frame_path_probe)
[ "$gpu" = 1 ] && targets+=(gpu_path_bench)
ninja -C "$build" "${targets[@]}" >/dev/null
[ -n "$k52app" ] || k52app="$build/k52app"

echo "== frame path: $rounds rounds of ${seconds} s per source, one reader for all =="
python3 - "$repo" "$k52app" "$build/bench/frame_path_probe" "$rounds" "$seconds" "$sizes" <<'PY'
import os, shutil, socket, statistics, struct, subprocess, sys, tempfile, time

repo, k52app, probe, rounds, seconds, sizes = sys.argv[1:]
rounds, seconds = int(rounds), float(seconds)
# name -> (fourcc, resolution index, width, height, GStreamer format, bytes per pixel)
known = {
    "1456x1088_GREY": ("GREY", 1, 1456, 1088, "GRAY8", 1),
    "2472x2064_GREY": ("GREY", 2, 2472, 2064, "GRAY8", 1),
    "2472x2064_RGB3": ("RGB3", 2, 2472, 2064, "RGB", 3),
}
overhead = 2248  # header before the data and the checksum after it
round_limit = seconds + 15  # every wait below is bounded by this or less

def die(message):
    print("error: " + message, file=sys.stderr)
    sys.exit(1)

def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]

def loadavg():
    with open("/proc/loadavg") as f:
        return " ".join(f.read().split()[:3])

def read_exactly(sock, n):
    data = bytearray()
    while len(data) < n:
        chunk = sock.recv(n - len(data))
        if not chunk:
            die("the daemon closed the control connection")
        data += chunk
    return bytes(data)

class Daemon:
    """The daemon on the emulated board with its own ports and container directory."""
    def __init__(self):
        self.dir = tempfile.mkdtemp(prefix="k52frame-", dir="/dev/shm")
        self.control_port, self.stream_port = free_port(), free_port()
        lines = []
        with open(os.path.join(repo, "etc/k52app-emulated.conf")) as f:
            for line in f.read().splitlines():
                if line.startswith("container-path="): line = "container-path=" + self.dir + "/"
                elif line.startswith("socket-ctrl="): line = "socket-ctrl=%d" % self.control_port
                elif line.startswith("socket-stream="): line = "socket-stream=%d" % self.stream_port
                lines.append(line)
        # A second worker, so that a stop command is served while the stream runs.
        lines.append("emulated-hardware-concurrency=8")
        config = os.path.join(self.dir, "k52app.conf")
        with open(config, "w") as f:
            f.write("\n".join(lines) + "\n")
        self.process = subprocess.Popen([k52app, "-c", config], cwd=repo,
                                        stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        deadline = time.monotonic() + 10
        while True:
            try:
                self.control = socket.create_connection(("127.0.0.1", self.control_port), timeout=10)
                break
            except OSError:
                if time.monotonic() > deadline or self.process.poll() is not None:
                    die("the daemon did not start: " + k52app)
                time.sleep(0.05)
        # Frame generation is not the limit: the emulated sensor runs as fast as buffers return.
        self.command("SetRTUFPS 0", "OK : ")

    def notice(self):
        head = read_exactly(self.control, 8)
        body = read_exactly(self.control, struct.unpack_from("<I", head, 4)[0] - 8)
        return body[8:].split(b"\0")[0].decode(errors="replace")

    def command(self, line, expect):
        self.control.sendall(line.encode() + b"\r")
        return self.wait_for(expect)

    def wait_for(self, text):
        while True:
            try:
                notice = self.notice()
            except socket.timeout:
                die("no notice with '%s' from the daemon" % text)
            if text in notice:
                return notice

    def close(self):
        self.process.terminate()
        try:
            self.process.wait(10)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait()
        shutil.rmtree(self.dir, ignore_errors=True)

def reader(port, extra=()):
    return subprocess.Popen([probe, "read", str(port), str(seconds), *extra],
                            stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)

def result(process, what):
    try:
        line = process.stdout.readline()
    except Exception:
        line = ""
    if not line:
        process.kill()
        die("%s: the reader gave no result (%s)" % (what, process.stderr.read().strip()))
    count, elapsed, frames = line.split()
    return int(count) / float(elapsed) / 1e9  # GB/s

def finish(process):
    try:
        process.wait(round_limit)
    except subprocess.TimeoutExpired:
        process.kill()
        process.wait()

def run_daemon(daemon, fourcc, resolution, verify):
    extra = ["--drain-idle-ms", "500"] + (["--verify"] if verify else [])
    process = reader(daemon.stream_port, extra)
    time.sleep(0.3)  # the stream channel accepts the reader before the stream starts
    # Its acknowledgement comes when the stream ends.
    daemon.control.sendall(b"CaptureStreamStart %s %d\r" % (fourcc.encode(), resolution))
    rate = result(process, "daemon")
    daemon.control.sendall(b"CaptureStreamStop\r")
    daemon.wait_for("Capture Stream finished.")
    finish(process)
    return rate

def run_gstreamer(width, height, gst_format):
    if not shutil.which("gst-launch-1.0"):
        return None
    port = free_port()
    server = subprocess.Popen(
        ["gst-launch-1.0", "-q", "videotestsrc", "pattern=solid-color", "!",
         "video/x-raw,format=%s,width=%d,height=%d,framerate=1000/1" % (gst_format, width, height),
         "!", "tcpserversink", "host=127.0.0.1", "port=%d" % port, "sync=false"],
        stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    try:
        return result(reader(port), "GStreamer")
    finally:
        server.terminate()
        finish(server)

def run_sender(mode, bytes_per_message):
    port = free_port()
    sender = subprocess.Popen([probe, mode, str(port), str(bytes_per_message)],
                              stderr=subprocess.PIPE, text=True)
    try:
        process = reader(port)
        rate = result(process, mode + " sender")
        finish(process)
        return rate
    finally:
        finish(sender)

def spread(values):
    if not values:
        return "      -            -      "
    return "%5.2f (%4.2f-%4.2f)" % (statistics.median(values), min(values), max(values))

print("load at start: " + loadavg())
columns = ("daemon/gst", "daemon/raw", "daemon/stored", "verified/gst", "verified/raw")
sources = ("daemon", "gst", "raw", "stored", "verified")
print("%-15s " % "size" + " ".join("%-18s" % c for c in columns) + " GB/s " + " ".join(sources))
daemon = Daemon()
try:
    for name in sizes.split(","):
        if name not in known:
            die("unknown size " + name)
        fourcc, resolution, width, height, gst_format, bpp = known[name]
        message = overhead + width * height * bpp
        ratios = {k: [] for k in columns}
        rates = {k: [] for k in sources}
        for _ in range(rounds):
            r = {"daemon": run_daemon(daemon, fourcc, resolution, False),
                 "gst": run_gstreamer(width, height, gst_format),
                 "raw": run_sender("send", message),
                 "stored": run_sender("store", message),
                 "verified": run_daemon(daemon, fourcc, resolution, True)}
            for k, v in r.items():
                if v is not None:
                    rates[k].append(v)
            for column in columns:
                mine, ref = column.split("/")
                if r[ref]:
                    ratios[column].append(r[mine] / r[ref])
        medians = " ".join("%5.2f" % statistics.median(rates[k]) if rates[k] else "    -"
                           for k in sources)
        print("%-15s " % name + " ".join("%-18s" % spread(ratios[k]) for k in columns) + " " + medians,
              flush=True)
finally:
    daemon.close()
print("load at end: " + loadavg())
PY

if [ "$gpu" = 1 ]; then
  echo
  echo "== GPU path: $rounds rounds, the capture's accelerated processing (AP) against a bare OpenCL loop =="
  python3 - "$build/bench/gpu_path_bench" "$repo/etc/opencl/image_processing.cl" "$rounds" "$seconds" <<'PY'
import csv, statistics, subprocess, sys

bench, kernels, rounds, seconds = sys.argv[1], sys.argv[2], int(sys.argv[3]), sys.argv[4]
times = {}  # (kernel, region) -> {"AcceleratedProcessing": [ms per round], "BareOpenCL": [...]}
print("load at start: " + " ".join(open("/proc/loadavg").read().split()[:3]))
for _ in range(rounds):
    # Every benchmark once per round, so that both loops of a pair see the same load.
    out = subprocess.run([bench, "--kernel-file=" + kernels, "--benchmark_format=csv",
                          "--benchmark_min_time=" + seconds],
                         capture_output=True, text=True, check=True).stdout
    for row in csv.reader(out.splitlines()):
        if len(row) > 4 and row[0].count("/") >= 2 and row[0][0] != "n":
            path, kernel, region = row[0].split("/")[:3]
            times.setdefault((kernel, region), {}).setdefault(path, []).append(float(row[2]))
print("%-13s %-16s %-18s %-10s %s" % ("kernel", "region", "AP/bare", "AP ms", "bare ms"))
for (kernel, region), t in times.items():
    ratios = [a / b for a, b in zip(t["AcceleratedProcessing"], t["BareOpenCL"])]
    print("%-13s %-16s %5.2f (%4.2f-%4.2f)  %-10.3f %.3f" % (
        kernel, region, statistics.median(ratios), min(ratios), max(ratios),
        statistics.median(t["AcceleratedProcessing"]), statistics.median(t["BareOpenCL"])))
print("load at end: " + " ".join(open("/proc/loadavg").read().split()[:3]))
PY
fi
