"""Exceptions of the k52 client: each says what was expected and what arrived."""


class K52Error(Exception):
    """Base class of everything this package raises about the daemon."""


class DaemonUnavailable(K52Error):
    """No daemon listens at the address (not running, wrong port)."""


class ControlSocketBusy(K52Error):
    """The daemon accepted the connection into its backlog but does not answer: it serves one
    control client at a time and another one holds the socket."""


class ConnectionClosed(K52Error):
    """The daemon closed the connection in the middle of a message."""


class ProtocolError(K52Error):
    """Bytes arrived that do not have the shape the protocol gives them."""


class ChecksumError(ProtocolError):
    """A message or container whose CRC-32 does not match its content."""


class CommandTimeout(K52Error):
    """A command was sent but its acknowledgement did not come in time."""
