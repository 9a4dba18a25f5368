# Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
"""A Varlink connection that blocks. :mod:`ordovan.aio` has the one for asyncio."""

from __future__ import annotations

import errno
import select
import socket as sockets
from collections import deque
from collections.abc import Callable, Iterator, Mapping
from types import EllipsisType, TracebackType
from typing import Self

from ._discovery import Socket, find_socket
from ._line import Deadline, Line, open_now
from ._wire import Answer, Channel, Parameters
from .errors import ConnectionLost, NoAnswer, Unreachable

#: Seconds that the hub has to answer what it can answer at once, if not said otherwise.
ANSWER_TIMEOUT = 30.0

# How long until a hub that has more callers than it has taken yet is tried again, in milliseconds:
# the system has no way to be told when it has room.
_AGAIN = 10


class Connection:
    """One connection with the hub, on which calls are made one after the other.

    socket   as :func:`ordovan.find_socket` takes it
    timeout  seconds that connecting, and each call, may take; None: for ever

    Connecting blocks; raises SocketNotFound, Unreachable, ConnectionLost,
    NoAnswer. Close it, or use it in ``with``. Not
    for several threads at once.
    """

    def __init__(
        self, socket: Socket | None = None, *, timeout: float | None = ANSWER_TIMEOUT
    ) -> None:
        self.timeout = timeout
        self._line: Line | None = None
        self._line = Line(_connect(find_socket(socket), Deadline(timeout)), Channel())

    def call(
        self,
        method: str,
        parameters: Mapping[str, object] | None = None,
        *,
        timeout: float | None | EllipsisType = ...,
    ) -> Parameters:
        """Calls ``method``, its whole name, and returns the answer's parameters.

        Blocks up to ``timeout`` seconds, the connection's own if not said. Raises the error that the
        hub answers, NoAnswer (the answer, should it come, is dropped; the connection goes on),
        ConnectionLost, ProtocolError, MessageTooLarge, and ValueError for what JSON cannot say.
        """
        answers: deque[Answer] = deque()
        line = self._alive()
        line.channel.call(method, parameters, answers.append)
        deadline = Deadline(self.timeout if timeout is ... else timeout)
        if not self._pump(lambda: bool(answers), deadline):
            raise NoAnswer(f"the hub has not answered {method} in time")
        return _result(answers.popleft())

    def call_more(
        self,
        method: str,
        parameters: Mapping[str, object] | None = None,
        *,
        timeout: float | None = None,
    ) -> Iterator[Parameters]:
        """Calls ``method`` for any number of answers, and returns an iterator over their parameters.

        The call is made when iterating begins. Each step blocks until an answer comes, up to
        ``timeout`` seconds, for ever if not said, and raises as :meth:`call` does. As long as it goes
        on nothing else can be called here (RuntimeError), and since the protocol cannot end it early,
        leaving the iterator early, a timeout too, closes the connection.
        """
        answers: deque[Answer] = deque()
        self._alive().channel.call(method, parameters, answers.append, more=True)
        ended = False
        try:
            while not ended:
                if not self._pump(lambda: bool(answers), Deadline(timeout)):
                    raise NoAnswer(f"nothing has come from {method} in time")
                answer = answers.popleft()
                ended = answer.last
                yield _result(answer)
        finally:
            if not ended:
                self.close()

    def call_oneway(
        self,
        method: str,
        parameters: Mapping[str, object] | None = None,
        *,
        timeout: float | None | EllipsisType = ...,
    ) -> None:
        """Calls ``method`` without an answer. Blocks until the system has taken the call; whether the
        hub did what it says is not told. After NoAnswer it may still be sent."""
        line = self._alive()
        line.channel.call_oneway(method, parameters)
        deadline = Deadline(self.timeout if timeout is ... else timeout)
        if not self._pump(lambda: not line.sends, deadline, receives=False):
            raise NoAnswer(f"the hub has not taken {method} in time")

    @property
    def closed(self) -> bool:
        """Whether the connection has ended, by either side."""
        return self._line is None

    def fileno(self) -> int:
        """The descriptor; -1 when closed."""
        return -1 if self._line is None else self._line.fileno()

    def close(self) -> None:
        """Closes the connection. Does not block; once more does nothing."""
        line, self._line = self._line, None
        if line is not None:
            line.close()

    def __enter__(self) -> Self:
        return self

    def __exit__(
        self,
        kind: type[BaseException] | None,
        error: BaseException | None,
        trace: TracebackType | None,
    ) -> None:
        self.close()

    def _alive(self) -> Line:
        if self._line is None:
            raise ConnectionLost("the connection is closed")
        return self._line

    def _pump(
        self, done: Callable[[], bool], deadline: Deadline, *, receives: bool = True
    ) -> bool:
        """Moves bytes until it is done; false if the deadline came first."""
        line = self._alive()
        while True:
            error = line.send()
            if error is None and done():
                return True
            if error is None:
                ready = _poll(line, deadline, receives)
                if not ready and deadline.passed:
                    return False
                if ready & ~select.POLLOUT and receives:
                    error = line.receive()
            if error is not None:
                self.close()
                # What came before the end counts.
                if receives and done():
                    return True
                raise error


def _result(answer: Answer) -> Parameters:
    if answer.error is not None:
        raise answer.error
    return answer.parameters


def _poll(line: Line, deadline: Deadline, receives: bool) -> int:
    wanted = (select.POLLIN if receives else 0) | (select.POLLOUT if line.sends else 0)
    poll = select.poll()
    poll.register(line.fileno(), wanted)
    ready = poll.poll(deadline.wait_ms())
    return ready[0][1] if ready else 0


def _connect(path: str, deadline: Deadline) -> sockets.socket:
    while True:
        try:
            return open_now(path)
        except BlockingIOError:
            if deadline.passed:
                raise NoAnswer(f"the hub at {path} has not taken the connection in time") from None
            select.poll().poll(_AGAIN)
        except OSError as error:
            if error.errno in (errno.ECONNREFUSED, errno.ENOENT):
                raise ConnectionLost(f"no hub answers at {path}: {error.strerror}") from error
            raise Unreachable(f"{path} cannot be connected to: {error}") from error
