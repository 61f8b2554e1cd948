#!/usr/bin/env python3
"""Writes the sample static frames served by a camera without a sensor.

Usage: tools/make-static-frames.py [output directory]   (default: etc/static-frames)

The frames are binary PGM (grey) and PPM (RGB) with 8-bit samples. Each pattern makes a
different fault visible: the gradient shows swapped or shifted rows, the checkerboard (at the
sensor's full 1456x1088) shows a wrong stride, the colour bars show swapped channels.
"""

import os
import sys


def write_image(path, magic, width, height, pixels):
    with open(path, "wb") as out:
        out.write(b"%s\n%d %d\n255\n" % (magic, width, height))
        out.write(pixels)


def gradient(width, height):
    # Horizontal ramp plus a vertical one, so every row differs from its neighbours.
    span = width + height - 2
    return bytes((x + y) * 255 // span for y in range(height) for x in range(width))


def checkerboard(width, height, square):
    row_a = bytes(255 if (x // square) % 2 == 0 else 0 for x in range(width))
    row_b = bytes(255 - v for v in row_a)
    return b"".join(row_a if (y // square) % 2 == 0 else row_b for y in range(height))


def colour_bars(width, height):
    bars = [(255, 255, 255), (255, 255, 0), (0, 255, 255), (0, 255, 0),
            (255, 0, 255), (255, 0, 0), (0, 0, 255), (0, 0, 0)]
    row = b"".join(bytes(bars[x * len(bars) // width]) for x in range(width))
    return row * height


def main():
    directory = sys.argv[1] if len(sys.argv) > 1 else "etc/static-frames"
    os.makedirs(directory, exist_ok=True)
    write_image(os.path.join(directory, "gradient-640x480.pgm"), b"P5", 640, 480,
                gradient(640, 480))
    write_image(os.path.join(directory, "checkerboard-1456x1088.pgm"), b"P5", 1456, 1088,
                checkerboard(1456, 1088, 64))
    write_image(os.path.join(directory, "colourbars-320x240.ppm"), b"P6", 320, 240,
                colour_bars(320, 240))


if __name__ == "__main__":
    main()
