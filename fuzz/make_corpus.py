#!/usr/bin/python3
"""Writes the seed corpus of every fuzz target under OUTDIR/<target>/ and the route dictionary
OUTDIR/command.dict. Commands come from docs/routes.md (each route bare, with sample values for
its arguments and with out-of-range ones); the wire messages are built here as the daemon frames
them (docs/protocol.md), checksums by zlib.

Usage: fuzz/make_corpus.py OUTDIR
"""
import hashlib
import os
import re
import shutil
import struct
import sys
import zlib

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))


def route_commands():
    text = open(os.path.join(ROOT, "docs/routes.md")).read()
    for section in text.split("\n## ")[1:]:
        name = section.split("\n", 1)[0].strip()
        rows = re.findall(r"^\| `([^`]+)` \|.*\| (\w+) \| ([^|]*)\| ([^|]*)\| ([^|]*)\|$", section, re.M)
        samples, extremes = [], []
        for _arg, kind, limits, _default, count in rows:
            choices = re.findall(r"`([^`]+)`", limits)
            value = choices[0] if choices else ("1" if kind == "numerical" else "x")
            words = 4 if "remaining" in count else 1
            samples += [value] * words
            extremes += [choices[-1] if choices else "-2147483648"] * words
        yield name
        if samples:
            yield " ".join([name] + samples)
            yield " ".join([name] + extremes)
            yield " ".join([name] + samples + ["extra"])
        yield "help " + name


def notice_frame(text):
    payload = text.encode() + b"\0"
    head = struct.pack("<4I", 0x0510FFFF, 20 + len(payload), 0x052A1001, 8 + len(payload))
    body = head + payload
    return body + struct.pack("<I", zlib.crc32(body))


def frame_message(width, height, pixel_format, bpp):
    pixels = bytes((i * 7) & 0xFF for i in range(width * height * bpp))
    body = struct.pack("<2I", 0x0510FFFF, 2248 + len(pixels)) + bytes(2144 + 64)
    body += struct.pack("<5I", 0x051A0801, 20, width, height, pixel_format)
    body += struct.pack("<2I", 0x051A0601, len(pixels) + 8) + pixels
    return body + struct.pack("<I", zlib.crc32(body))


SAMPLE_XML = ('<?xml version="1.0" encoding="UTF-8"?>\n<k52app><factory><name>k52</name>'
              '<static-files><gradient-640x480.pgm>640x480</gradient-640x480.pgm></static-files>'
              '</factory><settings><status><imx><exposure>1000</exposure></imx><rtu><fps>30</fps>'
              '</rtu></status></settings></k52app>')


def descriptor_used_part(document):
    payload = document.encode() + b"\0"
    used = 16 + len(payload) + 4
    body = struct.pack("<4I", 0x0510FFFF, used, 0x052A0201, used - 12) + payload
    return body + struct.pack("<I", zlib.crc32(body))


def main():
    out = sys.argv[1]
    seeds = {name: [] for name in ("command_fuzzer", "config_fuzzer", "xmlblock_fuzzer",
                                   "ackframe_fuzzer", "framemessage_fuzzer", "descriptor_fuzzer")}
    commands = list(route_commands())
    seeds["command_fuzzer"] = [c.encode() + b"\r" for c in commands + ["help", "Nope 1"]]
    for conf in sorted(os.listdir(os.path.join(ROOT, "etc"))):
        if conf.endswith(".conf"):
            seeds["config_fuzzer"].append(open(os.path.join(ROOT, "etc", conf), "rb").read())
    seeds["config_fuzzer"].append(b"platform=emulated\nsocket-ctrl=1\n# note\n  key = a b \n=x\nk=\n")
    seeds["xmlblock_fuzzer"] = [SAMPLE_XML.encode(), b"", b"<k52app/>", b"<a><b>t</b></a><!-- c -->"]
    seeds["ackframe_fuzzer"] = [notice_frame(t) for t in (
        "<font color=#121212>[26-11-22 21:10:05] k52app-v1.3.1@camera <\\font>"
        "<font color=#788a3d>OK : GetRTUFPS: RTU FPS: 30<\\font>",
        "<font color=#121212>[26-11-22 21:10:05] k52app-v1.3.1@unknown-host <\\font>"
        "<font color=#3b65e3>Benchmark = '29.9' FPS<\\font>",
        "<font color=#121212>[26-11-22 21:10:05] k52app-v1.3.1@camera <\\font>"
        "<font color=#c81919>Error : Success : Unknown route 'Nope'.<\\font>",
        "")]
    seeds["framemessage_fuzzer"] = [frame_message(4, 2, 1, 1), frame_message(3, 2, 7, 3),
                                    frame_message(0, 0, 9, 1)]
    seeds["descriptor_fuzzer"] = [descriptor_used_part(SAMPLE_XML), descriptor_used_part("")]
    for target, inputs in seeds.items():
        directory = os.path.join(out, target)
        shutil.rmtree(directory, ignore_errors=True)
        os.makedirs(directory)
        for data in inputs:
            with open(os.path.join(directory, hashlib.sha1(data).hexdigest()), "wb") as f:
                f.write(data)
    with open(os.path.join(out, "command.dict"), "w") as f:
        names = sorted({c.split()[0] for c in commands} | {"help"})
        f.writelines(f'"{n}"\n' for n in names)
    print(f"corpus: {sum(len(v) for v in seeds.values())} seeds, {len(commands)} commands from docs/routes.md")


if __name__ == "__main__":
    main()
