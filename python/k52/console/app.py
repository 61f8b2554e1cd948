"""k52console: the camera in a browser. One page: live stream, route forms, notices, ToF heat
map, device status and a container check, all through one WebSocket per page."""
from __future__ import annotations

import argparse
import asyncio
import json
import logging
import struct
import sys
import time
from pathlib import Path

from aiohttp import WSMsgType, web

from ..client import CONTROL_PORT, DEFAULT_HOST, STREAM_PORT
from ..containers import DEFAULT_DIRECTORY, check_containers
from ..errors import K52Error
from ..wire import parse_distance_matrix
from .link import Link, build_command

STATIC = Path(__file__).with_name("static")
DEFAULT_PORT = 8452
# binary frame message: id, width, height, channels, arrival time (ms since the epoch)
FRAME_HEADER = struct.Struct("<4Id")


def _describe(link: Link) -> dict:
    d = link.descriptor
    return {
        "type": "state",
        "address": f"{link.host}:{link.control_port}",
        "formats": d.formats,
        "routes": [{"name": r.name, "help": r.help, "arguments": [
            {"name": a.name, "description": a.description, "numerical": a.numerical, "count": a.count,
             "limits": a.limits, "default": a.default, "choices": a.choices} for a in r.arguments]}
            for r in link.routes.values()],
        "status": {"factory": d.factory, "imx": d.imx, "rtu": d.rtu},
    }


class Page:
    """One browser tab: its WebSocket, and the stream it started."""

    def __init__(self, link: Link, ws: web.WebSocketResponse, container_dir: str) -> None:
        self.link, self.ws, self.container_dir = link, ws, container_dir
        self.stopping: asyncio.Event | None = None
        self.stream_task: asyncio.Task | None = None
        self.in_flight = False      # a frame sent and not yet drawn: newer ones are dropped
        self.latest: dict | None = None
        self.frame_id = 0
        self.window: list[tuple[float, int]] = []

    async def send(self, event: dict) -> None:
        if not self.ws.closed:
            try:
                await self.ws.send_json(event)
            except ConnectionError:
                pass

    async def error(self, text: str) -> None:
        await self.send({"type": "error", "text": text})

    async def run(self, request: dict) -> None:
        try:
            await self.handle(request)
        except (K52Error, OSError) as error:
            await self.error(str(error))

    async def handle(self, request: dict) -> None:
        op = request.get("op")
        if op == "connect":
            try:
                await self.link.connect()
            except K52Error as error:
                return await self.error(str(error))
            await self.send(_describe(self.link))
        elif op == "command":
            route = self.link.routes.get(request.get("route"))
            if route is None:
                return await self.error(f"unknown route {request.get('route')!r}")
            try:
                command = build_command(route, [str(v) for v in request.get("values", [])])
            except ValueError as error:
                return await self.send({"type": "reply", "route": route.name, "status": "refused",
                                        "color": "#c81919", "message": f"not sent: {error}"})
            ack = await self.link.command(command)
            await self.send({"type": "reply", "route": route.name, "command": command,
                             "status": ack.status, "color": ack.color_hex, "message": ack.message})
        elif op == "start":
            await self.start(str(request.get("fourcc")), request.get("index"))
        elif op == "stop":
            if self.stopping:
                self.stopping.set()
        elif op == "drawn":
            self.in_flight = False
            await self.push()
        elif op == "tof":
            ack = await self.link.command("ToFGetDistanceMatrix")
            if not ack.ok:
                return await self.error(f"ToF: {ack.message}")
            await self.send({"type": "tof", "matrix": parse_distance_matrix(ack.reply)})
        elif op == "status":
            self.link.descriptor = await self.link.fetch_descriptor()
            await self.send(_describe(self.link))
        elif op == "containers":
            reports = await asyncio.get_running_loop().run_in_executor(None, check_containers, self.container_dir)
            await self.send({"type": "containers", "reports": [
                {"path": r.path, "ok": r.ok, "size": r.size, "crc": f"{r.stored_crc:#010x}",
                 "parts": len(r.sub_containers), "problems": r.problems} for r in reports]})
        else:
            await self.error(f"unknown request {op!r}")

    async def start(self, fourcc: str, index) -> None:
        formats = self.link.descriptor.formats if self.link.descriptor else {}
        if self.stream_task or self.link.streaming:
            return await self.error("a stream is already running")
        if fourcc not in formats or not isinstance(index, int) or not 0 <= index < len(formats[fourcc]):
            return await self.error(f"no format {fourcc} with resolution index {index} in the descriptor")
        self.stopping = asyncio.Event()
        self.window = []
        self.stream_task = asyncio.create_task(self.run_stream(fourcc, index))

    async def run_stream(self, fourcc: str, index: int) -> None:
        await self.send({"type": "stream", "running": True, "text": f"streaming {fourcc} index {index}"})
        try:
            ending = await self.link.stream(fourcc, index, self.on_frame, self.stopping)
        except K52Error as error:
            ending = f"stream failed: {error}"
        self.stream_task = None
        await self.send({"type": "stream", "running": False, "text": ending})

    def on_frame(self, item: dict) -> None:
        now = time.monotonic()
        self.window = [(t, n) for t, n in self.window if now - t < 2.0] + [(now, item["bytes"])]
        self.frame_id += 1
        item["id"] = self.frame_id
        self.latest = item
        asyncio.get_running_loop().create_task(self.push())

    async def push(self) -> None:
        # Only the newest frame goes out, and only once the page has drawn the previous one:
        # a slow viewer drops frames instead of falling behind.
        item, self.latest = self.latest, None
        if item is None or self.in_flight or self.ws.closed:
            if item is not None and self.in_flight:
                self.latest = item
            return
        self.in_flight = True
        frame, pixels = item["frame"], item["pixels"]
        span = self.window[-1][0] - self.window[0][0] if len(self.window) > 1 else 0
        rate = (len(self.window) - 1) / span if span else 0.0
        mbps = sum(n for _, n in self.window[1:]) / span / 1e6 if span else 0.0
        channels = 1 if pixels.ndim == 2 else pixels.shape[2]
        try:
            await self.ws.send_json({"type": "rate", "fps": rate, "mbps": mbps, "fourcc": frame.fourcc,
                                     "width": frame.width, "height": frame.height})
            await self.ws.send_bytes(FRAME_HEADER.pack(item["id"], frame.width, frame.height, channels,
                                                       item["arrived"] * 1000.0) + pixels.tobytes())
        except ConnectionError:
            self.in_flight = False

    async def close(self) -> None:
        # A tab closed mid-stream must not leave the daemon streaming.
        if self.stream_task:
            self.stopping.set()
            await asyncio.shield(self.stream_task)


async def index(request: web.Request) -> web.FileResponse:
    return web.FileResponse(STATIC / "index.html")


async def socket(request: web.Request) -> web.WebSocketResponse:
    app = request.app
    ws = web.WebSocketResponse(heartbeat=10, max_msg_size=1 << 20)
    await ws.prepare(request)
    link: Link = app["link"]
    page = Page(link, ws, app["container_dir"])
    link.listeners.add(page.send)
    app["sockets"].add(ws)
    try:
        await page.run({"op": "connect"})
        tasks = set()
        async for message in ws:
            if message.type != WSMsgType.TEXT:
                continue
            try:
                request_ = json.loads(message.data)
            except ValueError:
                continue
            request_ = request_ if isinstance(request_, dict) else {}
            # Commands wait for the daemon; frame acknowledgements and stops must not wait behind them.
            if request_.get("op") in ("drawn", "stop"):
                await page.run(request_)
            else:
                task = asyncio.create_task(page.run(request_))
                tasks.add(task)
                task.add_done_callback(tasks.discard)
    finally:
        link.listeners.discard(page.send)
        app["sockets"].discard(ws)
        await page.close()
    return ws


def make_app(host: str = DEFAULT_HOST, control_port: int = CONTROL_PORT, stream_port: int = STREAM_PORT,
             container_dir: str = DEFAULT_DIRECTORY) -> web.Application:
    app = web.Application()
    app["link"] = Link(host, control_port, stream_port)
    app["container_dir"] = container_dir
    app["sockets"] = set()
    app.router.add_get("/", index)
    app.router.add_get("/ws", socket)
    app.router.add_static("/static", STATIC)

    async def shutdown(app: web.Application) -> None:
        # Open pages would keep the server waiting; closing them also stops their streams.
        for ws in list(app["sockets"]):
            await ws.close(code=1001, message=b"console shutting down")
        await app["link"].disconnect()
    app.on_shutdown.append(shutdown)
    return app


def main(argv: list[str] | None = None) -> int:
    parser = argparse.ArgumentParser(prog="k52console", description="The k52app camera in a browser.")
    parser.add_argument("--bind", default="127.0.0.1", help="address the page is served on (default 127.0.0.1)")
    parser.add_argument("--port", type=int, default=DEFAULT_PORT, help=f"port of the page (default {DEFAULT_PORT})")
    parser.add_argument("--daemon-host", default=DEFAULT_HOST, help="host of k52app")
    parser.add_argument("--control-port", type=int, default=CONTROL_PORT)
    parser.add_argument("--stream-port", type=int, default=STREAM_PORT)
    parser.add_argument("--container-dir", default=DEFAULT_DIRECTORY, help="k52app's container-path")
    args = parser.parse_args(argv)
    logging.basicConfig(level=logging.WARNING)
    if args.bind not in ("127.0.0.1", "localhost", "::1"):
        print(f"k52console: warning: serving on {args.bind}: anyone who reaches this port controls the "
              "camera; the control socket has no authentication", file=sys.stderr)
    app = make_app(args.daemon_host, args.control_port, args.stream_port, args.container_dir)
    print(f"k52console: http://{args.bind}:{args.port}/", file=sys.stderr, flush=True)
    web.run_app(app, host=args.bind, port=args.port, print=None, shutdown_timeout=5)
    return 0
