#!/usr/bin/python3
"""Records the first COUNT frame messages of a stream of the daemon on the emulated board, one line
each: index, total length, CRC-32 (zlib) of the message without its checksum, SHA-256 prefix.

The emulated sensor's pattern is deterministic at RTU FPS 0 (frames as fast as they are taken),
so two builds that stream the same bytes print the same lines. bench/stream-reference/ holds the
lines of the stream before the frame-path work; a change to the stream loop must keep them:

    bench/record-stream.py build/k52app GREY 2 12 | diff - bench/stream-reference/GREY-2.txt
"""
import hashlib, os, socket, subprocess, sys, tempfile, time, zlib

repo = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
sys.path.insert(0, os.path.join(repo, "python"))
from k52.client import Control, FrameStream, stop_stream  # noqa: E402
from k52.errors import DaemonUnavailable  # noqa: E402

if len(sys.argv) != 5:
    sys.exit(__doc__)
k52app, fourcc, resolution, count = sys.argv[1], sys.argv[2], sys.argv[3], int(sys.argv[4])


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


work = tempfile.mkdtemp(prefix="k52record-")
ports = {"socket-ctrl": free_port(), "socket-stream": free_port()}
overrides = {"container-path": f"{work}/", "socket-ctrl": ports["socket-ctrl"],
             "socket-stream": ports["socket-stream"]}
config = []
for line in open(os.path.join(repo, "etc/k52app-emulated.conf")):
    key = line.split("=", 1)[0]
    config.append(f"{key}={overrides[key]}" if key in overrides else line.rstrip("\n"))
config.append("emulated-hardware-concurrency=8")  # a worker free for the stop
with open(os.path.join(work, "k52app.conf"), "w") as f:
    f.write("\n".join(config) + "\n")
daemon = subprocess.Popen([k52app, "-c", os.path.join(work, "k52app.conf")], cwd=repo,
                          stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
try:
    for _ in range(200):
        try:
            control = Control(port=ports["socket-ctrl"], timeout=10)
            break
        except DaemonUnavailable:
            time.sleep(0.05)
    else:
        sys.exit("record-stream.py: the daemon did not listen")
    control.command("SetRTUFPS 0")
    stream = FrameStream(port=ports["socket-stream"], timeout=10)
    time.sleep(0.3)
    control.send(f"CaptureStreamStart {fourcc} {resolution}")
    for index in range(count):
        message = stream.next().message
        print("%d %d %08x %s" % (index, len(message), zlib.crc32(message[:-4]),
                                 hashlib.sha256(message).hexdigest()[:16]))
    stop_stream(control, stream)
finally:
    daemon.terminate()
    daemon.wait(15)
    subprocess.run(["rm", "-rf", work])
