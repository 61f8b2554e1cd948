"""Framing and parsing on bytes built here with struct and zlib, damaged one way at a time."""
from __future__ import annotations

import struct
import zlib

import numpy as np
import pytest

import k52
from k52 import wire
from k52.console.link import build_command


def notice_frame(text: bytes) -> bytearray:
    body = text + b"\0"
    head = struct.pack("<4I", 0x0510FFFF, 20 + len(body), 0x052A1001, 8 + len(body)) + body
    return bytearray(head + struct.pack("<I", zlib.crc32(head)))


def frame_message(width, height, pixel_format, data: bytes) -> bytearray:
    message = bytearray(2244 + len(data) + 4)
    struct.pack_into("<2I", message, 0, 0x0510FFFF, len(message))
    struct.pack_into("<5I", message, 2216, 0x051A0801, 20, width, height, pixel_format)
    struct.pack_into("<2I", message, 2236, 0x051A0601, len(data) + 8)
    message[2244:2244 + len(data)] = data
    struct.pack_into("<I", message, len(message) - 4, zlib.crc32(message[:-4]))
    return message


ACK = b"<font color=#121212>[26-11-22 21:10:05] k52app-v1.3.1@camera <\\font><font color=#788a3d>OK : GetRTUFPS: RTU FPS: 30<\\font>"


def damage(offset, value):
    def apply(message):
        message[offset] ^= value
    return apply


@pytest.mark.parametrize("spoil, error, text", [
    (damage(-1, 0x01), k52.ChecksumError, "checksum"),
    (damage(40, 0x20), k52.ChecksumError, "checksum"),
    (damage(0, 0x01), k52.ProtocolError, "magic"),
    (damage(12, 0x01), k52.ProtocolError, "remaining length"),
    (damage(9, 0x01), k52.ProtocolError, "kind"),
])
def test_damaged_notices_are_refused(spoil, error, text):
    assert wire.unpack_notice(bytes(notice_frame(ACK))).message == "OK : GetRTUFPS: RTU FPS: 30"
    message = notice_frame(ACK)
    spoil(message)
    with pytest.raises(error, match=text):
        wire.unpack_notice(bytes(message))


@pytest.mark.parametrize("message, color, acknowledgement", [
    (b"OK : SetFPS: FPS set to 15", "788a3d", True),
    (b"Benchmark = '29.9' FPS", "3b65e3", False),
    (b"Button : Rising Edge Detected.", "ff9d00", False),
    (b"Success : vector::_M_range_check", "f2351f", True),
])
def test_acknowledgements_told_from_notices(message, color, acknowledgement):
    text = b"<font color=#121212>[t] o <\\font><font color=#" + color.encode() + b">" + message + b"<\\font>"
    assert wire.unpack_notice(bytes(notice_frame(text))).is_acknowledgement is acknowledgement


ramp = bytes(range(256)) * 8


@pytest.mark.parametrize("width, height, pixel_format, data, shape, error", [
    (16, 8, 1, ramp[:128], (8, 16), None),
    (4, 2, 7, ramp[:24], (2, 4, 3), None),
    (12, 8, 1, ramp[:128], (8, 12), None),            # rows padded to 16 bytes
    (16, 9, 1, ramp[:128], None, "cannot hold"),
    (16, 8, 9, ramp[:128], None, "pixel format"),
])
def test_frames_shaped_or_refused(width, height, pixel_format, data, shape, error):
    message = frame_message(width, height, pixel_format, data)
    if error:
        with pytest.raises(k52.ProtocolError, match=error):
            wire.unpack_frame(message)
        return
    frame = wire.unpack_frame(message)
    assert frame.pixels.shape == shape
    stride = len(data) // height
    expected = np.frombuffer(data, np.uint8).reshape(height, stride)[:, :width * (3 if pixel_format == 7 else 1)]
    assert frame.pixels.tobytes() == expected.tobytes()
    message[2244] ^= 1
    with pytest.raises(k52.ChecksumError):
        wire.unpack_frame(message)


def route(reply):
    return k52.parse_route_help(reply)


SETIO = route("SetRTUIOConfig - Sets the RTU config; pin: the io pin [a numerical value (0..5), default 0, count 1]; "
              "mode: 0-NO 1-NC [a numerical value (0..1), default 0, count 1]")
STATIC = route("GetStaticFrame - Loads a frame.; frame_name: the name [a categorical value (a.pgm|b.ppm), default empty, count 1]")
CROP = route("SetV4L2CropCapabilities - Sets crop; bounds: left, top, width, height [a numerical value (0..4294967295), default 0, count 4]")


@pytest.mark.parametrize("route_, values, command", [
    (SETIO, ["3", ""], "SetRTUIOConfig 3"),
    (SETIO, ["", ""], "SetRTUIOConfig"),
    (SETIO, ["-1", "+1"], "SetRTUIOConfig -1 +1"),
    (SETIO, ["1.5"], "expects a whole number, got '1.5'"),
    (SETIO, ["abc"], "expects a whole number, got 'abc'"),
    (SETIO, ["", "1"], "'mode' is given but 'pin' before it is empty"),
    (STATIC, ["b.ppm"], "GetStaticFrame b.ppm"),
    (STATIC, ["c.pgm"], "is one of a.pgm, b.ppm, got 'c.pgm'"),
    (STATIC, ["b.ppm\rSetRTUFPS"], "takes 1 value(s), got 2"),   # no second command smuggled in
    (CROP, ["0 0 64 48"], "SetV4L2CropCapabilities 0 0 64 48"),
    (CROP, ["0 0 64"], "takes 4 value(s), got 3"),
])
def test_forms_become_commands_or_are_refused(route_, values, command):
    assert STATIC.help == "Loads a frame." and STATIC.arguments[0].default == "empty"
    try:
        assert build_command(route_, values) == command
    except ValueError as error:
        assert command in str(error)
