"""Framing of the daemon's messages: pure functions over bytes, shared by the blocking client
and the asyncio console. All words are 32-bit unsigned little-endian."""
from __future__ import annotations

import re
import struct
import zlib
from dataclasses import dataclass

import numpy as np

from .errors import ChecksumError, ProtocolError

MAGIC = 0x0510FFFF
NOTICE_KIND = 0x052A1001
XML_KIND = 0x052A0201
HEADER_SIZE = 16
XML_MESSAGE_SIZE = 229376
# Notices are small; anything far larger means the reader lost its place in the byte stream.
LARGEST_NOTICE = 64 << 20

FRAME_METADATA_ID = 0x051A0801
FRAME_DATA_ID = 0x051A0601
FRAME_OVERHEAD = 2248
FRAME_DATA_OFFSET = 2244
# The general container's size bounds every frame message.
LARGEST_FRAME = 50333896

# pixel format number -> (fourcc, bytes per pixel; 0 where rows are not whole pixels)
PIXEL_FORMATS = {
    1: ("GREY", 1), 2: ("BYR2", 2), 3: ("UYVY", 2), 4: ("YUYV", 2),
    5: ("Y444", 0), 6: ("NV12", 0), 7: ("RGB3", 3), 8: ("RGB4", 4),
}

BLUE = 0x3B65E3


def crc32(data) -> int:
    """The protocol's checksum: standard CRC-32, as zlib computes it."""
    return zlib.crc32(data) & 0xFFFFFFFF


def word(data, offset: int) -> int:
    return struct.unpack_from("<I", data, offset)[0]


def parse_header(header: bytes) -> tuple[int, int]:
    """Checks the 16-byte head of a control-socket message; returns (kind, total length)."""
    magic, total, kind, remaining = struct.unpack("<4I", header)
    if magic != MAGIC:
        raise ProtocolError(f"expected message magic {MAGIC:#010x} on the control socket, got {magic:#010x}")
    if kind not in (NOTICE_KIND, XML_KIND):
        raise ProtocolError(f"expected kind {NOTICE_KIND:#010x} or {XML_KIND:#010x}, got {kind:#010x}")
    if total < HEADER_SIZE + 5 or total > LARGEST_NOTICE or (kind == XML_KIND and total > XML_MESSAGE_SIZE):
        raise ProtocolError(f"implausible message length {total}")
    if remaining != total - 12:
        raise ProtocolError(f"remaining length {remaining} does not match total length {total} (expected {total - 12})")
    return kind, total


def _text_of(message: bytes, total: int) -> str:
    stored = word(message, total - 4)
    computed = crc32(memoryview(message)[: total - 4])
    if stored != computed:
        raise ChecksumError(f"message checksum {stored:#010x} but its content gives {computed:#010x}")
    if message[total - 5] != 0:
        raise ProtocolError("message text is not NUL-terminated")
    return bytes(message[HEADER_SIZE: total - 5]).decode("utf-8", "replace")


@dataclass(frozen=True)
class Notice:
    """One notice from the daemon: an acknowledgement or an unsolicited message."""

    text: str      # the whole HTML-like text
    time: str      # daemon's local time, "yy-mm-dd HH:MM:SS"
    origin: str    # "k52app-v1.3.1@camera"
    color: int     # 0xRRGGBB of the message
    message: str   # "STATUS : MESSAGE" for acknowledgements

    @property
    def color_hex(self) -> str:
        return f"#{self.color:06x}"

    @property
    def is_acknowledgement(self) -> bool:
        # Stream progress and button releases come in blue; button presses name their origin.
        if self.color == BLUE or self.message.startswith("Button : "):
            return False
        return " : " in self.message

    @property
    def status(self) -> str:
        """The status word ("OK", "Error", ...), empty for notices without one."""
        return self.message.split(" : ", 1)[0] if " : " in self.message else ""

    @property
    def reply(self) -> str:
        """The message after the status word."""
        return self.message.split(" : ", 1)[1] if " : " in self.message else self.message

    @property
    def ok(self) -> bool:
        return self.status == "OK"


_NOTICE = re.compile(r"<font color=#121212>\[([^\]]*)\] (.*?) ?<\\font><font color=#([0-9a-fA-F]{1,6})>(.*)<\\font>\Z", re.S)


def unpack_notice(message: bytes) -> Notice:
    """Verifies a whole notice frame (header, checksum, NUL) and parses its text."""
    kind, total = parse_header(message[:HEADER_SIZE])
    if kind != NOTICE_KIND or total != len(message):
        raise ProtocolError(f"expected a notice frame of {len(message)} bytes, header says kind {kind:#010x}, {total} bytes")
    text = _text_of(message, total)
    found = _NOTICE.match(text)
    if not found:
        raise ProtocolError(f"notice text not understood: {text!r}")
    time, origin, color, body = found.groups()
    return Notice(text, time, origin, int(color, 16), body)


def unpack_descriptor(message: bytes) -> str:
    """Verifies a whole XML descriptor message (both checksum copies) and returns its document."""
    if len(message) != XML_MESSAGE_SIZE:
        raise ProtocolError(f"expected a descriptor message of {XML_MESSAGE_SIZE} bytes, got {len(message)}")
    kind, used = parse_header(message[:HEADER_SIZE])
    if kind != XML_KIND:
        raise ProtocolError(f"expected descriptor kind {XML_KIND:#010x}, got {kind:#010x}")
    document = _text_of(message, used)
    last = word(message, XML_MESSAGE_SIZE - 4)
    if last != word(message, used - 4):
        raise ChecksumError(f"descriptor checksum {word(message, used - 4):#010x} but its last word holds {last:#010x}")
    return document


@dataclass
class Frame:
    """One verified frame: header fields and the pixels as a NumPy array over the message."""

    width: int
    height: int
    pixel_format: int
    crc: int
    message: bytes   # the whole frame message, as sent
    pixels: np.ndarray

    @property
    def fourcc(self) -> str:
        return PIXEL_FORMATS[self.pixel_format][0]

    @property
    def data(self) -> memoryview:
        """The pixel bytes as they came, padding included."""
        return memoryview(self.message)[FRAME_DATA_OFFSET: len(self.message) - 4]


def frame_total(head: bytes) -> int:
    """Checks the first 8 bytes of a frame message and returns its total length."""
    magic, total = struct.unpack("<2I", head)
    if magic != MAGIC:
        raise ProtocolError(f"expected frame magic {MAGIC:#010x} on the stream socket, got {magic:#010x}")
    if total < FRAME_OVERHEAD or total > LARGEST_FRAME:
        raise ProtocolError(f"implausible frame length {total}")
    return total


def unpack_frame(message: bytes | bytearray) -> Frame:
    """Verifies a whole frame message and returns it with its pixels shaped: GREY as
    height x width, RGB3 as height x width x 3; rows the driver padded are cut to the width."""
    total = frame_total(bytes(message[:8]))
    if total != len(message):
        raise ProtocolError(f"frame says {total} bytes, {len(message)} arrived")
    metadata, data = word(message, 2216), word(message, 2236)
    if metadata != FRAME_METADATA_ID or data != FRAME_DATA_ID:
        raise ProtocolError(f"expected sub-containers {FRAME_METADATA_ID:#010x}/{FRAME_DATA_ID:#010x}, got {metadata:#010x}/{data:#010x}")
    n = total - FRAME_OVERHEAD
    if word(message, 2240) != n + 8:
        raise ProtocolError(f"data length field {word(message, 2240)} for {n} data bytes (expected {n + 8})")
    width, height, pixel_format = struct.unpack_from("<3I", message, 2224)
    if pixel_format not in PIXEL_FORMATS:
        raise ProtocolError(f"unknown pixel format {pixel_format}")
    stored = word(message, total - 4)
    computed = crc32(memoryview(message)[: total - 4])
    if stored != computed:
        raise ChecksumError(f"frame checksum {stored:#010x} but its content gives {computed:#010x}")
    flat = np.frombuffer(message, np.uint8, n, FRAME_DATA_OFFSET)
    bpp = PIXEL_FORMATS[pixel_format][1]
    pixels = flat
    if bpp and height:
        row = width * bpp
        stride = n // height
        if stride < row:
            raise ProtocolError(f"{n} data bytes cannot hold {height} rows of {width} {PIXEL_FORMATS[pixel_format][0]} pixels")
        pixels = flat[: stride * height].reshape(height, stride)[:, :row]
        pixels = pixels.reshape(height, width) if bpp == 1 else pixels.reshape(height, width, bpp)
    return Frame(width, height, pixel_format, stored, message, pixels)


def parse_distance_matrix(reply: str) -> list[list[int]]:
    """The ToF reply: rows ended by ".:.", zones separated by tabs, padded with blanks."""
    rows = [[int(v) for v in row.split("\t") if v.strip()] for row in reply.split(".:.")]
    return [row for row in rows if row]
