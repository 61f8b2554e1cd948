"""The client against a daemon on the emulated board."""
from __future__ import annotations

import shutil
import socket
import time

import numpy as np
import pytest

import k52
from conftest import REPO, free_port


def read_netpbm(name: str) -> np.ndarray:
    # Independent of the daemon: the static frame as the file on disk holds it.
    raw = (REPO / "etc/static-frames" / name).read_bytes()
    magic, width, height, _, pixels = raw.split(maxsplit=4)
    shape = (int(height), int(width)) + ((3,) if magic == b"P6" else ())
    return np.frombuffer(pixels, np.uint8).reshape(shape)


@pytest.mark.parametrize("command, status, color, reply", [
    ("SetRTUFPS 15", "OK", 0x788A3D, "SetFPS: FPS set to 15"),
    ("GetRTUFPS", "OK", 0x788A3D, "GetRTUFPS: RTU FPS: 15"),
    ("SetRTUFPS x", "Error", 0xC81919, "Success : SetRTUFPS: argument 'value' expects a numerical value"),
    ("SetRTUTriggerMode 2", "ErrorRuntimeError", 0xFF9D00, "SetTriggerMode: Invalid trigger mode."),
])
def test_acknowledgements(daemon, command, status, color, reply):
    with daemon.control() as control:
        ack = control.command(command)
    assert (ack.status, ack.color) == (status, color)
    assert ack.reply.startswith(reply)


def test_descriptor_and_help(daemon):
    with daemon.control() as control:
        descriptor = control.descriptor()
        help_list = control.command("help").reply
        route = control.route_help("SetRTUIOConfig")
    assert descriptor.formats["GREY"][1] == (1456, 1088)
    assert descriptor.imx["model"] == "imx296"
    assert f"{len(descriptor.routes)} routes" in help_list
    assert [(a.name, a.limits, a.default) for a in route.arguments[:2]] == [("pin", "0..5", "0"), ("type", "0..2", "0")]


@pytest.mark.parametrize("name", ["gradient-640x480.pgm", "colourbars-320x240.ppm", "checkerboard-1456x1088.pgm"])
def test_static_frames_match_their_files(daemon, name):
    with daemon.frames() as stream, daemon.control() as control:
        ack = control.command(f"GetStaticFrame {name}")
        frame = stream.next()
    assert ack.ok and ack.reply.endswith(f"CRC={frame.crc:#010x}")
    np.testing.assert_array_equal(frame.pixels, read_netpbm(name))


def test_stream_moves_and_stops(daemon):
    control = daemon.control()
    with daemon.frames() as stream:
        control.send("CaptureStreamStart GREY 0")
        first, *_, last = [stream.next() for _ in range(10)]
        assert first.pixels.shape == (480, 640)
        assert not np.array_equal(first.pixels, last.pixels)  # the emulated pattern moves
        k52.stop_stream(control, stream)
    # a stream left running would hold the single worker: the next command would not be answered
    with daemon.control(timeout=3) as control:
        assert control.command("GetRTUFPS").ok


def test_stream_client_leaving_mid_frame_stops_the_stream(daemon):
    control = daemon.control()
    stream = daemon.frames()
    control.send("CaptureStreamStart GREY 1")
    stream.next()
    stream.close()
    notice = control.read_notice(timeout=5)
    assert notice.is_acknowledgement and notice.status != "OK"
    assert control.command("GetRTUFPS", timeout=3).ok
    control.close()


def test_button_edges_are_notices(daemon):
    seen = []
    with daemon.control(on_notice=seen.append) as control:
        assert control.command("MonitorButton 1").ok
        daemon.press(True)
        time.sleep(0.3)
        daemon.press(False)
        messages = [n.message for n in control.notices(timeout=1.0)]
        control.command("MonitorButton 0")
    assert messages[:2] == ["Button : Rising Edge Detected.", "Button : Falling Edge Detected."]
    assert all(not n.is_acknowledgement for n in control.pending)


def test_containers_verified_and_corruption_found(daemon, tmp_path):
    reports = k52.check_containers(daemon.container_dir)
    assert [r.ok for r in reports] == [True, True], [r.problems for r in reports]
    copy = tmp_path / "k52XMLContainer"
    shutil.copy(reports[0].path, copy)
    with open(copy, "r+b") as file:
        file.seek(100)
        byte = file.read(1)
        file.seek(100)
        file.write(bytes([byte[0] ^ 0xFF]))
    assert "checksum" in k52.check_container(str(copy)).problems[0]


def test_failures_say_what_happened(daemon):
    with pytest.raises(k52.DaemonUnavailable, match="no daemon listens"):
        k52.Control(port=free_port())
    with pytest.raises(k52.DaemonUnavailable, match="not running"):
        k52.check_containers(str(daemon.directory / "nowhere"))
    with daemon.control():
        with daemon.control(timeout=1) as second, pytest.raises(k52.ControlSocketBusy, match="another client"):
            second.command("GetRTUFPS")
