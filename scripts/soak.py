#!/usr/bin/python3
"""Soak test: runs k52app on the emulated board for a while under steady use and fails when its
resident memory or its open descriptors grow.

Usage: scripts/soak.py [--build DIR] [--minutes M] [--csv FILE] [--cycle S] [--sample S]

Each cycle connects a stream client and a control client, starts a GREY stream, verifies every
frame (lengths and CRC-32), sends a command every 300 ms while it runs, checks both container
files with `k52ctl containers`, then stops the stream and disconnects both; a short-lived
`k52ctl` client reconnects to the control socket between cycles. A sampler records the daemon's
VmRSS and its count of /proc/PID/fd entries every few seconds to the CSV.

Growth check: the first fifth of the samples is warm-up (allocator arenas, the frame buffers,
the first stream's pool); of the rest, the median of the first quarter is compared with the
median of the last quarter. Memory fails above early + max(2 MiB, 2 %); descriptors fail when the late
window's largest count exceeds the early window's largest count (a leak of one descriptor per
cycle shows up within a few cycles; a transient connection does not, since both windows see them).
"""
import argparse
import os
import shutil
import signal
import socket
import statistics
import struct
import subprocess
import sys
import tempfile
import threading
import time
import zlib

MAGIC = 0x0510FFFF
ACK_KIND = 0x052A1001
XML_KIND = 0x052A0201
XML_SIZE = 229376
# Commands the control client sends while the stream runs: reads and writes of several devices,
# the descriptor (a large message on the control socket) and an unknown route.
COMMANDS = [
    "GetRTUFPS", "SetRTUFPS 30", "GetIMXExposure", "SetIMXExposure 1000", "GetV4L2Format",
    "ToFGetStatus", "GetIlluStatus", "GetAFPosition", "GetCPUInfoChipID", "help SetRTUFPS",
    "GetXmlDescriptor", "GetRTUStatus", "NoSuchRoute",
]


class SoakError(Exception):
    pass


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def read_exactly(sock, n):
    data = bytearray()
    while len(data) < n:
        chunk = sock.recv(min(n - len(data), 1 << 20))
        if not chunk:
            raise EOFError("daemon closed the connection")
        data += chunk
    return bytes(data)


def read_control_message(sock):
    """One notice (its text) or one XML descriptor (None), both verified."""
    head = read_exactly(sock, 16)
    magic, total, kind, remaining = struct.unpack("<4I", head)
    if magic != MAGIC or remaining != total - 12 or total < 21:
        raise SoakError(f"bad control header {head.hex()}")
    body = head + read_exactly(sock, total - 16)
    if struct.unpack_from("<I", body, total - 4)[0] != zlib.crc32(body[:total - 4]):
        raise SoakError("control message CRC mismatch")
    if kind == XML_KIND:
        rest = read_exactly(sock, XML_SIZE - total)
        if struct.unpack_from("<I", rest, len(rest) - 4)[0] != zlib.crc32(body[:total - 4]):
            raise SoakError("descriptor's second CRC differs")
        return None
    if kind != ACK_KIND:
        raise SoakError(f"unknown control message kind {kind:#x}")
    return body[16:total - 5].decode("utf-8", "replace")


def message_of(text):
    parts = text.split("<font color=#")
    return parts[-1].split(">", 1)[1].removesuffix("<\\font>") if len(parts) >= 3 else text


def await_reply(sock, deadline):
    """Reads notices until the next acknowledgement; commands go one at a time, so it answers
    the last one sent (or it is the stream's own, which comes when the stream ends)."""
    sock.settimeout(max(0.1, deadline - time.monotonic()))
    while True:
        text = read_control_message(sock)
        if text is None:
            continue
        message = message_of(text)
        if message.startswith("OK") or message.startswith("Error"):
            return message


class StreamReader(threading.Thread):
    def __init__(self, sock):
        super().__init__(daemon=True)
        self.sock, self.frames, self.error, self.stop = sock, 0, None, False

    def run(self):
        self.sock.settimeout(0.5)
        try:
            while not self.stop:
                try:
                    head = read_exactly(self.sock, 8)
                except socket.timeout:
                    continue
                magic, total = struct.unpack("<2I", head)
                if magic != MAGIC or total < 2248:
                    raise SoakError(f"bad frame header {head.hex()}")
                self.sock.settimeout(5)
                frame = head + read_exactly(self.sock, total - 8)
                self.sock.settimeout(0.5)
                n = struct.unpack_from("<I", frame, 2240)[0] - 8
                if total != 2248 + n:
                    raise SoakError("frame lengths disagree")
                if struct.unpack_from("<I", frame, 2244 + n)[0] != zlib.crc32(frame[:2244 + n]):
                    raise SoakError(f"frame {self.frames} CRC mismatch")
                self.frames += 1
        except EOFError:
            pass
        except Exception as e:  # reported by the cycle that owns the reader
            self.error = e


def proc_sample(pid):
    with open(f"/proc/{pid}/status") as f:
        rss = next(int(line.split()[1]) for line in f if line.startswith("VmRSS:"))
    return rss, len(os.listdir(f"/proc/{pid}/fd"))


class Sampler(threading.Thread):
    def __init__(self, pid, period, csv_path):
        super().__init__(daemon=True)
        self.pid, self.period, self.samples, self.done = pid, period, [], threading.Event()
        self.csv = open(csv_path, "w")
        self.csv.write("seconds,vmrss_kib,open_fds\n")

    def run(self):
        start = time.monotonic()
        while not self.done.wait(self.period):
            try:
                rss, fds = proc_sample(self.pid)
            except (OSError, StopIteration):
                break
            self.samples.append((time.monotonic() - start, rss, fds))
            self.csv.write(f"{self.samples[-1][0]:.1f},{rss},{fds}\n")
            self.csv.flush()


def check_containers(ctl, directory):
    # A reader can catch the daemon mid-write; a consistent pair must come within a few reads.
    for _ in range(20):
        result = subprocess.run([ctl, "--dir", directory, "containers"], capture_output=True,
                                text=True, timeout=30)
        if result.returncode == 0:
            return
        time.sleep(0.05)
    raise SoakError("containers inconsistent on 20 reads:\n" + result.stdout + result.stderr)


def cycle(args, ports, stats, end):
    control_port, stream_port = ports
    stream = socket.create_connection(("127.0.0.1", stream_port))
    time.sleep(0.3)  # the daemon accepts the stream client on its own schedule
    control = socket.create_connection(("127.0.0.1", control_port))
    reader = StreamReader(stream)
    reader.start()
    try:
        control.sendall(b"CaptureStreamStart GREY 0\r")
        stop_at = min(end, time.monotonic() + args.cycle)
        i = stats["commands"]
        while time.monotonic() < stop_at:
            time.sleep(0.3)
            command = COMMANDS[i % len(COMMANDS)]
            i += 1
            control.sendall(command.encode() + b"\r")
            reply = await_reply(control, time.monotonic() + 10)
            if "CaptureStart" in reply:
                raise SoakError(f"stream ended early: {reply}")
            if reader.error:
                raise SoakError(f"stream: {reader.error}")
            if i % 10 == 0:
                check_containers(args.ctl, args.containers)
        stats["commands"] = i
        control.sendall(b"CaptureStreamStop\r")
        deadline = time.monotonic() + 10
        replies = [await_reply(control, deadline), await_reply(control, deadline)]
        reply = next((r for r in replies if "CaptureStart" in r), "no stream acknowledgement")
        if not reply.startswith("OK"):
            raise SoakError(f"stream ended with: {reply}")
    finally:
        time.sleep(0.3)  # frames still on their way
        reader.stop = True
        reader.join(5)
        control.close()
        stream.close()
    if reader.error:
        raise SoakError(f"stream: {reader.error}")
    stats["frames"] += reader.frames
    stats["cycles"] += 1
    # A control client that comes and goes between streams.
    result = subprocess.run([args.ctl, "--port", str(control_port), "GetRTUFPS"],
                            capture_output=True, text=True, timeout=30)
    if result.returncode != 0:
        raise SoakError("k52ctl GetRTUFPS: " + result.stdout + result.stderr)


def growth(samples, warmup_fraction=0.2):
    usable = samples[int(len(samples) * warmup_fraction):]
    if len(usable) < 10:
        raise SoakError(f"only {len(samples)} samples: run longer")
    width = max(2, len(usable) // 4)
    early, late = usable[:width], usable[-width:]
    rss_early = statistics.median(s[1] for s in early)
    rss_late = statistics.median(s[1] for s in late)
    fd_early, fd_late = max(s[2] for s in early), max(s[2] for s in late)
    problems = []
    if rss_late > rss_early + max(2048, rss_early * 0.02):
        problems.append(f"resident memory grew: {rss_early:.0f} KiB -> {rss_late:.0f} KiB")
    if fd_late > fd_early:
        problems.append(f"open descriptors grew: {fd_early} -> {fd_late}")
    return rss_early, rss_late, fd_early, fd_late, problems


def main():
    root = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("--build", default=os.path.join(root, "build"))
    parser.add_argument("--minutes", type=float, default=2)
    parser.add_argument("--csv", default="soak.csv")
    parser.add_argument("--cycle", type=float, default=15, help="seconds per stream cycle")
    parser.add_argument("--sample", type=float, default=2, help="seconds between samples")
    parser.add_argument("--default-malloc", action="store_true",
                        help="keep glibc's adaptive mmap threshold (see docs/reliability.md)")
    args = parser.parse_args()
    args.ctl = os.path.join(args.build, "k52ctl")
    daemon = os.path.join(args.build, "k52app")

    work = tempfile.mkdtemp(prefix="k52soak.")
    args.containers = os.path.join(work, "containers") + "/"
    os.mkdir(args.containers)
    ports = (free_port(), free_port())
    values = {}
    with open(os.path.join(root, "etc/k52app-emulated.conf")) as f:
        for line in f:
            line = "".join(line.split())
            if line and not line.startswith("#") and "=" in line:
                key, value = line.split("=", 1)
                values.setdefault(key, value)
    values.update({
        "container-path": args.containers, "socket-ctrl": str(ports[0]),
        "socket-stream": str(ports[1]), "static-files": os.path.join(root, "etc/static-frames"),
        "smart-sensor-fw-path": os.path.join(root, "etc/firmware/smartsensor.bin"),
        "emulated-button-file": os.path.join(work, "button"),
        # Several workers, so that commands run while the stream holds one.
        "emulated-hardware-concurrency": "8",
    })
    config = os.path.join(work, "k52app.conf")
    with open(config, "w") as f:
        f.writelines(f"{k}={v}\n" for k, v in values.items())

    log = open(os.path.join(work, "k52app.out"), "w")
    env = dict(os.environ)
    if not args.default_malloc:
        # glibc raises its mmap threshold each time a large block is freed, after which frame
        # and descriptor buffers come from the heap, whose fragmentation grows for about 25
        # minutes before it settles. A fixed threshold returns them to the system on free, so
        # that resident memory tracks live memory and a leak shows within minutes.
        env["GLIBC_TUNABLES"] = "glibc.malloc.mmap_threshold=65536"
    proc = subprocess.Popen([daemon, "--config", config], stdout=log, stderr=subprocess.STDOUT, env=env)
    stats = {"cycles": 0, "frames": 0, "commands": 0}
    failure = None
    try:
        for _ in range(100):
            try:
                socket.create_connection(("127.0.0.1", ports[0])).close()
                break
            except OSError:
                if proc.poll() is not None:
                    raise SoakError(f"k52app exited with {proc.returncode} at start-up")
                time.sleep(0.1)
        # The probe above occupied the control socket for a moment; let the daemon settle.
        time.sleep(0.5)
        sampler = Sampler(proc.pid, args.sample, args.csv)
        sampler.start()
        end = time.monotonic() + args.minutes * 60
        while time.monotonic() < end:
            if proc.poll() is not None:
                raise SoakError(f"k52app exited with {proc.returncode}")
            cycle(args, ports, stats, end)
        check_containers(args.ctl, args.containers)
        sampler.done.set()
        sampler.join()
        rss_early, rss_late, fd_early, fd_late, problems = growth(sampler.samples)
        print(f"soak: {args.minutes:g} min, {stats['cycles']} stream cycles, {stats['frames']} frames "
              f"verified, {stats['commands']} commands; VmRSS {rss_early:.0f} -> {rss_late:.0f} KiB "
              f"(median early/late window), open descriptors {fd_early} -> {fd_late}; "
              f"samples in {args.csv}")
        if problems:
            failure = "; ".join(problems)
    except (SoakError, OSError, EOFError, subprocess.TimeoutExpired) as e:
        failure = f"{type(e).__name__}: {e}"
    finally:
        if proc.poll() is None:
            proc.send_signal(signal.SIGTERM)
            try:
                proc.wait(30)
            except subprocess.TimeoutExpired:
                proc.kill()
                proc.wait()
                failure = failure or "k52app did not stop within 30 s of SIGTERM"
        log.close()
    if failure is None and proc.returncode != 0:
        failure = f"k52app exited with {proc.returncode} after SIGTERM"
    if failure:
        with open(os.path.join(work, "k52app.out")) as f:
            tail = f.read()[-4000:]
        print(f"soak: FAILED: {failure}\n--- k52app output ---\n{tail}", file=sys.stderr)
        print(f"soak: kept {work}", file=sys.stderr)
        return 1
    shutil.rmtree(work, ignore_errors=True)
    return 0


if __name__ == "__main__":
    sys.exit(main())
