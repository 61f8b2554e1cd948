"""Blocking clients of the daemon's two sockets."""
from __future__ import annotations

import collections
import select
import socket
import time
from typing import Callable, Iterator, Self

from . import wire
from .descriptor import Descriptor, Route, parse_descriptor, parse_route_help
from .errors import (CommandTimeout, ConnectionClosed, ControlSocketBusy, DaemonUnavailable,
                     K52Error, ProtocolError)
from .wire import Frame, Notice

DEFAULT_HOST = "127.0.0.1"
CONTROL_PORT = 4460
STREAM_PORT = 4461


def _connect(host: str, port: int, timeout: float) -> socket.socket:
    try:
        sock = socket.create_connection((host, port), timeout=timeout)
    except ConnectionRefusedError:
        raise DaemonUnavailable(f"no daemon listens at {host}:{port} (is k52app running?)") from None
    except OSError as error:
        raise DaemonUnavailable(f"cannot connect to {host}:{port}: {error}") from None
    sock.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
    return sock


def _read_exactly(sock: socket.socket, n: int, deadline: float, what: str) -> bytearray:
    data = bytearray(n)
    view = memoryview(data)
    got = 0
    while got < n:
        left = deadline - time.monotonic()
        if left <= 0:
            raise TimeoutError(f"timed out after {got} of {n} bytes of {what}")
        sock.settimeout(left)
        try:
            k = sock.recv_into(view[got:])
        except socket.timeout:
            raise TimeoutError(f"timed out after {got} of {n} bytes of {what}") from None
        except ConnectionResetError:
            k = 0
        if k == 0:
            raise ConnectionClosed(f"the daemon closed the connection after {got} of {n} bytes of {what}")
        got += k
    return data


class _Endpoint:
    """One connected socket of the daemon's, closed on leaving a with block."""

    _sock: socket.socket

    def __enter__(self) -> Self:
        return self

    def __exit__(self, *exc) -> None:
        self.close()

    def close(self) -> None:
        self._sock.close()

    def fileno(self) -> int:
        return self._sock.fileno()


class Control(_Endpoint):
    """The control socket: commands out, acknowledgements and notices in.

    Unsolicited notices (stream progress, button edges) that arrive while waiting for an
    acknowledgement are kept for notices() and handed to on_notice when it is set."""

    def __init__(self, host: str = DEFAULT_HOST, port: int = CONTROL_PORT, timeout: float = 5.0,
                 on_notice: Callable[[Notice], None] | None = None) -> None:
        self.host, self.port, self.timeout = host, port, timeout
        self.on_notice = on_notice
        self.pending: collections.deque[Notice] = collections.deque()
        self._answered = False  # the daemon has sent something: it accepted us
        self._sock = _connect(host, port, timeout)

    def send(self, command: str) -> None:
        """Sends one command without waiting; only the text before a carriage return counts."""
        if "\r" in command or "\n" in command:
            raise ValueError(f"a command is one line, got {command!r}")
        self._sock.sendall(command.encode() + b"\r")

    def _read_message(self, timeout: float | None) -> tuple[int, bytearray]:
        deadline = time.monotonic() + (self.timeout if timeout is None else timeout)
        try:
            head = _read_exactly(self._sock, wire.HEADER_SIZE, deadline, "a message header")
        except TimeoutError:
            if not self._answered:
                raise ControlSocketBusy(
                    f"{self.host}:{self.port} accepted the connection but has not answered: "
                    "another client holds the control socket (the daemon serves one at a time)") from None
            raise
        self._answered = True
        kind, total = wire.parse_header(bytes(head))
        # The descriptor message always has its fixed size, its header gives the used part.
        size = wire.XML_MESSAGE_SIZE if kind == wire.XML_KIND else total
        return kind, head + _read_exactly(self._sock, size - wire.HEADER_SIZE, deadline, "a message")

    def read_notice(self, timeout: float | None = None) -> Notice:
        """The next notice: a queued one first, then from the socket."""
        if self.pending:
            return self.pending.popleft()
        return self._receive_notice(timeout)

    def _receive_notice(self, timeout: float | None = None) -> Notice:
        kind, message = self._read_message(timeout)
        if kind != wire.NOTICE_KIND:
            raise ProtocolError(f"expected a notice, got a message of kind {kind:#010x}")
        return wire.unpack_notice(bytes(message))

    def _keep(self, notice: Notice) -> None:
        self.pending.append(notice)
        if self.on_notice:
            self.on_notice(notice)

    def command(self, command: str, timeout: float | None = None) -> Notice:
        """Sends a command and returns its acknowledgement (status, reply, colour)."""
        ack, _ = self._exchange(command, timeout)
        return ack

    def _exchange(self, command: str, timeout: float | None) -> tuple[Notice, str | None]:
        self.send(command)
        deadline = time.monotonic() + (self.timeout if timeout is None else timeout)
        document = None
        while True:
            try:
                kind, message = self._read_message(max(0.0, deadline - time.monotonic()))
            except TimeoutError:
                raise CommandTimeout(f"no acknowledgement of {command!r} within {self.timeout if timeout is None else timeout} s") from None
            if kind == wire.XML_KIND:
                document = wire.unpack_descriptor(bytes(message))
                continue
            notice = wire.unpack_notice(bytes(message))
            if notice.is_acknowledgement:
                return notice, document
            self._keep(notice)

    def notices(self, timeout: float | None = None) -> Iterator[Notice]:
        """Yields notices as they arrive; stops when none came for `timeout` seconds
        (never, when timeout is None)."""
        while True:
            try:
                yield self.read_notice(timeout if timeout is not None else 3600.0)
            except (TimeoutError, ControlSocketBusy):
                if timeout is not None:
                    return

    def descriptor(self, timeout: float | None = None) -> Descriptor:
        """Fetches, verifies and parses the XML descriptor."""
        ack, document = self._exchange("GetXmlDescriptor", timeout)
        if document is None:
            raise K52Error(f"expected the XML descriptor before the acknowledgement, got only: {ack.message}")
        return parse_descriptor(document)

    def route_help(self, route: str) -> Route:
        """The help of one route, with its arguments' limits and defaults."""
        ack = self.command(f"help {route}")
        if not ack.ok:
            raise K52Error(f"help {route}: {ack.message}")
        return parse_route_help(ack.reply)


class FrameStream(_Endpoint):
    """The stream socket: verified frames, as they come.

    The daemon accepts a stream client on its own schedule and does not say so; `settle`
    seconds after connecting it is ready for frames."""

    def __init__(self, host: str = DEFAULT_HOST, port: int = STREAM_PORT, timeout: float = 5.0,
                 settle: float = 0.3) -> None:
        self.timeout = timeout
        self._sock = _connect(host, port, timeout)
        time.sleep(settle)

    def next(self, timeout: float | None = None) -> Frame:
        """Reads and verifies the next frame (each in its own buffer, so earlier arrays stay valid)."""
        deadline = time.monotonic() + (self.timeout if timeout is None else timeout)
        head = _read_exactly(self._sock, 8, deadline, "a frame header")
        total = wire.frame_total(bytes(head))
        return wire.unpack_frame(head + _read_exactly(self._sock, total - 8, deadline, "a frame"))

    def __iter__(self) -> Iterator[Frame]:
        while True:
            yield self.next()

    def drain(self, quiet: float = 0.5) -> int:
        """Reads the frames still on their way until none came for `quiet` seconds."""
        count = 0
        while select.select([self._sock], [], [], quiet)[0]:
            try:
                self.next()
            except ConnectionClosed:
                break
            count += 1
        return count


def stop_stream(control: Control, stream: FrameStream, grace: float = 1.0) -> Notice | None:
    """Stops a stream started with CaptureStreamStart and returns its final acknowledgement.

    A daemon with a single worker cannot run the stop while the stream holds it, so when the
    stream's acknowledgement has not come within `grace` seconds this leaves the control socket
    (which ends the stream) and returns None; `control` is closed then. Frames still on their
    way are read first either way: leaving the stream socket mid-frame ends the stream in an
    error that the next control client would be told about."""
    control.send("CaptureStreamStop")
    deadline = time.monotonic() + grace
    while (left := deadline - time.monotonic()) > 0:
        ready = select.select([control, stream], [], [], left)[0]
        if stream in ready:
            stream.next()
        if control in ready:
            notice = control._receive_notice()
            if notice.is_acknowledgement and not notice.reply.startswith("CaptureStreamStop: "):
                stream.drain(0.1)
                return notice
            if not notice.is_acknowledgement:
                control._keep(notice)
    control.close()
    stream.drain()
    return None
