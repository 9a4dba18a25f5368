# Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
"""An agent for programs that block. :mod:`ordovan.aio` has the one for asyncio."""

from __future__ import annotations

import os
import select
import threading
from collections.abc import Callable, Iterable, Iterator
from contextlib import contextmanager
from time import monotonic
from types import TracebackType
from typing import Self

from ._discovery import Socket
from ._driver import Lines
from ._line import Deadline
from ._mirror import Unread
from ._session import Outcome
from ._view import AgentView
from .connection import ANSWER_TIMEOUT
from .errors import NoAnswer
from .values import Change, Event, Lost, Stage


class Agent(AgentView):
    """A program's part in the start-up: its events, and a mirror of the stages.

    name            by which the hub knows it
    events          what it declares at first
    socket          as :func:`ordovan.find_socket` takes it
    lost            what the hub does when the connection ends without :meth:`leave`: ``"keep"`` what
                    was declared, or ``"withdraw"`` it
    take            the first time, the agent is taken over from another process that has its name;
                    never again afterwards, so that two of one name do not fight
    all             the mirror has all stages with their events, not only active ones without
    answer_timeout  seconds that the hub may take for an answer; then it counts as gone

    The agent belongs to its name, not to this object: when the program ends, even by
    :meth:`close`, the hub keeps what was declared, unless ``lost`` says otherwise.

    It has no thread of its own: everything happens inside its methods, on the thread that calls them,
    so that no callback comes unexpected. ``on_change`` and ``on_connected``, functions that the program
    may set, are called from :meth:`join`, :meth:`wait`, :meth:`flush`, :meth:`poll`, :meth:`run` and
    :meth:`changes` only; what they raise, these raise. While none is called the hub keeps what changes; but an agent
    whose hub was restarted meanwhile counts as lost there until one is called. A program that has
    something else to do for good gives :meth:`run` a thread, or calls :meth:`poll` in its own loop
    when :meth:`filenos` are readable and once a second. Use on two threads at once raises RuntimeError,
    but for :meth:`stop`.

    When the hub goes, the agent joins again as soon as it is back, and tells its whole declaration.
    Until then everything can be said all the same, the mirror is what it was last, and ``connected``
    is false. When the hub is another start-up, the mirror begins anew.

    Errors: a hub that refuses the agent ends all attempts to join, and these methods, and
    :meth:`leave`, raise what it said, such as :class:`ordovan.Connected` after another process took
    the agent over, until :meth:`join` is called again. A ``timeout`` in seconds, None for ever, that is over raises
    :class:`ordovan.NoAnswer`, a TimeoutError; its ``__cause__`` is why there is no connection, if there
    is none.
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
        self._lines = Lines(self._session, socket)
        self._delivering = False
        self._user = threading.RLock()
        self._stopping = False
        self._wakeup: tuple[int, int] | None = None
        # A signal handler may call stop() on the thread that holds it.
        self._wakeup_lock = threading.RLock()

    # Joining and leaving.

    def join(self, timeout: float | None = None) -> None:
        """Joins, and goes on joining when the hub comes back. Blocks until connected: a hub that is not
        there is waited for. ``with`` does it, without a timeout."""
        with self._alone():
            self._start(again=True)
            if not self._until(lambda: self._session.connected, Deadline(timeout)):
                raise NoAnswer("the agent has not joined in time") from self._session.trouble

    def leave(self, timeout: float | None = None) -> None:
        """Leaves: the agent's events go with it. Blocks until the hub knows, also one that is away.
        Then the agent is closed. After a timeout the hub may know, or not; call it again."""
        with self._alone():
            self._check_open()
            self._check_refused()
            outcome = self._session.leave(monotonic())
            if not self._until(lambda: outcome.settled, Deadline(timeout), hears=True):
                raise NoAnswer(
                    "the hub has not said in time that the agent has left"
                ) from self._session.trouble
            outcome.result()
            self._close()

    def close(self) -> None:
        """Ends the connections without leaving. Does not block; what is not sent yet is not sent
        (:meth:`flush`). Once more does nothing."""
        with self._alone():
            self._close()

    def __enter__(self) -> Self:
        try:
            self.join()
        except BaseException:
            self.close()
            raise
        return self

    def __exit__(
        self,
        kind: type[BaseException] | None,
        error: BaseException | None,
        trace: TracebackType | None,
    ) -> None:
        self.close()

    # Saying something. Blocks until the hub has answered, at most answer_timeout.

    def declare(self, *events: Event, withdraw: Iterable[str] = ()) -> bool:
        """Declares events or changes declared ones, and withdraws those for the stages ``withdraw``,
        all in one instant.

        Returns whether the hub has it; false: it is away, and is told when it joins. Raises what the
        hub answers, InvalidEvent, NotYours, TooMuch, and MessageTooLarge; then the declaration is
        what it was.
        """
        return self._say(lambda now: self._session.declare(events, withdraw, now))

    def withdraw(self, *stages: str) -> bool:
        """Withdraws the events for these stages; returns and raises as :meth:`declare`."""
        return self.declare(withdraw=stages)

    def report(
        self, stage: str, complete: bool | None = None, note: str | None = None
    ) -> bool:
        """Reports how far the event for ``stage`` is: complete, or not any more, with a note of up to
        1,024 bytes for people, or the note alone. Neither means complete.

        Returns as :meth:`declare`. The note said last is told again to a hub that comes back. Raises
        ValueError if there is no such event, NoSuchStage if the hub knows of none.
        """
        return self._say(lambda now: self._session.report(stage, complete, note, now))

    def complete(self, stage: str, note: str | None = None) -> bool:
        """Reports the event for ``stage`` complete."""
        return self.report(stage, True, note)

    def note(self, stage: str, note: str) -> bool:
        """Says something for people about the event for ``stage``."""
        return self.report(stage, None, note)

    def flush(self, timeout: float | None = None) -> None:
        """Blocks until the hub has everything that was said, also a hub that is away."""
        with self._alone():
            self._start()
            done = self._until(lambda: self._session.told, Deadline(timeout))
            if not done:
                raise NoAnswer("the hub has not heard everything in time") from self._session.trouble

    # Hearing something.

    def wait(self, stage: str | None = None, timeout: float | None = None) -> Stage:
        """Blocks until the stage of an event of this agent is active; returns the stage.

        Without ``stage`` it is any whose event this program has not reported complete. Raises
        ValueError if there is no such event. A stage that was active before the hub went still is.
        """
        session = self._session
        session.check_waits(stage)
        with self._alone():
            self._start()
            if not self._until(lambda: session.active(stage) is not None, Deadline(timeout)):
                raise NoAnswer("no stage has become active in time")
            found = session.active(stage)
            assert found is not None
            return found

    def changes(self, timeout: float | None = None) -> Iterator[Change]:
        """Iterates over changes of stages in the mirror, from now on; stages that are in it already come
        first. Each step blocks until there is one, up to ``timeout``, which ends the iteration. A
        slow reader misses what a stage was in between, never what it is now."""
        reader = self._new_reader()
        try:
            while True:
                change = self._next_change(reader, Deadline(timeout))
                if change is None:
                    return
                yield change
        finally:
            self._readers.remove(reader)

    def poll(self, timeout: float | None = 0) -> None:
        """Takes in what has come, calls callbacks, joins again if it is time to. Blocks until something
        has come, up to ``timeout`` seconds, by default not at all."""
        with self._alone():
            self._start()
            self._move()
            self._check_refused()
            self._receive(Deadline(0 if self._undelivered else timeout))
            self._move()
            self._deliver()
            self._check_refused()

    def filenos(self) -> tuple[int, ...]:
        """Descriptors that are readable when :meth:`poll` has something to take in. They change."""
        return tuple(line.fileno() for line in self._lines.open.values())

    def run(self) -> None:
        """Keeps the agent connected and calls callbacks; blocks until :meth:`stop`."""
        with self._alone():
            self._start()
            with self._woken():
                self._until(lambda: self._stopping, Deadline(None))
            self._stopping = False

    def stop(self) -> None:
        """Ends :meth:`run`, or the next one. For any thread, and for signal handlers of Python."""
        self._stopping = True
        with self._wakeup_lock:
            if self._wakeup is not None:
                try:
                    os.write(self._wakeup[1], b"\0")
                except BlockingIOError:
                    pass

    # How it is done.

    @contextmanager
    def _alone(self) -> Iterator[None]:
        if not self._user.acquire(blocking=False):
            raise RuntimeError(f"agent {self.name!r} is in use on another thread")
        try:
            yield
        finally:
            self._user.release()

    @contextmanager
    def _woken(self) -> Iterator[None]:
        """The pipe by which stop() wakes run()."""
        if self._wakeup is not None:
            raise RuntimeError("run() is called from inside run()")
        pipe = os.pipe()
        os.set_blocking(pipe[0], False)
        os.set_blocking(pipe[1], False)
        with self._wakeup_lock:
            self._wakeup = pipe
        try:
            yield
        finally:
            with self._wakeup_lock:
                self._wakeup = None
            os.close(pipe[0])
            os.close(pipe[1])

    def _start(self, again: bool = False) -> None:
        self._check_open()
        if not again:
            self._check_refused()
        self._session.start()

    def _close(self) -> None:
        self._closed = True
        self._lines.close(monotonic())
        self._collect()

    def _say(self, what: Callable[[float], Outcome]) -> bool:
        with self._alone():
            self._check_open()
            outcome = what(monotonic())
            # Settled at the latest when the hub's time for an answer is up.
            self._until(lambda: outcome.settled, Deadline(None), hears=False)
            return outcome.result()

    def _next_change(self, reader: Unread, deadline: Deadline) -> Change | None:
        with self._alone():
            self._start()
            self._until(lambda: bool(reader), deadline)
            return reader.take()

    def _until(
        self, done: Callable[[], bool], deadline: Deadline, *, hears: bool = True
    ) -> bool:
        """Goes on until it is done; false if the deadline came first. Looks once at least.
        ``hears``: callbacks are called, and a refusal is raised."""
        looked = False
        while True:
            # What can be done without waiting may be all that it takes, or the end of it.
            self._move()
            if hears:
                self._deliver()
            if done():
                return True
            self._check_open()
            if hears:
                self._check_refused()
            if looked and deadline.passed:
                return False
            self._receive(deadline)
            looked = True

    def _move(self) -> None:
        """Opens, closes and sends what is to be; does not wait."""
        self._lines.turn(monotonic())
        self._collect()

    def _receive(self, deadline: Deadline) -> None:
        """Waits once for something to come in, or to be due, and takes it in."""
        poll = select.poll()
        for line in self._lines.open.values():
            poll.register(line.fileno(), select.POLLIN | (select.POLLOUT if line.sends else 0))
        if self._wakeup is not None:
            poll.register(self._wakeup[0], select.POLLIN)
        ready = {fd for fd, _ in poll.poll(deadline.wait_ms(self._session.next_time()))}
        now = monotonic()
        for which, line in list(self._lines.open.items()):
            if line.fileno() in ready:
                self._lines.receive(which, now)

    def _deliver(self) -> None:
        """Calls callbacks, one at a time, in the order of what happened."""
        if self._delivering:
            return
        self._delivering = True
        try:
            while self._undelivered:
                self._tell(self._undelivered.popleft())
        finally:
            self._delivering = False
