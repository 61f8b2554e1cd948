"""A private daemon on the emulated board per test module: own ports, container directory and
button file, so tests run beside other daemons."""
from __future__ import annotations

import os
import socket
import subprocess
import sys
import time
from pathlib import Path

import pytest

REPO = Path(__file__).resolve().parents[2]
sys.path.insert(0, str(REPO / "python"))

import k52  # noqa: E402


def free_port() -> int:
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


class Daemon:
    def __init__(self, directory: Path, workers: int) -> None:
        self.directory = directory
        self.control_port, self.stream_port = free_port(), free_port()
        self.container_dir = f"{directory}/containers/"
        self.button = directory / "button"
        os.makedirs(self.container_dir)
        overrides = {"container-path": self.container_dir, "socket-ctrl": self.control_port,
                     "socket-stream": self.stream_port, "emulated-button-file": self.button,
                     "static-files": REPO / "etc/static-frames", "smart-sensor-fw-path": REPO / "etc/firmware/smartsensor.bin"}
        lines = [f"{key}={value}" for key, value in overrides.items()]
        lines.append(f"emulated-hardware-concurrency={workers}")
        lines += (REPO / "etc/k52app-emulated.conf").read_text().splitlines()  # first line of a key wins
        config = directory / "k52app.conf"
        config.write_text("\n".join(lines) + "\n")
        binary = Path(os.environ.get("K52_BUILD", REPO / "build")) / "k52app"
        self.process = subprocess.Popen([str(binary), "--config", str(config)], cwd=REPO,
                                        stdout=subprocess.DEVNULL, stderr=open(directory / "stderr", "wb"))
        deadline = time.monotonic() + 15
        while True:
            try:
                socket.create_connection(("127.0.0.1", self.stream_port), timeout=1).close()
                break
            except OSError:
                if self.process.poll() is not None or time.monotonic() > deadline:
                    self.stop()
                    raise RuntimeError(f"k52app did not start: {(directory / 'stderr').read_text()}")
                time.sleep(0.1)

    def control(self, **options) -> k52.Control:
        return k52.Control(port=self.control_port, **options)

    def frames(self) -> k52.FrameStream:
        return k52.FrameStream(port=self.stream_port)

    def press(self, down: bool) -> None:
        self.button.write_text("1" if down else "0")

    def stop(self) -> None:
        self.process.terminate()
        try:
            self.process.wait(10)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait()


@pytest.fixture(scope="module")
def daemon(tmp_path_factory, request):
    """One worker, as on a small board: a stream holds it, so stops take the hard path."""
    running = Daemon(tmp_path_factory.mktemp("k52"), getattr(request.module, "WORKERS", 1))
    yield running
    running.stop()
