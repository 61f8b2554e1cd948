#!/usr/bin/env python3
"""A minimal system log for development machines without one: binds /dev/log and prints every
record k52app (or anything else) sends, with its severity, until it is terminated."""
import os
import signal
import socket
import sys

SEVERITIES = ["emerg", "alert", "crit", "err", "warn", "notice", "info", "debug"]
COLOURS = ["1;31", "1;31", "1;31", "31", "33", "36", "0", "2"]


def main(path="/dev/log"):
    signal.signal(signal.SIGINT, signal.SIG_IGN)  # the daemon's Ctrl-C is not ours
    if os.path.exists(path):
        os.unlink(path)
    sink = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
    sink.bind(path)
    os.chmod(path, 0o666)
    tty = sys.stdout.isatty()
    try:
        while True:
            data = sink.recv(65536).decode("utf-8", "replace")
            priority, _, text = data[1:].partition(">") if data.startswith("<") else ("6", "", data)
            severity = int(priority) & 7 if priority.isdigit() else 6
            # glibc prepends "Mmm dd hh:mm:ss ident[pid]: "; keep the time and the text
            line = text.rstrip("\n")
            label = SEVERITIES[severity].ljust(6)
            if tty:
                label = "\033[%sm%s\033[0m" % (COLOURS[severity], label)
            print(label, line, flush=True)
    finally:
        os.unlink(path)


if __name__ == "__main__":
    main(*sys.argv[1:])
