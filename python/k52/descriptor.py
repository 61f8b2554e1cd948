"""The XML descriptor and the route help, parsed into plain data."""
from __future__ import annotations

import re
import xml.etree.ElementTree as ElementTree
from dataclasses import dataclass, field

from .errors import ProtocolError

_ESCAPED = re.compile(r"(?:_x[0-9A-F]{2}_)+")


def unescape_name(element: str) -> str:
    """Reverses the escaping of names that cannot be XML elements ("a_x26_b.pgm" is "a&b.pgm")."""
    return _ESCAPED.sub(lambda m: bytes(int(m.group(0)[i + 2: i + 4], 16) for i in range(0, len(m.group(0)), 5))
                        .decode("utf-8", "surrogateescape"), element)


@dataclass
class Argument:
    name: str
    description: str
    type: str                      # "numerical" or "categorical"
    count: int                     # words it takes; -1: all remaining
    limits: str | None = None      # "0..5" for numbers, "RGB3|GREY" for choices
    default: str | None = None

    @property
    def numerical(self) -> bool:
        return self.type == "numerical"

    @property
    def choices(self) -> list[str]:
        return self.limits.split("|") if self.limits and not self.numerical else []


@dataclass
class Route:
    name: str
    help: str
    arguments: list[Argument] = field(default_factory=list)


@dataclass
class Descriptor:
    """What GetXmlDescriptor publishes: factory data, V4L2 formats, routes, device status."""

    document: str
    factory: dict[str, str]
    static_files: list[str]
    formats: dict[str, list[tuple[int, int]]]   # fourcc -> resolutions by index (width, height)
    routes: dict[str, Route]
    imx: dict[str, str]
    rtu: dict[str, str]
    io: list[dict[str, str]]


def parse_descriptor(document: str) -> Descriptor:
    try:
        root = ElementTree.fromstring(document)
    except ElementTree.ParseError as error:
        raise ProtocolError(f"descriptor is not well-formed XML: {error}") from None
    factory = root.find("factory")
    status = root.find("settings/status")
    if factory is None or status is None:
        raise ProtocolError("descriptor lacks /device/factory or /device/settings/status")
    formats = {}
    for fmt in factory.findall("v4l2/formats/*"):
        if fmt.tag == "count":
            continue
        sizes = sorted((int(r.tag.removeprefix("index-")), int(r.findtext("width", "0")), int(r.findtext("height", "0")))
                       for r in fmt.findall("resolutions/*"))
        formats[unescape_name(fmt.tag)] = [(w, h) for _, w, h in sizes]
    routes = {}
    for node in status:
        if node.tag in ("imx", "rtu"):
            continue
        routes[node.tag] = Route(node.tag, node.findtext("help", ""), [
            Argument(p.findtext("name", ""), p.findtext("description", ""), p.findtext("type", ""),
                     int(p.findtext("count", "1")))
            for p in node.findall("parameter")])
    rtu = status.find("rtu")
    return Descriptor(
        document,
        {child.tag: child.text or "" for child in factory if len(child) == 0},
        [unescape_name(child.tag) for child in factory.findall("static-files/*")],
        formats,
        routes,
        {child.tag: child.text or "" for child in status.findall("imx/*")},
        {child.tag: child.text or "" for child in (rtu if rtu is not None else []) if child.tag != "io"},
        [dict(io.attrib) for io in status.findall("rtu/io")],
    )


# "name: description [a numerical value (0..5), default 0, count 1]"
_ARGUMENT = re.compile(r"(?:^|; )(\w+): (.*?) \[an? (\w+) value(?: \(([^)]*)\))?(?:, default ([^,\]]*))?, count (-?\d+)\]")


def parse_route_help(reply: str) -> Route:
    """Parses the reply of "help ROUTE" ("ROUTE - HELP; arg: description [...]; ...")."""
    name, sep, rest = reply.partition(" - ")
    if not sep or not name or " " in name:
        raise ProtocolError(f"expected 'ROUTE - help' from the help route, got {reply!r}")
    found = list(_ARGUMENT.finditer(rest))
    help_text = rest[: found[0].start()] if found else rest
    return Route(name, help_text, [Argument(m[1], m[2], m[3], int(m[6]), m[4], m[5]) for m in found])
