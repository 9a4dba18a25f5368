# Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
"""The same for asyncio: :class:`Connection`, :class:`Hub`, :class:`Agent`.

Nothing here blocks the loop but looking for the socket's file. Everything can be cancelled, and
``asyncio.timeout()`` works with everything; what was sent before is sent, and its answer is dropped.
An object belongs to the loop on which it is used first.
"""

from __future__ import annotations

import asyncio
import errno
from collections import deque
from collections.abc import AsyncGenerator, Callable, Iterable, Mapping
from contextlib import aclosing
from time import monotonic
from types import TracebackType
from typing import Self, TypeVar

from . import _requests as requests
from ._discovery import Socket, find_socket
from ._driver import Lines
from ._line import Deadline, Line, open_now
from ._mirror import Unread
from ._session import Outcome, Which
from ._view import AgentView
from ._wire import Answer, Channel, Parameters
from .connection import ANSWER_TIMEOUT
from .errors import ConnectionLost, Error, NoAnswer, ProtocolError, Unreachable
from .hub import GRACE
from .values import (
    Change,
    Entry,
    Event,
    Explanation,
    Info,
    Lost,
    Progress,
    Reached,
    Stage,
    State,
    Status,
)

__all__ = ["Agent", "Connection", "Hub"]

T = TypeVar("T")

# How many answers may wait for who iterates over them before no more are read.
_AHEAD = 16
# Seconds until a hub that has more callers than it has taken yet is tried again: the system has no way
# to be told when it has room.
_AGAIN = 0.01


class _Watched:
    """A line that the loop reads from, and writes to while there is something to write."""

    def __init__(
        self, line: Line, readable: Callable[[], None], writable: Callable[[], None]
    ) -> None:
        self._loop = asyncio.get_running_loop()
        self._fd = line.fileno()
        self._line = line
        self._readable = readable
        self._writable = writable
        self._reads = self._writes = False
        self.read(True)

    def read(self, on: bool) -> None:
        """Whether to read."""
        if on and not self._reads:
            self._loop.add_reader(self._fd, self._readable)
        elif not on and self._reads:
            self._loop.remove_reader(self._fd)
        self._reads = on

    def write(self) -> None:
        """Writes on later, if something is left."""
        if self._line.sends and not self._writes:
            self._loop.add_writer(self._fd, self._writable)
        elif not self._line.sends and self._writes:
            self._loop.remove_writer(self._fd)
        self._writes = self._line.sends

    def end(self) -> None:
        """REQUIRES: called before the socket is closed."""
        if self._reads:
            self._loop.remove_reader(self._fd)
        if self._writes:
            self._loop.remove_writer(self._fd)
        self._reads = self._writes = False


class Connection:
    """One connection with the hub, made by :meth:`open`. Calls of several tasks are answered in
    order."""

    def __init__(self, line: Line) -> None:
        """For :meth:`open`."""
        self._line: Line | None = line
        self._watched = _Watched(line, self._receive, self._send)

    @classmethod
    async def open(
        cls, socket: Socket | None = None, *, timeout: float | None = ANSWER_TIMEOUT
    ) -> Connection:
        """Connects; ``socket`` as :func:`ordovan.find_socket` takes it. Raises SocketNotFound,
        Unreachable, ConnectionLost, and NoAnswer after ``timeout`` seconds, None for ever."""
        path = find_socket(socket)
        deadline = Deadline(timeout)
        while True:
            try:
                return cls(Line(open_now(path), Channel()))
            except BlockingIOError:
                if deadline.passed:
                    raise NoAnswer(f"the hub at {path} takes no connection in time") from None
            except OSError as error:
                if error.errno in (errno.ECONNREFUSED, errno.ENOENT):
                    raise ConnectionLost(f"no hub answers at {path}") from error
                raise Unreachable(f"{path} cannot be connected to: {error}") from error
            await asyncio.sleep(_AGAIN)

    async def call(
        self,
        method: str,
        parameters: Mapping[str, object] | None = None,
        *,
        timeout: float | None = None,
    ) -> Parameters:
        """Calls ``method``, its whole name, and returns the answer's parameters.

        Raises the error that the hub answers, NoAnswer after ``timeout`` seconds, ConnectionLost,
        ProtocolError, MessageTooLarge, and ValueError for what JSON cannot say. After NoAnswer, or
        when it is cancelled, the answer is dropped when it comes; the connection goes on.
        """
        future: asyncio.Future[Answer] = asyncio.get_running_loop().create_future()

        def answered(answer: Answer) -> None:
            if not future.done():
                future.set_result(answer)

        self._alive().channel.call(method, parameters, answered)
        self._send()
        try:
            async with asyncio.timeout(timeout):
                answer = await future
        except TimeoutError:
            raise NoAnswer(f"the hub has not answered {method} in time") from None
        return _result(answer)

    async def call_more(
        self, method: str, parameters: Mapping[str, object] | None = None
    ) -> AsyncGenerator[Parameters, None]:
        """Calls ``method`` for any number of answers: an asynchronous iterator over their parameters.

        The call is made when iterating begins. As long as it goes on nothing else can be called here
        (RuntimeError); and since the protocol cannot end it early, leaving the iterator early closes
        the connection. ``contextlib.aclosing()`` does that at a place that is known. Raises as
        :meth:`call`.
        """
        answers: deque[Answer] = deque()
        came = asyncio.Event()

        def answered(answer: Answer) -> None:
            answers.append(answer)
            came.set()
            if len(answers) >= _AHEAD:
                self._watched.read(False)

        self._alive().channel.call(method, parameters, answered, more=True)
        self._send()
        ended = False
        try:
            while not ended:
                await came.wait()
                answer = answers.popleft()
                if not answers:
                    came.clear()
                    if self._line is not None:
                        self._watched.read(True)
                ended = answer.last
                yield _result(answer)
        finally:
            if not ended:
                self._end(ConnectionLost("the connection was closed here"))

    async def call_oneway(
        self, method: str, parameters: Mapping[str, object] | None = None
    ) -> None:
        """Calls ``method`` without an answer. Does not wait until the system has taken it; what is not
        sent when the connection is closed is not sent."""
        self._alive().channel.call_oneway(method, parameters)
        self._send()
        if self._line is None:
            raise ConnectionLost("the hub has closed the connection")

    @property
    def closed(self) -> bool:
        """Whether the connection has ended, by either side."""
        return self._line is None

    async def close(self) -> None:
        """Closes the connection; calls that wait raise ConnectionLost. Once more does nothing."""
        self._end(ConnectionLost("the connection was closed here"))

    async def __aenter__(self) -> Self:
        return self

    async def __aexit__(
        self,
        kind: type[BaseException] | None,
        error: BaseException | None,
        trace: TracebackType | None,
    ) -> None:
        await self.close()

    def _alive(self) -> Line:
        if self._line is None:
            raise ConnectionLost("the connection is closed")
        return self._line

    def _end(self, error: Error) -> None:
        line, self._line = self._line, None
        if line is not None:
            self._watched.end()
            line.close()
            line.channel.lost(error)

    def _receive(self) -> None:
        if self._line is not None and (error := self._line.receive()) is not None:
            self._end(error)

    def _send(self) -> None:
        if self._line is None:
            return
        error = self._line.send()
        if error is not None:
            self._end(error)
        else:
            self._watched.write()


def _result(answer: Answer) -> Parameters:
    if answer.error is not None:
        raise answer.error
    return answer.parameters


class Hub:
    """The hub, to be asked; :class:`ordovan.Hub` says more of each call.

    socket   as :func:`ordovan.find_socket` takes it
    timeout  seconds that the hub has to answer what it can answer at once; None: for ever

    Connects with the first call, and anew with the first one after the hub was away; tasks share that
    connection. :meth:`wait`, :meth:`watch` and :meth:`follow_log` have connections of their own, which
    end with them, also when they are cancelled.
    """

    def __init__(
        self, socket: Socket | None = None, *, timeout: float | None = ANSWER_TIMEOUT
    ) -> None:
        self._socket = socket
        self._timeout = timeout
        self._connection: Connection | None = None

    async def status(self) -> Status:
        """Everything that the hub knows."""
        return await self._ask(requests.status())

    async def wait(
        self, stage: str | None = None, state: State = "complete", timeout: float | None = None
    ) -> Reached:
        """Until the stage, or start-up without one, is ``"active"`` (has begun) or ``"complete"``.
        Raises TimedOut after ``timeout`` seconds, or NoAnswer a second later."""
        request = requests.wait(stage, state, timeout)
        limit = None if timeout is None else timeout + GRACE
        async with await self._another() as connection:
            answer = await connection.call(request.method, request.parameters, timeout=limit)
            return request.read(answer)

    async def watch(
        self, *, all: bool = False, after: int | None = None, startup: str | None = None
    ) -> AsyncGenerator[Progress, None]:
        """Iterates over changes of stages."""
        async with aclosing(self._several(requests.watch(all, after, startup))) as answers:
            async for progress in answers:
                yield progress

    async def explain(self, stage: str | None = None) -> Explanation:
        """Why the stage, or start-up, is not complete."""
        return await self._ask(requests.explain(stage))

    async def log(self, after: int | None = None) -> list[Entry]:
        """The start-up's log, behind the entry with the number ``after``."""
        return await self._ask(requests.log(after, False))

    async def follow_log(self, after: int | None = None) -> AsyncGenerator[Entry, None]:
        """Iterates over the log, and on over entries as they come."""
        async with aclosing(self._several(requests.log(after, True))) as answers:
            async for entries in answers:
                for entry in entries:
                    yield entry

    async def enable(self, enabled: bool = True) -> None:
        """Whether stages may start; false stops nothing that has begun."""
        await self._ask(requests.enable(enabled))

    async def declare(self, agent: str, *events: Event, withdraw: Iterable[str] = ()) -> None:
        """Declares and withdraws events in the name of an agent that need not have joined."""
        await self._ask(requests.declare(agent, events, withdraw))

    async def report(
        self, agent: str, stage: str, complete: bool | None = None, note: str | None = None
    ) -> None:
        """Reports how far an agent's event is."""
        await self._ask(requests.report(agent, stage, complete, note))

    async def leave(self, agent: str) -> None:
        """Makes an agent leave, and all its events with it."""
        await self._ask(requests.leave(agent))

    async def info(self) -> Info:
        """What the hub says of itself."""
        return await self._ask(requests.info())

    async def interface_description(self, interface: str = requests.INTERFACE) -> str:
        """The text of an interface."""
        return await self._ask(requests.interface_description(interface))

    async def close(self) -> None:
        """Closes the connection, if there is one; the next call makes another one."""
        connection, self._connection = self._connection, None
        if connection is not None:
            await connection.close()

    async def __aenter__(self) -> Self:
        return self

    async def __aexit__(
        self,
        kind: type[BaseException] | None,
        error: BaseException | None,
        trace: TracebackType | None,
    ) -> None:
        await self.close()

    async def _another(self) -> Connection:
        return await Connection.open(self._socket, timeout=self._timeout)

    async def _shared(self) -> Connection:
        connection = self._connection
        if connection is None or connection.closed:
            another = await self._another()
            # Another task may have been quicker.
            if self._connection is connection:
                self._connection = another
                return another
            await another.close()
            return await self._shared()
        return connection

    async def _ask(self, request: requests.Request[T]) -> T:
        connection = await self._shared()
        answer = await connection.call(request.method, request.parameters, timeout=self._timeout)
        try:
            return request.read(answer)
        except ProtocolError:
            await connection.close()
            raise

    async def _several(self, request: requests.Request[T]) -> AsyncGenerator[T, None]:
        async with await self._another() as connection:
            calls = connection.call_more(request.method, request.parameters)
            async with aclosing(calls) as answers:
                async for parameters in answers:
                    yield request.read(parameters)


class Agent(AgentView):
    """A program's part in the start-up: its events, and a mirror of the stages.

    The arguments, what happens when the hub goes, and the errors are those of
    :class:`ordovan.Agent`. The loop keeps the agent connected: it has neither a task nor a thread of
    its own. ``on_change`` and ``on_connected``, functions that the program may set, are called by the
    loop; what they raise goes to the loop's exception handler.
    """

    def __init__(
        self,
        name: str,
        events: Iterable[Event] = (),
        *,
        socket: Socket | None = None,
        lost: Lost = "keep",
        take: bool = True,
        all: bool = False,
        answer_timeout: float = ANSWER_TIMEOUT,
    ) -> None:
        super().__init__(name, events, lost, take, all, answer_timeout)
        self._lines = Lines(self._session, socket, self._opened, self._closing)
        self._watched: dict[Which, _Watched] = {}
        self._timer: asyncio.TimerHandle | None = None
        self._waiters: set[asyncio.Future[None]] = set()

    async def join(self) -> None:
        """Joins, and goes on joining when the hub comes back; returns when connected: a hub that is not
        there is waited for. ``async with`` does it."""
        self._check_open()
        self._session.start()
        self._turn()
        await self._until(lambda: self._session.connected)

    async def leave(self) -> None:
        """Leaves: the agent's events go with it. Returns when the hub knows, also one that is away;
        then the agent is closed. When cancelled, the hub is told all the same, as long as the agent
        is not closed."""
        self._check_open()
        self._check_refused()
        outcome = self._session.leave(monotonic())
        self._turn()
        await self._until(lambda: outcome.settled)
        outcome.result()
        await self.close()

    async def close(self) -> None:
        """Ends the connections without leaving; whoever waits gets ConnectionLost. What is not sent yet
        is not sent (:meth:`flush`). Once more does nothing."""
        self._closed = True
        if self._timer is not None:
            self._timer.cancel()
            self._timer = None
        self._lines.close(monotonic())
        self._pass_on()

    async def __aenter__(self) -> Self:
        try:
            await self.join()
        except BaseException:
            await self.close()
            raise
        return self

    async def __aexit__(
        self,
        kind: type[BaseException] | None,
        error: BaseException | None,
        trace: TracebackType | None,
    ) -> None:
        await self.close()

    async def declare(self, *events: Event, withdraw: Iterable[str] = ()) -> bool:
        """Declares events or changes declared ones, and withdraws those for the stages ``withdraw``,
        all in one instant.

        Returns whether the hub has it; false: it is away, and is told when it joins. Raises what the
        hub answers, InvalidEvent, NotYours, TooMuch, and MessageTooLarge; then the declaration is
        what it was. When cancelled it is said all the same.
        """
        return await self._say(lambda now: self._session.declare(events, withdraw, now))

    async def withdraw(self, *stages: str) -> bool:
        """Withdraws the events for these stages; returns and raises as :meth:`declare`."""
        return await self.declare(withdraw=stages)

    async def report(
        self, stage: str, complete: bool | None = None, note: str | None = None
    ) -> bool:
        """Reports how far the event for ``stage`` is: complete, or not any more, with a note of up to
        1,024 bytes for people, or the note alone. Neither means complete.

        Returns as :meth:`declare`. The note said last is told again to a hub that comes back. Raises
        ValueError if there is no such event, NoSuchStage if the hub knows of none.
        """
        return await self._say(lambda now: self._session.report(stage, complete, note, now))

    async def complete(self, stage: str, note: str | None = None) -> bool:
        """Reports the event for ``stage`` complete."""
        return await self.report(stage, True, note)

    async def note(self, stage: str, note: str) -> bool:
        """Says something for people about the event for ``stage``."""
        return await self.report(stage, None, note)

    async def flush(self) -> None:
        """Until the hub has everything that was said, also a hub that is away."""
        self._start()
        await self._until(lambda: self._session.told)

    async def wait(self, stage: str | None = None) -> Stage:
        """Until the stage of an event of this agent is active; returns the stage.

        Without ``stage`` it is any whose event this program has not reported complete. Raises
        ValueError if there is no such event. A stage that was active before the hub went still is.
        """
        session = self._session
        session.check_waits(stage)
        self._start()
        await self._until(lambda: session.active(stage) is not None)
        found = session.active(stage)
        assert found is not None
        return found

    async def changes(self) -> AsyncGenerator[Change, None]:
        """Iterates over changes of stages in the mirror, from now on; stages that are in it already come
        first. A slow reader misses what a stage was in between, never what it is now."""
        reader = self._new_reader()
        try:
            while True:
                self._start()
                await self._until(lambda: bool(reader))
                change = reader.take()
                assert change is not None
                yield change
        finally:
            self._readers.remove(reader)

    # How it is done.

    def _start(self) -> None:
        self._check_open()
        self._check_refused()
        self._session.start()
        self._turn()

    async def _say(self, what: Callable[[float], Outcome]) -> bool:
        self._check_open()
        outcome = what(monotonic())
        self._turn()
        if not outcome.settled:
            future: asyncio.Future[None] = asyncio.get_running_loop().create_future()
            outcome.then = lambda: None if future.done() else future.set_result(None)
            await future
        return outcome.result()

    async def _until(self, done: Callable[[], bool]) -> None:
        while not done():
            self._check_open()
            self._check_refused()
            future: asyncio.Future[None] = asyncio.get_running_loop().create_future()
            self._waiters.add(future)
            try:
                await future
            finally:
                self._waiters.discard(future)

    def _opened(self, which: Which, line: Line) -> None:
        self._watched[which] = _Watched(line, lambda: self._receive(which), self._turn)

    def _closing(self, which: Which, line: Line) -> None:
        self._watched.pop(which).end()

    def _receive(self, which: Which) -> None:
        self._lines.receive(which, monotonic())
        self._turn()

    def _turn(self) -> None:
        """Whenever something may have changed: moves on, and tells everybody."""
        if self._closed:
            return
        self._lines.turn(monotonic())
        for watched in self._watched.values():
            watched.write()
        self._set_timer()
        self._pass_on()

    def _set_timer(self) -> None:
        if self._timer is not None:
            self._timer.cancel()
            self._timer = None
        due = self._session.next_time()
        if due is not None:
            loop = asyncio.get_running_loop()
            self._timer = loop.call_later(max(0.0, due - monotonic()), self._turn)

    def _pass_on(self) -> None:
        self._collect()
        for future in self._waiters:
            if not future.done():
                future.set_result(None)
        while self._undelivered:
            notice = self._undelivered.popleft()
            try:
                self._tell(notice)
            except Exception as error:
                asyncio.get_running_loop().call_exception_handler(
                    {"message": f"a callback of agent {self.name!r} failed", "exception": error}
                )
