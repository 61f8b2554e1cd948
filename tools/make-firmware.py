#!/usr/bin/env python3
"""Writes the placeholder firmware image that the emulated smart sensor accepts.

Layout (little-endian): 8-byte magic "K52SSFW1", u32 payload length, u32 CRC-32 of the payload
(zlib.crc32), then the payload: a deterministic pseudo-random byte pattern, so the image is the
same on every machine and a corrupted upload is detectable.
"""
import argparse
import struct
import zlib

MAGIC = b"K52SSFW1"


def payload(length: int) -> bytes:
    state = 0x4B3532  # any fixed seed; changing it changes the committed image
    out = bytearray()
    for _ in range(length):
        state = (state * 1103515245 + 12345) & 0xFFFFFFFF
        out.append(state >> 24)
    return bytes(out)


def image(length: int) -> bytes:
    body = payload(length)
    return MAGIC + struct.pack("<II", len(body), zlib.crc32(body)) + body


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("output", nargs="?", default="etc/firmware/smartsensor.bin")
    parser.add_argument("--length", type=int, default=4096, help="payload bytes (default 4096)")
    args = parser.parse_args()
    with open(args.output, "wb") as f:
        f.write(image(args.length))


if __name__ == "__main__":
    main()
