"""The console's asyncio connection to the daemon: one control connection shared by every
page, frames from the stream socket for the page that started a stream."""
from __future__ import annotations

import asyncio
import re
import time
from typing import Awaitable, Callable

import numpy as np

from .. import wire
from ..descriptor import Descriptor, Route, parse_descriptor, parse_route_help
from ..errors import ConnectionClosed, ControlSocketBusy, DaemonUnavailable, K52Error, ProtocolError
from ..wire import Notice

NUMBER = re.compile(r"[+-]?\d+\Z")
STREAM_SETTLE = 0.3     # the daemon accepts a stream client within about 200 ms
STOP_GRACE = 1.0        # a single-worker daemon cannot run the stop while streaming
QUIET = 0.5             # no frame for this long: the daemon has stopped sending


async def _open(host: str, port: int, timeout: float):
    try:
        return await asyncio.wait_for(asyncio.open_connection(host, port), timeout)
    except (ConnectionRefusedError, OSError, asyncio.TimeoutError) as error:
        reason = "nothing listens there" if isinstance(error, ConnectionRefusedError) else str(error) or "timed out"
        raise DaemonUnavailable(f"no daemon at {host}:{port} ({reason}); is k52app running?") from None


def build_command(route: Route, values: list[str]) -> str:
    """The command line for a route's form, refusing what the daemon would refuse or misread."""
    words = [route.name]
    missing = None
    for argument, value in zip(route.arguments, values + [""] * len(route.arguments)):
        given = str(value).split()
        if not given:
            missing = missing or argument.name
            continue
        if missing:
            raise ValueError(f"{route.name}: '{argument.name}' is given but '{missing}' before it is empty")
        if argument.count > 0 and len(given) != argument.count:
            raise ValueError(f"{route.name}: '{argument.name}' takes {argument.count} value(s), got {len(given)}")
        for word in given:
            if argument.numerical and not NUMBER.match(word):
                raise ValueError(f"{route.name}: '{argument.name}' expects a whole number, got '{word}'")
            if not argument.numerical and argument.choices and word not in argument.choices:
                raise ValueError(f"{route.name}: '{argument.name}' is one of {', '.join(argument.choices)}, got '{word}'")
        words += given
    return " ".join(words)


class Link:
    """Commands are serialized; notices go to every listener; frames to one consumer."""

    def __init__(self, host: str, control_port: int, stream_port: int, timeout: float = 5.0) -> None:
        self.host, self.control_port, self.stream_port, self.timeout = host, control_port, stream_port, timeout
        self.listeners: set[Callable[[dict], Awaitable[None]]] = set()
        self.descriptor: Descriptor | None = None
        self.routes: dict[str, Route] = {}
        self._writer: asyncio.StreamWriter | None = None
        self._reader_task: asyncio.Task | None = None
        self._lock = asyncio.Lock()
        self._connecting = asyncio.Lock()
        self._ack: asyncio.Future | None = None
        self._document: str | None = None
        self._answered = False
        self._late = 0               # acknowledgements still owed to commands that timed out
        self._stream_over: asyncio.Event | None = None
        self.streaming = False
        self._frame_count = 0

    @property
    def connected(self) -> bool:
        return self._writer is not None

    async def publish(self, event: dict) -> None:
        for listener in list(self.listeners):
            await listener(event)

    # -- control socket --------------------------------------------------------------------

    async def connect(self, probe: float = 2.0) -> None:
        """Connects and reads the descriptor and the help of every route. Raises
        DaemonUnavailable or ControlSocketBusy with a sentence for the page."""
        # A second page opening meanwhile waits for the descriptor instead of finding none.
        async with self._connecting:
            if self.connected:
                return
            await self._open_control()
            try:
                self.descriptor = await self.fetch_descriptor(probe)
            except asyncio.TimeoutError:
                await self.disconnect()
                raise ControlSocketBusy(
                    f"the daemon at {self.host}:{self.control_port} does not answer: another client holds "
                    "its control socket (it serves one at a time). Close that client, then reconnect.") from None
            except BaseException:
                await self.disconnect()
                raise
            routes = {}
            for name in self.descriptor.routes:
                ack = await self.command(f"help {name}")
                routes[name] = parse_route_help(ack.reply) if ack.ok else self.descriptor.routes[name]
            self.routes = routes

    async def _open_control(self) -> None:
        reader, self._writer = await _open(self.host, self.control_port, self.timeout)
        self._answered = False
        self._late = 0
        self._reader_task = asyncio.create_task(self._read_control(reader))

    async def disconnect(self) -> None:
        writer, self._writer = self._writer, None
        if writer:
            writer.close()
        if self._reader_task:
            self._reader_task.cancel()
            self._reader_task = None

    async def _read_control(self, reader: asyncio.StreamReader) -> None:
        reason = "the daemon closed the control connection"
        try:
            while True:
                head = await reader.readexactly(wire.HEADER_SIZE)
                self._answered = True
                kind, total = wire.parse_header(head)
                size = wire.XML_MESSAGE_SIZE if kind == wire.XML_KIND else total
                message = head + await reader.readexactly(size - wire.HEADER_SIZE)
                if kind == wire.XML_KIND:
                    self._document = wire.unpack_descriptor(message)
                    continue
                await self._dispatch(wire.unpack_notice(message))
        except asyncio.CancelledError:
            return
        except asyncio.IncompleteReadError:
            pass
        except (K52Error, OSError) as error:
            reason = f"control connection dropped: {error}"
        self._writer = None
        self._reader_task = None
        if self._ack and not self._ack.done():
            self._ack.set_exception(K52Error(reason))
        await self.publish({"type": "disconnected", "text": reason})

    async def _dispatch(self, notice: Notice) -> None:
        if notice.is_acknowledgement and notice.reply.startswith("CaptureStart"):
            # the stream's own answer, sent when its loop has ended
            if self._stream_over:
                self._stream_over.set()
        elif notice.is_acknowledgement and not notice.reply.startswith("CaptureStreamStop: "):
            if self._late:
                self._late -= 1
            elif self._ack and not self._ack.done():
                self._ack.set_result(notice)
                return
        await self.publish({"type": "notice", "time": notice.time, "color": notice.color_hex,
                            "message": notice.message})

    def send(self, command: str) -> None:
        if not self._writer:
            raise DaemonUnavailable("not connected to the daemon")
        self._writer.write(command.encode() + b"\r")

    async def command(self, command: str, timeout: float | None = None) -> Notice:
        async with self._lock:
            self._ack = asyncio.get_running_loop().create_future()
            self.send(command)
            try:
                return await asyncio.wait_for(asyncio.shield(self._ack), timeout or self.timeout)
            except asyncio.TimeoutError:
                if not self._answered:
                    raise
                self._late += 1
                raise K52Error(f"no acknowledgement of '{command}' within {timeout or self.timeout:g} s"
                               + (" (the daemon is busy with the stream)" if self.streaming else "")) from None
            finally:
                self._ack = None

    async def fetch_descriptor(self, timeout: float | None = None) -> Descriptor:
        self._document = None
        ack = await self.command("GetXmlDescriptor", timeout)
        if self._document is None:
            raise ProtocolError(f"expected the XML descriptor before the acknowledgement, got: {ack.message}")
        return parse_descriptor(self._document)

    # -- stream socket ---------------------------------------------------------------------

    async def stream(self, fourcc: str, index: int, on_frame: Callable[[dict], None],
                     stopping: asyncio.Event) -> str:
        """Streams until `stopping` is set or the stream ends; calls on_frame with each verified
        frame. Always leaves the daemon without a running stream; returns how it ended."""
        if self.streaming:
            raise K52Error("a stream is already running")
        reader, writer = await _open(self.host, self.stream_port, self.timeout)
        self.streaming = True
        self._stream_over = asyncio.Event()
        ending = "stream stopped"
        try:
            await asyncio.sleep(STREAM_SETTLE)
            self.send(f"CaptureStreamStart {fourcc} {index}")
            frames = asyncio.create_task(self._frames(reader, on_frame))
            stop = asyncio.create_task(stopping.wait())
            over = asyncio.create_task(self._stream_over.wait())
            done, _ = await asyncio.wait({frames, stop, over}, return_when=asyncio.FIRST_COMPLETED)
            if frames in done and frames.exception():
                ending = f"stream ended: {frames.exception()}"
            elif over in done:
                ending = "stream ended by the daemon"
            if not self._stream_over.is_set() and self.connected:
                self.send("CaptureStreamStop")
                try:
                    await asyncio.wait_for(self._stream_over.wait(), STOP_GRACE)
                except asyncio.TimeoutError:
                    # Leaving the control socket ends the stream; come back once it has.
                    await self.disconnect()
                    ending += " (by leaving the control socket)"
            for task in (stop, over):
                task.cancel()
            if not frames.done():
                # Read what is still on its way: leaving mid-frame ends the stream in an error.
                try:
                    await asyncio.wait_for(self._drain(frames), 10)
                except asyncio.TimeoutError:
                    frames.cancel()
        finally:
            writer.close()
            self.streaming = False
            self._stream_over = None
        if not self.connected:
            await self._open_control()
        return ending

    async def _drain(self, frames: asyncio.Task) -> None:
        while not frames.done():
            count = self._frame_count
            await asyncio.sleep(QUIET)
            if self._frame_count == count:
                frames.cancel()

    async def _frames(self, reader: asyncio.StreamReader, on_frame: Callable[[dict], None]) -> None:
        self._frame_count = 0
        while True:
            try:
                head = await reader.readexactly(8)
            except asyncio.IncompleteReadError:
                raise ConnectionClosed("the daemon closed the stream connection") from None
            arrived = time.time()
            total = wire.frame_total(head)
            frame = wire.unpack_frame(head + await reader.readexactly(total - 8))
            self._frame_count += 1
            pixels = np.ascontiguousarray(frame.pixels)
            on_frame({"frame": frame, "pixels": pixels, "arrived": arrived, "bytes": total})
