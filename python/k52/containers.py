"""The two container files, mapped read-only and verified."""
from __future__ import annotations

import mmap
import os
from dataclasses import dataclass, field

from . import wire
from .errors import DaemonUnavailable

XML_CONTAINER = "k52XMLContainer"
GENERAL_CONTAINER = "k52generalContainer"
DEFAULT_DIRECTORY = "/tmp/k52app-emulated/"


@dataclass
class ContainerReport:
    path: str
    file_size: int
    identifier: int = 0
    size: int = 0
    stored_crc: int = 0
    computed_crc: int = 0
    sub_containers: list[tuple[int, int, int]] = field(default_factory=list)  # offset, id, size
    problems: list[str] = field(default_factory=list)

    @property
    def ok(self) -> bool:
        return not self.problems


def check_container(path: str) -> ContainerReport:
    """Checks framing (magic, size word, sub-containers) and checksum of one container file.
    A checksum mismatch can mean the daemon was writing: check again."""
    try:
        with open(path, "rb") as file:
            size = os.fstat(file.fileno()).st_size
            if size < 12:
                return ContainerReport(path, size, problems=[f"file too small for a container ({size} bytes)"])
            with mmap.mmap(file.fileno(), 0, access=mmap.ACCESS_READ) as data:
                return _inspect(path, data)
    except FileNotFoundError:
        raise DaemonUnavailable(f"no container at {path}: the daemon is not running with this container-path") from None


def _inspect(path: str, data: mmap.mmap) -> ContainerReport:
    report = ContainerReport(path, len(data), wire.word(data, 0), wire.word(data, 4))
    if report.identifier != wire.MAGIC:
        report.problems.append(f"identifier {report.identifier:#010x}, expected {wire.MAGIC:#010x}")
    # After a frame snapshot the size word covers only the used part; the checksum follows it.
    if not 12 <= report.size <= len(data):
        report.problems.append(f"size word {report.size} but the file has {len(data)} bytes")
        return report
    end = report.size - 4
    report.stored_crc = wire.word(data, end)
    with memoryview(data) as view:
        report.computed_crc = wire.crc32(view[:end])
    if report.stored_crc != report.computed_crc:
        report.problems.append(f"checksum {report.stored_crc:#010x} but the content gives {report.computed_crc:#010x}")
    offset = 8
    while offset + 8 <= end:
        identifier, size = wire.word(data, offset), wire.word(data, offset + 4)
        report.sub_containers.append((offset, identifier, size))
        if size < 8 or offset + size > end:
            report.problems.append(f"sub-container at {offset} ({size} bytes) overruns the container")
            break
        offset += size
    return report


def check_containers(directory: str = DEFAULT_DIRECTORY) -> list[ContainerReport]:
    """Both container files of the daemon whose container-path is `directory`."""
    return [check_container(os.path.join(directory, name)) for name in (XML_CONTAINER, GENERAL_CONTAINER)]
