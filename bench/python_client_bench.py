#!/usr/bin/python3
"""Frame rates of the Python client next to `k52ctl stream` (alternating rounds, same daemon),
and the console's latency from a frame's arrival to its drawing in headless chromium.
Needs a running daemon; prints one line per measurement.

Frames carry no send time, so the time from the daemon's send to the console's arrival is
taken from a system-call trace of the daemon when one is given (--send-trace), made with
    strace -f --seccomp-bpf -ttt -s 0 -e trace=sendto -o TRACE build/k52app --config ...
(only sendto stops the daemon; the trace's and the console's clocks are both wall time)."""
from __future__ import annotations

import argparse
import bisect
import os
import re
import statistics
import subprocess
import sys
import time
from pathlib import Path

REPO = Path(__file__).resolve().parents[1]
sys.path.insert(0, str(REPO / "python"))

import k52  # noqa: E402


def python_round(args, frames: int) -> float:
    control = k52.Control(port=args.control_port)
    with k52.FrameStream(port=args.stream_port) as stream:
        control.send(f"CaptureStreamStart GREY {args.index}")
        stream.next()
        start = time.monotonic()
        for _ in range(frames):
            stream.next()
        rate = frames / (time.monotonic() - start)
        k52.stop_stream(control, stream)
    control.close()
    return rate


def k52ctl_round(args, frames: int) -> float:
    out = subprocess.run([args.k52ctl, "--port", str(args.control_port), "--stream-port", str(args.stream_port),
                          "stream", "GREY", str(args.index), "--frames", str(frames + 1)],
                         capture_output=True, text=True, timeout=120)
    rates = re.findall(r"([\d.]+) fps", out.stderr + out.stdout)
    if not rates:
        raise RuntimeError(f"k52ctl printed no rate: {out.stderr[-300:]}")
    return float(rates[-1])


def send_times(trace: str, total: int) -> list[float]:
    """Wall times (ms) at which the daemon began sending a frame message of `total` bytes:
    the first sendto of each frame asks for the whole message, a partial send's rest is shorter."""
    pattern = re.compile(r"(\d+\.\d+) sendto\(\d+, \S*, (\d+),")
    with open(trace) as lines:
        return sorted(float(m[1]) * 1000.0 for m in map(pattern.search, lines) if m and int(m[2]) == total)


def console_latency(args, index: int, seconds: float) -> tuple[list[float], list[float], float]:
    from selenium import webdriver
    from selenium.webdriver.chrome.service import Service
    from selenium.webdriver.common.by import By
    from selenium.webdriver.support.ui import Select, WebDriverWait
    env = dict(os.environ, PYTHONPATH=str(REPO / "python"))
    console = subprocess.Popen([sys.executable, "-m", "k52.console", "--port", str(args.console_port),
                                "--control-port", str(args.control_port), "--stream-port", str(args.stream_port)],
                               env=env, stderr=subprocess.DEVNULL)
    options = webdriver.ChromeOptions()
    for flag in ("--headless=new", "--no-sandbox", "--disable-dev-shm-usage", "--window-size=1400,1000"):
        options.add_argument(flag)
    driver = webdriver.Chrome(options=options, service=Service("/usr/bin/chromedriver"))
    try:
        time.sleep(1)
        driver.get(f"http://127.0.0.1:{args.console_port}/")
        WebDriverWait(driver, 20).until(lambda d: d.find_elements(By.ID, "route-SetRTUFPS"))
        Select(driver.find_element(By.ID, "fourcc")).select_by_value("GREY")
        Select(driver.find_element(By.ID, "resolution")).select_by_index(index)
        driver.find_element(By.ID, "start").click()
        time.sleep(2)  # let the first frames settle
        driver.execute_script("k52stats.latencies.length = 0; k52stats.drawn.length = 0")
        time.sleep(seconds)
        latencies, drawn, origin = driver.execute_script(
            "return [k52stats.latencies, k52stats.drawn, performance.timeOrigin]")
        driver.find_element(By.ID, "stop").click()
        WebDriverWait(driver, 20).until(lambda d: d.find_element(By.ID, "start").is_enabled())
    finally:
        driver.quit()
        console.terminate()
        console.wait(10)
    fps = (len(drawn) - 1) * 1000 / (drawn[-1] - drawn[0]) if len(drawn) > 1 else 0.0
    # wall time of each drawn frame's arrival at the console
    arrivals = [origin + d - latency for d, latency in zip(drawn, latencies)]
    return latencies, arrivals, fps


def transit(arrivals: list[float], latencies: list[float], sends: list[float]) -> list[tuple[float, float]]:
    """For each drawn frame, (send to arrival, send to drawn), taking the daemon's latest frame
    send before the arrival as the frame's own: true while the transit stays below the 33 ms
    between frames."""
    pairs = []
    for arrived, latency in zip(arrivals, latencies):
        i = bisect.bisect_right(sends, arrived)
        if i:
            pairs.append((arrived - sends[i - 1], arrived - sends[i - 1] + latency))
    return pairs


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--control-port", type=int, default=4460)
    parser.add_argument("--stream-port", type=int, default=4461)
    parser.add_argument("--console-port", type=int, default=8453)
    parser.add_argument("--k52ctl", default=str(REPO / "build/k52ctl"))
    parser.add_argument("--index", type=int, default=1, help="GREY resolution index of the client rounds (1: 1456x1088)")
    parser.add_argument("--frames", type=int, default=150)
    parser.add_argument("--rounds", type=int, default=3)
    parser.add_argument("--seconds", type=float, default=10.0, help="console measurement per resolution")
    parser.add_argument("--send-trace", help="the daemon's sendto trace (see above): latency also from the daemon's send")
    args = parser.parse_args()
    for round_ in range(1, args.rounds + 1):
        print(f"round {round_}: k52ctl {k52ctl_round(args, args.frames):.2f} fps, "
              f"python {python_round(args, args.frames):.2f} fps", flush=True)
    for index, (width, height) in ((0, (640, 480)), (1, (1456, 1088))):
        latencies, arrivals, fps = console_latency(args, index, args.seconds)
        print(f"console GREY {width}x{height}: median latency from arrival {statistics.median(latencies):.1f} ms "
              f"over {len(latencies)} frames, drawn {fps:.1f} fps", flush=True)
        if args.send_trace:
            gaps, total = zip(*transit(arrivals, latencies, send_times(args.send_trace, 2248 + width * height)))
            print(f"console GREY {width}x{height}: daemon send to arrival median {statistics.median(gaps):.2f} ms "
                  f"(max {max(gaps):.2f}), send to drawn median {statistics.median(total):.1f} ms", flush=True)
    return 0


if __name__ == "__main__":
    sys.exit(main())
