# Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
"""An agent's life with its hub, without sockets, clocks or waiting: :mod:`ordovan.agent` and
:mod:`ordovan.aio` drive it, each with its own loop.

There are two connections, since a watch keeps its own to itself:

    calls   Join first; then Declare, Report, Leave, in the order in which the program says them
    watch   Watch, from the sequence number that the mirror has reached

Each is opened when it is missing, ``calls`` first, and not before the back-off is over. What the
program declares is kept in ``events`` and said again, whole, with every Join; so whatever was said
while the hub was away, or was under way when it went, arrives. ``acknowledged`` is the declaration as
the hub has accepted it: what the hub refuses is taken back to that, so that it is not said again.

A refusal of Join or Watch ends all attempts, and is for the program to see: another process has taken
the agent over, or may, or the user may not speak for it. Trying again would not mend it.
"""

from __future__ import annotations

import errno
import os
import random
from collections import deque
from collections.abc import Callable, Iterable
from dataclasses import replace
from typing import Literal

from . import _requests as requests
from ._mirror import Mirror
from ._wire import MAX_SENT, Answer, Channel, encode_call, to_json
from .errors import (
    Connected,
    Error,
    MessageTooLarge,
    NoSuchAgent,
    NotJoined,
    SocketNotFound,
    Unreachable,
    VarlinkError,
)
from .values import Change, Event, Lost, Stage, check_name, read_progress

Which = Literal["calls", "watch"]

#: Seconds after which a connection that ended, or could not be made, is tried again: somewhere
#: between half of a span and all of it, which doubles each time.
_FIRST_SPAN = 0.1
_LAST_SPAN = 2.0


#: Why a connection could not be made: what a hub that comes, or has room, mends.
_PASSING = {
    errno.ENOENT,
    errno.ECONNREFUSED,
    errno.ECONNRESET,
    errno.EAGAIN,
    errno.EMFILE,
    errno.ENFILE,
    errno.ENOMEM,
    errno.ENOBUFS,
}


class Backoff:
    """How long to wait before trying again: from 50 ms, doubling, up to 2 s, each at random between
    half and whole, so that the agents of a hub that went do not all come back at once."""

    def __init__(self, draw: Callable[[float, float], float] = random.uniform) -> None:
        self._draw = draw
        self._span = _FIRST_SPAN

    def next(self) -> float:
        """Seconds to wait this time."""
        span = self._span
        self._span = min(2 * span, _LAST_SPAN)
        return self._draw(span / 2, span)

    def reset(self) -> None:
        """It went well: begin from the start next time."""
        self._span = _FIRST_SPAN


class Outcome:
    """What becomes of something that the program said. ``then`` is called once it is settled."""

    def __init__(self) -> None:
        self.settled = False
        #: The hub has it. Otherwise, without an error, it is away, and is told when it is back.
        self.acknowledged = False
        self.error: Error | None = None
        self.then: Callable[[], None] = lambda: None

    def settle(self, acknowledged: bool, error: Error | None = None) -> None:
        """REQUIRES: called once."""
        self.settled, self.acknowledged, self.error = True, acknowledged, error
        self.then()

    def result(self) -> bool:
        """Whether the hub has it; raises what it answered instead. REQUIRES: settled."""
        if self.error is not None:
            raise self.error
        return self.acknowledged


class Session:
    """See above. The driver asks :meth:`wanted` which connections to open, and tells what becomes of
    them by :meth:`opened`, :meth:`failed` and :meth:`closed`; ends those in ``drop``; calls
    :meth:`tick` at the latest at :meth:`next_time`; passes ``notices`` on."""

    def __init__(
        self,
        name: str,
        events: Iterable[Event],
        lost: Lost,
        take: bool,
        all: bool,
        answer_timeout: float,
    ) -> None:
        if lost not in ("keep", "withdraw"):
            raise ValueError(f"lost is keep or withdraw, not {lost!r}")
        if not answer_timeout > 0:
            raise ValueError("the time for an answer is more than 0")
        self.name = check_name("an agent", name)
        self.events: dict[str, Event] = {}
        self.acknowledged: dict[str, Event] = {}
        self.notes: dict[str, str] = {}
        self.mirror = Mirror()
        self.notices: deque[Change | bool] = deque()
        self.refused: Error | None = None
        self.left = False
        #: Why there is no connection, if there is none.
        self.trouble: Exception | None = None
        self.drop: list[Which] = []
        self.backoff = Backoff()
        self._lost: Lost = lost
        self._take = take
        self._all = all
        self._answer_timeout = answer_timeout
        self._running = False
        self._leaving: Outcome | None = None
        self._calls: Channel | None = None
        self._watch: Channel | None = None
        self._joined: str | None = None
        self._connected = False
        self._retry_at = 0.0
        # By when the calls under way are answered, in their order.
        self._due: deque[float] = deque()
        self._sizes: dict[str, int] = {}
        self._size = self._empty_size()
        self._put({event.stage: event for event in self._distinct(events)}, ())

    # What the driver asks and tells.

    def start(self) -> None:
        """From now on connections are wanted; after a refusal, again."""
        if self.refused is not None:
            self._retry_at = 0.0
        self.refused = None
        self._running = True

    def stop(self) -> None:
        """No connection is wanted any more; what is under way is not answered."""
        self._running = False

    @property
    def connected(self) -> bool:
        """It has joined, and the mirror is up to date."""
        return self._connected

    @property
    def told(self) -> bool:
        """The hub has everything that was said."""
        return self._joined is not None and not self._due

    def check_waits(self, stage: str | None) -> None:
        """Raises ValueError if no event is there to wait for."""
        if stage is not None and stage not in self.events:
            raise ValueError(f"agent {self.name!r} has no event for stage {stage!r}")
        if stage is None and all(event.complete for event in self.events.values()):
            raise ValueError(f"agent {self.name!r} has no event that is not complete")

    def active(self, stage: str | None) -> Stage | None:
        """The stage, if it is active; of None, the first active one with an event to be done."""
        wanted = [one.stage for one in self.events.values() if not one.complete]
        for name in wanted if stage is None else [stage]:
            found = self.mirror.stages.get(name)
            if found is not None and found.active:
                return found
        return None

    def wanted(self, now: float) -> Which | None:
        """The connection to open now."""
        return self._missing() if now >= self._retry_at else None

    def next_time(self) -> float | None:
        """When to look again, if nothing comes; None: then nothing will change."""
        times = [self._due[0]] if self._due else []
        if self._missing() is not None:
            times.append(self._retry_at)
        return min(times, default=None)

    def _missing(self) -> Which | None:
        if not self._running or self.refused is not None or self.left:
            return None
        if self._calls is None:
            return "calls"
        if self._watch is None and self._joined is not None and self._leaving is None:
            return "watch"
        return None

    def tick(self, now: float) -> None:
        """A hub that has not answered in time is as good as gone."""
        if self._due and now >= self._due[0]:
            self._drop("calls")

    def opened(self, which: Which, now: float) -> Channel:
        """The connection stands; its first call is in the outbox of the channel returned."""
        channel = Channel()
        if which == "watch":
            self._watch = channel
            self._say_watch(channel)
        else:
            self._calls = channel
            self._due.clear()
            self._say_join(channel, now)
            if self._leaving is not None:
                self._say_leave(self._leaving, now)
        self._look()
        return channel

    def failed(self, error: Exception, now: float) -> None:
        """The connection wanted could not be made."""
        self.trouble = error
        if isinstance(error, SocketNotFound):
            if not error.may_come:
                self._refuse(error)
        elif not isinstance(error, OSError) or error.errno not in _PASSING:
            self._refuse(Unreachable(f"the hub cannot be reached: {error}"))
        self._wait(now)

    def closed(self, which: Which, error: Error, now: float) -> None:
        """The connection has ended, by either side."""
        self.trouble = error
        if which == "watch":
            channel, self._watch = self._watch, None
            self.mirror.broken()
        else:
            channel, self._calls = self._calls, None
            self._joined = None
            self._due.clear()
        if which in self.drop:
            self.drop.remove(which)
        self._wait(now)
        self._look()
        if channel is not None:
            channel.lost(error)

    # What the program says. Each is kept, and sent if there is whom to send it to.

    def declare(self, events: Iterable[Event], withdraw: Iterable[str], now: float) -> Outcome:
        """Declares, changes and withdraws, all at once. Raises, with nothing changed, for what cannot
        be declared."""
        fresh = {event.stage: self._as_reported(event) for event in self._distinct(events)}
        gone = [stage for stage in withdraw if stage not in fresh]
        request = requests.declare(None, fresh.values(), gone)
        encode_call(request.method, request.parameters, more=False, oneway=False)
        self._put(fresh, gone)
        return self._say(request, {**fresh, **dict.fromkeys(gone)}, now)

    def report(
        self, stage: str, complete: bool | None, note: str | None, now: float
    ) -> Outcome:
        """Reports how far an event is."""
        event = self.events.get(stage)
        if event is None:
            raise ValueError(f"agent {self.name!r} has no event for stage {stage!r}")
        if complete is None and note is None:
            complete = True
        request = requests.report(None, stage, complete, note)
        if note is not None:
            self.notes[stage] = note
        touched: dict[str, Event | None] = {}
        if complete is not None:
            touched[stage] = self.events[stage] = event.reported(complete)
        return self._say(request, touched, now)

    def leave(self, now: float) -> Outcome:
        """The agent leaves; settled when the hub knows."""
        if self._leaving is not None:
            return self._leaving
        outcome = self._leaving = Outcome()
        self._running = True
        if self._calls is not None:
            self._say_leave(outcome, now)
        return outcome

    # What is said to the hub.

    def _say_join(self, channel: Channel, now: float) -> None:
        # Who leaves joins first, too, and takes nothing: the agent may be another process's by now.
        leaves = self._leaving is not None
        said = dict(self.events)
        request = requests.join(
            self.name, None if leaves else said.values(), self._lost, self._take and not leaves
        )
        self._due.append(now + self._answer_timeout)

        def answered(answer: Answer) -> None:
            if answer.error is not None:
                self._join_refused(answer.error)
                return
            joined = request.read(answer.parameters)
            self._due.popleft()
            self._joined_now(joined.startup, said)
            for stage, note in self.notes.items():
                if stage in said and not leaves:
                    self._send(requests.report(None, stage, None, note), lambda _: None, now)

        channel.call(request.method, request.parameters, answered)

    def _join_refused(self, error: Error) -> None:
        if not isinstance(error, VarlinkError):
            return
        self._drop("calls")
        # The hub has not yet seen the end of our own last connection.
        if not (isinstance(error, Connected) and error.pid == os.getpid()):
            self._refuse(error)

    def _joined_now(self, startup: str, said: dict[str, Event]) -> None:
        # Taken over once is enough: two programs of one name would take the agent from each other
        # for ever.
        self._take = False
        self._joined = startup
        self.acknowledged = dict(said)
        if self.mirror.startup not in (None, startup):
            self.notices.extend(self.mirror.forget())
        self._look()

    def _say_watch(self, channel: Channel) -> None:
        known = self.mirror.startup is not None
        after = self.mirror.sequence if known else None
        request = requests.watch(self._all, after, self.mirror.startup)

        def answered(answer: Answer) -> None:
            if answer.error is not None:
                if isinstance(answer.error, VarlinkError):
                    self._drop("watch")
                    self._refuse(answer.error)
                return
            self.notices.extend(self.mirror.apply(read_progress(answer.parameters)))
            if answer.last:
                self._drop("watch")
            self._look()

        channel.call(request.method, request.parameters, answered, more=True)

    def _say(
        self, request: requests.Request[None], touched: dict[str, Event | None], now: float
    ) -> Outcome:
        """``touched`` is what the call makes of our events; None: withdrawn."""
        outcome = Outcome()

        def answered(answer: Answer) -> None:
            if answer.error is None:
                for stage, event in touched.items():
                    _replace(self.acknowledged, stage, event)
                outcome.settle(True)
            elif isinstance(answer.error, VarlinkError) and not isinstance(answer.error, NotJoined):
                self._take_back(touched)
                outcome.settle(False, answer.error)
            else:
                # Somebody else made the agent leave: joining says everything again.
                if isinstance(answer.error, NotJoined):
                    self._drop("calls")
                outcome.settle(False)

        if not self._send(request, answered, now):
            outcome.settle(False)
        return outcome

    def _say_leave(self, outcome: Outcome, now: float) -> None:
        def answered(answer: Answer) -> None:
            error = answer.error
            if isinstance(error, NotJoined) and self.refused is not None:
                return
            if error is None or isinstance(error, (NoSuchAgent, NotJoined)):
                self._gone(outcome)
            elif isinstance(error, VarlinkError):
                self._leaving = None
                outcome.settle(False, error)

        self._send(requests.leave(None), answered, now)

    def _send(
        self, request: requests.Request[None], answered: Callable[[Answer], None], now: float
    ) -> bool:
        channel = self._calls
        if channel is None:
            return False

        def first(answer: Answer) -> None:
            if self._calls is channel and self._due:
                self._due.popleft()
            answered(answer)

        channel.call(request.method, request.parameters, first)
        self._due.append(now + self._answer_timeout)
        return True

    # What follows from it.

    def _wait(self, now: float) -> None:
        # Both connections go when the hub does; that is one reason to wait, not two.
        if now >= self._retry_at:
            self._retry_at = now + self.backoff.next()

    def _gone(self, outcome: Outcome) -> None:
        self.left = True
        self._running = False
        self._drop("calls")
        self._drop("watch")
        outcome.settle(True)

    def _refuse(self, error: Error) -> None:
        self.refused = error
        self._drop("calls")
        self._drop("watch")

    def _drop(self, which: Which) -> None:
        there = self._calls if which == "calls" else self._watch
        if there is not None and which not in self.drop:
            self.drop.append(which)

    def _look(self) -> None:
        """Whether it is connected follows from all the rest."""
        connected = (
            self._joined is not None
            and self._watch is not None
            and self.mirror.startup == self._joined
        )
        if connected != self._connected:
            self._connected = connected
            self.notices.append(connected)
            if connected:
                self.backoff.reset()
                self.trouble = None

    def _take_back(self, touched: dict[str, Event | None]) -> None:
        for stage, event in touched.items():
            if self.events.get(stage) is event:
                self._set(stage, self.acknowledged.get(stage))

    # The declaration, which always fits into one Join.

    def _distinct(self, events: Iterable[Event]) -> list[Event]:
        result = list(events)
        for event in result:
            if not isinstance(event, Event):
                raise TypeError(f"no Event: {event!r}")
        if len({event.stage for event in result}) != len(result):
            raise ValueError("two events for one stage")
        return result

    def _as_reported(self, event: Event) -> Event:
        """What the program has reported holds on, as it does in the hub, when it says nothing of it. An
        event that was withdrawn, and the hub has not heard of that, is a new one all the same."""
        known = self.events.get(event.stage)
        if event.complete is None:
            if known is None and event.stage in self.acknowledged:
                return event.reported(False)
            if known is not None and known.complete is not None:
                return event.reported(known.complete)
        return event

    def _empty_size(self) -> int:
        request = requests.join(self.name, (), self._lost, True)
        return len(encode_call(request.method, request.parameters, more=False, oneway=False))

    def _put(self, fresh: dict[str, Event], gone: Iterable[str]) -> None:
        size = self._size - sum(self._sizes.get(stage, 0) for stage in {*fresh, *gone})
        size += sum(_size(event) for event in fresh.values())
        if size > MAX_SENT:
            raise MessageTooLarge(
                f"the declaration of agent {self.name!r} has {size} bytes, more than {MAX_SENT}"
            )
        for stage, event in fresh.items():
            self._set(stage, event)
        for stage in gone:
            self._set(stage, None)

    def _set(self, stage: str, event: Event | None) -> None:
        _replace(self.events, stage, event)
        self._size -= self._sizes.pop(stage, 0)
        if event is None:
            self.notes.pop(stage, None)
        else:
            self._sizes[stage] = _size(event)
            self._size += self._sizes[stage]


def _replace(events: dict[str, Event], stage: str, event: Event | None) -> None:
    if event is None:
        events.pop(stage, None)
    else:
        events[stage] = event


def _size(event: Event) -> int:
    """Its bytes in a Join, with the comma, and with room for what is reported later."""
    return len(to_json(replace(event, complete=False).parameters())) + 1

