"""Python client of the k52app camera daemon: commands and notices on the control socket,
verified frames as NumPy arrays on the stream socket, the XML descriptor and the two
container files."""
from .client import CONTROL_PORT, DEFAULT_HOST, STREAM_PORT, Control, FrameStream, stop_stream
from .containers import ContainerReport, check_container, check_containers
from .descriptor import Argument, Descriptor, Route, parse_descriptor, parse_route_help
from .errors import (ChecksumError, CommandTimeout, ConnectionClosed, ControlSocketBusy,
                     DaemonUnavailable, K52Error, ProtocolError)
from .wire import Frame, Notice, parse_distance_matrix

__all__ = [
    "CONTROL_PORT", "DEFAULT_HOST", "STREAM_PORT", "Control", "FrameStream", "stop_stream",
    "ContainerReport", "check_container", "check_containers",
    "Argument", "Descriptor", "Route", "parse_descriptor", "parse_route_help",
    "ChecksumError", "CommandTimeout", "ConnectionClosed", "ControlSocketBusy",
    "DaemonUnavailable", "K52Error", "ProtocolError", "Frame", "Notice", "parse_distance_matrix",
]
