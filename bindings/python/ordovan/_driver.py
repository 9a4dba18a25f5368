# Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
"""What both kinds of agent have in common: the session's connections. Nothing here waits."""

from __future__ import annotations

from collections.abc import Callable

from ._discovery import Socket, find_socket
from ._line import Line, open_now
from ._session import Session, Which
from .errors import ConnectionLost, Error, SocketNotFound


class Lines:
    """An agent's connections, opened and closed as its session wants. ``on_open`` and ``on_close`` are
    called when a socket is new, and before it is closed."""

    def __init__(
        self,
        session: Session,
        socket: Socket | None,
        on_open: Callable[[Which, Line], None] = lambda which, line: None,
        on_close: Callable[[Which, Line], None] = lambda which, line: None,
    ) -> None:
        self.open: dict[Which, Line] = {}
        self._session = session
        self._socket = socket
        self._path: str | None = None
        self._on_open = on_open
        self._on_close = on_close

    def turn(self, now: float) -> None:
        """Does all that can be done without waiting, but for receiving."""
        session = self._session
        session.tick(now)
        while True:
            for which in list(session.drop):
                self.end(which, ConnectionLost("the hub did not answer, or not as it should"), now)
            wanted = session.wanted(now)
            if wanted is not None:
                self._open(wanted, now)
            self._send(now)
            if wanted is None:
                return

    def receive(self, which: Which, now: float) -> None:
        """Takes in what has come on a connection, which may have ended meanwhile."""
        line = self.open.get(which)
        if line is not None and (error := line.receive()) is not None:
            self.end(which, error, now)

    def end(self, which: Which, error: Error, now: float) -> None:
        """Ends a connection, if it is there."""
        line = self.open.pop(which, None)
        if line is not None:
            self._on_close(which, line)
            line.close()
            self._session.closed(which, error, now)

    def close(self, now: float) -> None:
        """Ends both, for good."""
        self._session.stop()
        for which in list(self.open):
            self.end(which, ConnectionLost("the agent was closed here"), now)

    def _send(self, now: float) -> None:
        for which, line in list(self.open.items()):
            if line.sends and (error := line.send()) is not None:
                self.end(which, error, now)

    def _open(self, which: Which, now: float) -> None:
        try:
            # Once found it stays: an agent does not go from one hub to another.
            path = self._path or find_socket(self._socket)
            socket = open_now(path)
        except (OSError, SocketNotFound, ValueError) as error:
            self._session.failed(error, now)
            return
        self._path = path
        line = self.open[which] = Line(socket, self._session.opened(which, now))
        self._on_open(which, line)
