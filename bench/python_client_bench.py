#!/usr/bin/python3
"""Frame rates of the Python client next to `k52ctl stream` (alternating rounds, same daemon),
and the console's latency from a frame's arrival to its drawing in headless chromium.
Needs a running daemon; prints one line per measurement."""
from __future__ import annotations

import argparse
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


def console_latency(args, index: int, seconds: float) -> tuple[float, float, int]:
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
        latencies, drawn = driver.execute_script("return [k52stats.latencies, k52stats.drawn]")
        driver.find_element(By.ID, "stop").click()
        WebDriverWait(driver, 20).until(lambda d: d.find_element(By.ID, "start").is_enabled())
    finally:
        driver.quit()
        console.terminate()
        console.wait(10)
    fps = (len(drawn) - 1) * 1000 / (drawn[-1] - drawn[0]) if len(drawn) > 1 else 0.0
    return statistics.median(latencies), fps, len(latencies)


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
    args = parser.parse_args()
    for round_ in range(1, args.rounds + 1):
        print(f"round {round_}: k52ctl {k52ctl_round(args, args.frames):.2f} fps, "
              f"python {python_round(args, args.frames):.2f} fps", flush=True)
    for index, size in ((0, "640x480"), (1, "1456x1088")):
        latency, fps, count = console_latency(args, index, args.seconds)
        print(f"console GREY {size}: median latency {latency:.1f} ms over {count} frames, drawn {fps:.1f} fps", flush=True)
    return 0


if __name__ == "__main__":
    sys.exit(main())
