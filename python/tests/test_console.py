"""The console in headless chromium, used the way a person would."""
from __future__ import annotations

import asyncio
import contextlib
import os
import select
import subprocess
import sys
import time

import pytest

from conftest import REPO, free_port

webdriver = pytest.importorskip("selenium.webdriver")
from selenium.webdriver.chrome.service import Service as ChromeService  # noqa: E402
from selenium.webdriver.common.by import By  # noqa: E402
from selenium.webdriver.support.ui import Select, WebDriverWait  # noqa: E402

import k52  # noqa: E402
from k52.console.link import Link  # noqa: E402

WORKERS = 8  # as on the board: commands are answered while a stream runs


def start_console(control_port: int, stream_port: int, container_dir: str = "/nonexistent/"):
    port = free_port()
    env = dict(os.environ, PYTHONPATH=str(REPO / "python"))
    process = subprocess.Popen([sys.executable, "-m", "k52.console", "--port", str(port),
                                "--control-port", str(control_port), "--stream-port", str(stream_port),
                                "--container-dir", container_dir], env=env, stderr=subprocess.PIPE, text=True)
    assert "k52console: http://" in process.stderr.readline()  # printed when it is about to listen
    time.sleep(0.5)
    return process, f"http://127.0.0.1:{port}/"


@pytest.fixture(scope="module")
def console(daemon):
    process, url = start_console(daemon.control_port, daemon.stream_port, daemon.container_dir)
    yield url
    process.terminate()
    process.wait(10)


@pytest.fixture(scope="module")
def browser():
    options = webdriver.ChromeOptions()
    for flag in ("--headless=new", "--no-sandbox", "--disable-dev-shm-usage", "--window-size=1400,1000"):
        options.add_argument(flag)
    service = ChromeService(executable_path="/usr/bin/chromedriver")
    driver = webdriver.Chrome(options=options, service=service)
    yield driver
    driver.quit()


def wait(driver, condition, timeout=15):
    return WebDriverWait(driver, timeout, 0.1).until(lambda d: condition(d))


def open_page(driver, url):
    driver.get(url)
    wait(driver, lambda d: d.find_elements(By.ID, "route-SetRTUFPS"))


def submit(driver, route, *values):
    box = driver.find_element(By.ID, f"route-{route}")
    for field, value in zip(box.find_elements(By.CSS_SELECTOR, "input, select"), values):
        field.clear()
        field.send_keys(value)
    box.find_element(By.TAG_NAME, "button").click()
    reply = box.find_element(By.CLASS_NAME, "reply")
    wait(driver, lambda d: reply.text not in ("", "…"))
    return reply


def counter(driver):
    # The emulated sensor writes the frame number and its complement into the first row.
    row = driver.execute_script("return Array.from($('image').getContext('2d').getImageData(0, 0, 8, 1).data)"
                                ".filter((_, i) => i % 4 == 0)")
    value, complement = int.from_bytes(bytes(row[:4]), "little"), int.from_bytes(bytes(row[4:]), "little")
    assert value ^ complement == 0xFFFFFFFF, row
    return value


def test_page_opening_while_another_connects_is_described(daemon):
    # runs before the pages below make the console hold the control socket
    async def second_page():
        link = Link("127.0.0.1", daemon.control_port, daemon.stream_port)
        first = asyncio.create_task(link.connect())
        await asyncio.sleep(0.01)  # the first page waits for the descriptor
        await link.connect()
        routes = dict(link.routes)
        await first
        await link.disconnect()
        return routes
    assert "SetRTUFPS" in asyncio.run(second_page())


def test_stream_forms_and_notices(daemon, console, browser):
    open_page(browser, console)
    Select(browser.find_element(By.ID, "fourcc")).select_by_value("GREY")
    Select(browser.find_element(By.ID, "resolution")).select_by_index(0)
    browser.find_element(By.ID, "start").click()
    wait(browser, lambda d: d.execute_script("return k52stats.received") >= 3)
    canvas = browser.find_element(By.ID, "image")
    first, count = canvas.screenshot_as_png, counter(browser)
    time.sleep(0.5)
    assert canvas.screenshot_as_png != first
    assert counter(browser) > count
    assert "GREY 640x480" in browser.find_element(By.ID, "rate").text

    reply = submit(browser, "SetRTUFPS", "15")
    assert (reply.text, reply.value_of_css_property("color")) == ("OK : SetFPS: FPS set to 15", "rgba(120, 138, 61, 1)")
    assert submit(browser, "MonitorButton", "1").text.startswith("OK")
    daemon.press(True)
    log = browser.find_element(By.ID, "log")
    wait(browser, lambda d: "Button : Rising Edge Detected." in log.text)
    daemon.press(False)
    browser.find_element(By.ID, "tof-once").click()
    browser.find_element(By.ID, "check").click()
    wait(browser, lambda d: d.find_element(By.ID, "containers").text.count(": ok") == 2)
    if os.environ.get("K52_CONSOLE_SCREENSHOT"):
        browser.execute_script("window.scrollTo(0, 0)")
        browser.save_screenshot(os.environ["K52_CONSOLE_SCREENSHOT"])
    browser.find_element(By.ID, "stop").click()
    wait(browser, lambda d: d.find_element(By.ID, "start").is_enabled())


@pytest.mark.parametrize("value, refusal", [
    ("1.5", "not sent: SetRTUFPS: 'value' expects a whole number, got '1.5'"),  # refused by the console
    ("e", "not sent: 'value' expects a whole number"),                             # refused by the page
])
def test_non_numeric_values_are_not_sent(console, browser, value, refusal):
    open_page(browser, console)
    assert submit(browser, "SetRTUFPS", "20").text.startswith("OK")
    assert submit(browser, "SetRTUFPS", value).text == refusal
    assert submit(browser, "GetRTUFPS").text == "OK : GetRTUFPS: RTU FPS: 20"


def test_tab_closed_mid_stream_stops_the_stream(daemon, console, browser):
    open_page(browser, console)
    browser.find_element(By.ID, "start").click()
    wait(browser, lambda d: d.execute_script("return k52stats.received") >= 2)
    browser.get("about:blank")
    time.sleep(3)
    # the console has left the stream socket; a stream still running would feed the next client
    with k52.FrameStream(port=daemon.stream_port) as stream:
        assert not select.select([stream], [], [], 1.5)[0]


@pytest.mark.parametrize("held, message", [(False, "no daemon at"), (True, "another client holds")])
def test_unreachable_daemon_is_reported(daemon, browser, held, message):
    holder = daemon.control() if held else contextlib.nullcontext()
    process, url = start_console(daemon.control_port if held else free_port(), daemon.stream_port)
    try:
        with holder:
            browser.get(url)
            wait(browser, lambda d: message in d.find_element(By.ID, "banner").text)
    finally:
        process.terminate()
        process.wait(10)
