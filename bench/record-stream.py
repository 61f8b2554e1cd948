#!/usr/bin/python3
"""Records the first COUNT frame messages of a stream of the daemon on the emulated board, one line
each: index, total length, CRC-32 (zlib) of the message without its checksum, SHA-256 prefix.

The emulated sensor's pattern is deterministic at RTU FPS 0 (frames as fast as they are taken),
so two builds that stream the same bytes print the same lines. bench/stream-reference/ holds the
lines of the stream before the frame-path work; a change to the stream loop must keep them:

    bench/record-stream.py build/k52app GREY 2 12 | diff - bench/stream-reference/GREY-2.txt
"""
import hashlib, os, socket, struct, subprocess, sys, tempfile, time, zlib

if len(sys.argv) != 5:
    sys.exit(__doc__)
k52app, fourcc, resolution, count = sys.argv[1], sys.argv[2], sys.argv[3], int(sys.argv[4])
repo = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def read_exactly(sock, n):
    data = bytearray()
    while len(data) < n:
        chunk = sock.recv(n - len(data))
        if not chunk:
            sys.exit("record-stream.py: the daemon closed the connection")
        data += chunk
    return bytes(data)


def wait_for(control, text):
    while True:
        header = read_exactly(control, 8)
        body = read_exactly(control, struct.unpack_from("<I", header, 4)[0] - 8)
        if text in body[8:].split(b"\0")[0].decode(errors="replace"):
            return


work = tempfile.mkdtemp(prefix="k52record-")
control_port, stream_port = free_port(), free_port()
config = []
for line in open(os.path.join(repo, "etc/k52app-emulated.conf")):
    key = line.split("=", 1)[0]
    line = {"container-path": f"container-path={work}/", "socket-ctrl": f"socket-ctrl={control_port}",
            "socket-stream": f"socket-stream={stream_port}"}.get(key, line.rstrip("\n"))
    config.append(line)
config.append("emulated-hardware-concurrency=8")  # a worker free for the stop
with open(os.path.join(work, "k52app.conf"), "w") as f:
    f.write("\n".join(config) + "\n")
daemon = subprocess.Popen([k52app, "-c", os.path.join(work, "k52app.conf")], cwd=repo,
                          stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
try:
    for _ in range(200):
        try:
            control = socket.create_connection(("127.0.0.1", control_port), timeout=10)
            break
        except OSError:
            time.sleep(0.05)
    else:
        sys.exit("record-stream.py: the daemon did not listen")
    control.sendall(b"SetRTUFPS 0\r")
    wait_for(control, "OK : ")
    stream = socket.create_connection(("127.0.0.1", stream_port), timeout=10)
    time.sleep(0.3)
    control.sendall(f"CaptureStreamStart {fourcc} {resolution}\r".encode())
    for index in range(count):
        header = read_exactly(stream, 8)
        message = header + read_exactly(stream, struct.unpack_from("<I", header, 4)[0] - 8)
        print("%d %d %08x %s" % (index, len(message), zlib.crc32(message[:-4]),
                                 hashlib.sha256(message).hexdigest()[:16]))
    control.sendall(b"CaptureStreamStop\r")
    stream.settimeout(5)  # the stream loop may wait in a send until its frame is read
    try:
        while stream.recv(1 << 20):
            pass
    except socket.timeout:
        pass
    wait_for(control, "Capture Stream finished.")
finally:
    daemon.terminate()
    daemon.wait(15)
    subprocess.run(["rm", "-rf", work])
