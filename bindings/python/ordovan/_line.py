# Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
"""One connected socket with its conversation, for loops of both kinds: nothing here waits."""

from __future__ import annotations

import math
import socket as sockets
from time import monotonic

from ._wire import Channel
from .errors import ConnectionLost, Error, ProtocolError

_CHUNK = 1 << 18
# The most seconds of one wait.
_LONGEST = 3600.0


class Line:
    """A socket that never blocks, and its channel. REQUIRES: closed by its owner."""

    def __init__(self, socket: sockets.socket, channel: Channel) -> None:
        self.socket = socket
        self.channel = channel
        socket.setblocking(False)

    def fileno(self) -> int:
        """The descriptor, to wait for."""
        return self.socket.fileno()

    @property
    def sends(self) -> bool:
        """Whether something waits to be sent."""
        return bool(self.channel.outbox)

    def send(self) -> Error | None:
        """Sends what the socket takes now. An error ends the connection."""
        outbox = self.channel.outbox
        try:
            while outbox:
                # Never a signal: Python ignores SIGPIPE, a host of it may not.
                with memoryview(outbox) as view, view[:_CHUNK] as chunk:
                    sent = self.socket.send(chunk, sockets.MSG_NOSIGNAL)
                del outbox[:sent]
        except (BlockingIOError, InterruptedError):
            pass
        except OSError as error:
            return ConnectionLost(f"the hub's connection has ended: {error}")
        return None

    def receive(self) -> Error | None:
        """Takes in what is there now, one helping. An error ends the connection."""
        try:
            data = self.socket.recv(_CHUNK)
        except (BlockingIOError, InterruptedError):
            return None
        except OSError as error:
            return ConnectionLost(f"the hub's connection has ended: {error}")
        if not data:
            return ConnectionLost("the hub has closed the connection")
        try:
            self.channel.feed(data)
        except ProtocolError as error:
            return error
        return None

    def close(self) -> None:
        """Closes the socket; the channel is left as it is."""
        self.socket.close()


def open_now(path: str) -> sockets.socket:
    """A connected socket, or OSError, without blocking; BlockingIOError where the hub has more
    callers than it has taken yet."""
    socket = sockets.socket(sockets.AF_UNIX, sockets.SOCK_STREAM)
    try:
        socket.setblocking(False)
        socket.connect(path)
    except BaseException:
        socket.close()
        raise
    return socket


class Deadline:
    """A time by which something has to be over; none if ``timeout`` is None."""

    def __init__(self, timeout: float | None) -> None:
        self._at = None if timeout is None else monotonic() + timeout

    def wait_ms(self, due: float | None = None) -> int | None:
        """For how many milliseconds to wait at once, until this time or the moment ``due``; None for
        ever. Rounded up, since to come back too early would be for nothing, and never more than the
        system can take: whoever waits looks again."""
        times = [at for at in (self._at, due) if at is not None]
        left = max(0.0, min(times) - monotonic()) if times else math.inf
        return None if left == math.inf else math.ceil(min(left, _LONGEST) * 1000)

    @property
    def passed(self) -> bool:
        """Whether that time has come."""
        return self._at is not None and monotonic() >= self._at
