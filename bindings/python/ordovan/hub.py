# Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
"""Questions to the hub, and calls in the name of any agent. :mod:`ordovan.aio` has the same for
asyncio."""

from __future__ import annotations

from collections.abc import Generator, Iterable, Iterator
from contextlib import closing
from types import TracebackType
from typing import Self, TypeVar

from . import _requests as requests
from ._discovery import Socket
from .connection import ANSWER_TIMEOUT, Connection
from .errors import ConnectionLost, ProtocolError
from .values import Entry, Event, Explanation, Info, Progress, Reached, State, Status

T = TypeVar("T")

#: Seconds beyond the time that a wait was given, after which a hub that says nothing is given up.
GRACE = 1.0


class Hub:
    """The hub, to be asked.

    socket   as :func:`ordovan.find_socket` takes it
    timeout  seconds that the hub has to answer what it can answer at once; None: for ever

    Connects with the first call, and anew with the first one after the hub was away. No call is made
    again by itself. Every method blocks, and raises the error that the hub answers, SocketNotFound,
    ConnectionLost, Unreachable, NoAnswer, ProtocolError, MessageTooLarge, and ValueError for names
    that cannot be. :meth:`wait`, :meth:`watch` and :meth:`follow_log` have connections of their own,
    which end with them. Close it, or use it in ``with``. Not for several threads at once.
    """

    def __init__(
        self, socket: Socket | None = None, *, timeout: float | None = ANSWER_TIMEOUT
    ) -> None:
        self._socket = socket
        self._timeout = timeout
        self._connection: Connection | None = None

    def status(self) -> Status:
        """Everything that the hub knows. Costs as much as there is."""
        return self._ask(requests.status())

    def wait(
        self, stage: str | None = None, state: State = "complete", timeout: float | None = None
    ) -> Reached:
        """Blocks until the stage, or start-up without one, is ``"active"`` (has begun) or
        ``"complete"``. A stage that nobody knows may still come.

        Raises TimedOut after ``timeout`` seconds, None for ever; or NoAnswer a second later, if the
        hub says nothing. Both are a TimeoutError.
        """
        request = requests.wait(stage, state, timeout)
        with self._another() as connection:
            limit = None if timeout is None else timeout + GRACE
            return request.read(connection.call(request.method, request.parameters, timeout=limit))

    def watch(
        self,
        *,
        all: bool = False,
        after: int | None = None,
        startup: str | None = None,
        timeout: float | None = None,
    ) -> Iterator[Progress]:
        """Iterates over changes of stages: first a snapshot, or, with ``after`` and ``startup``, what
        changed since that sequence number; then what changes. ``all``: all stages with their events,
        not only active ones without. Each step blocks, up to ``timeout`` seconds (NoAnswer)."""
        request = requests.watch(all, after, startup)
        return self._several(request, timeout)

    def explain(self, stage: str | None = None) -> Explanation:
        """Why the stage, or start-up, is not complete. Raises NoSuchStage."""
        return self._ask(requests.explain(stage))

    def log(self, after: int | None = None) -> list[Entry]:
        """The start-up's log, behind the entry with the number ``after``. Raises TooMuch."""
        return self._ask(requests.log(after, False))

    def follow_log(
        self, after: int | None = None, *, timeout: float | None = None
    ) -> Iterator[Entry]:
        """Iterates over the log, and on over entries as they come. Each step blocks, up to ``timeout``
        seconds (NoAnswer)."""
        with closing(self._several(requests.log(after, True), timeout)) as answers:
            for entries in answers:
                yield from entries

    def enable(self, enabled: bool = True) -> None:
        """Whether stages may start; false stops nothing that has begun. Raises PermissionDenied."""
        self._ask(requests.enable(enabled))

    def declare(self, agent: str, *events: Event, withdraw: Iterable[str] = ()) -> None:
        """Declares events in the name of an agent that need not have joined, and withdraws those for
        the stages ``withdraw``, all in one instant. Raises NotYours, InvalidEvent, TooMuch."""
        self._ask(requests.declare(agent, events, withdraw))

    def report(
        self, agent: str, stage: str, complete: bool | None = None, note: str | None = None
    ) -> None:
        """Reports how far an agent's event is, with a note of up to 1,024 bytes, or the note alone;
        neither means complete. Raises NotYours, NoSuchAgent, NoSuchStage, TooMuch."""
        self._ask(requests.report(agent, stage, complete, note))

    def leave(self, agent: str) -> None:
        """Makes an agent leave, and all its events with it. Raises NotYours, NoSuchAgent."""
        self._ask(requests.leave(agent))

    def info(self) -> Info:
        """What the hub says of itself."""
        return self._ask(requests.info())

    def interface_description(self, interface: str = requests.INTERFACE) -> str:
        """The text of an interface. Raises InterfaceNotFound."""
        return self._ask(requests.interface_description(interface))

    def close(self) -> None:
        """Closes the connection, if there is one. Does not block; the next call makes another one."""
        connection, self._connection = self._connection, None
        if connection is not None:
            connection.close()

    def __enter__(self) -> Self:
        return self

    def __exit__(
        self,
        kind: type[BaseException] | None,
        error: BaseException | None,
        trace: TracebackType | None,
    ) -> None:
        self.close()

    def _another(self) -> Connection:
        return Connection(self._socket, timeout=self._timeout)

    def _ask(self, request: requests.Request[T]) -> T:
        if self._connection is None:
            self._connection = self._another()
        try:
            return request.read(self._connection.call(request.method, request.parameters))
        except (ConnectionLost, ProtocolError):
            self.close()
            raise

    def _several(
        self, request: requests.Request[T], timeout: float | None
    ) -> Generator[T, None, None]:
        with self._another() as connection:
            answers = connection.call_more(request.method, request.parameters, timeout=timeout)
            for parameters in answers:
                yield request.read(parameters)
