# Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
"""What is said between agents and the hub, as values that never change.

Times are seconds, as floats: durations as they are, moments on the hub's clock, which counts from 0
when the start-up begins. Names of agents and stages have 1 to 255 bytes in UTF-8, without a zero
byte.
"""

from __future__ import annotations

import math
from collections.abc import Iterable, Mapping
from dataclasses import dataclass, field, replace
from types import MappingProxyType
from typing import Literal

from ._wire import Parameters
from .errors import ProtocolError

#: What the end of an agent's connection does: keep what it declared, or withdraw it.
Lost = Literal["keep", "withdraw"]

#: What can be waited for.
State = Literal["active", "complete"]

#: How many bytes of UTF-8 a name may have.
MAX_NAME = 255
#: How many bytes of UTF-8 a note may have.
MAX_NOTE = 1024


def check_name(what: str, name: str) -> str:
    """The name itself, or ValueError, TypeError if it is none."""
    if not isinstance(name, str):
        raise TypeError(f"{what} is no str: {name!r}")
    length = len(name.encode())
    if not 1 <= length <= MAX_NAME:
        raise ValueError(f"{what} has {length} bytes, not 1 to {MAX_NAME}")
    if "\0" in name:
        raise ValueError(f"{what} has a zero byte")
    return name


@dataclass(frozen=True, init=False)
class Event:
    """An agent's event, as it is declared.

    stage       the stage to which it belongs; an agent has one event for a stage
    timeout     seconds that it may take from the stage's start on, more than 0; None: for ever
    critical    whether the stage waits for the event even when its time is up
    dependency  stages that must be complete before this one starts; any iterable of names
    complete    whether it is done. None: stays what the hub has, false for a new event, so that a
                program that starts again takes nothing back

    Raises ValueError or TypeError for what cannot be.
    """

    stage: str
    timeout: float | None
    critical: bool
    dependency: tuple[str, ...]
    complete: bool | None

    def __init__(
        self,
        stage: str,
        timeout: float | None = None,
        critical: bool = False,
        dependency: Iterable[str] = (),
        complete: bool | None = None,
    ) -> None:
        if isinstance(dependency, str):
            raise TypeError("an event's dependency is one str; a list or tuple of names is meant")
        if timeout is not None:
            timeout = _seconds("an event's timeout", timeout)
        for what, value in (("critical", critical), ("complete", complete)):
            if not isinstance(value, bool) and not (what == "complete" and value is None):
                raise TypeError(f"an event's {what} is no bool: {value!r}")
        # Frozen: nobody else writes them.
        write = object.__setattr__
        write(self, "stage", check_name("an event's stage", stage))
        write(self, "timeout", timeout)
        write(self, "critical", critical)
        write(self, "dependency", tuple(check_name("a dependency", name) for name in dependency))
        write(self, "complete", complete)

    def parameters(self) -> Parameters:
        """As it is sent."""
        said: Parameters = {"stage": self.stage}
        if self.timeout is not None:
            said["timeout"] = self.timeout
        if self.critical:
            said["critical"] = True
        if self.dependency:
            said["dependency"] = list(self.dependency)
        if self.complete is not None:
            said["complete"] = self.complete
        return said

    def reported(self, complete: bool) -> Event:
        """The same event, complete or not."""
        return replace(self, complete=complete)


def _seconds(what: str, value: float) -> float | None:
    if isinstance(value, bool) or not isinstance(value, (int, float)):
        raise TypeError(f"{what} is no number: {value!r}")
    # JSON has no infinity; none at all says the same.
    if value == math.inf:
        return None
    if not value > 0:
        raise ValueError(f"{what} is {value!r}, which is not more than 0")
    return float(value)


@dataclass(frozen=True)
class StageEvent:
    """One agent's event, as its stage shows it.

    agent      whose it is
    complete   as last reported
    connected  whether a connection speaks for the agent now
    note       what the agent last said about it, for people; None for nothing
    """

    agent: str
    complete: bool
    connected: bool
    note: str | None = None


@dataclass(frozen=True)
class Stage:
    """A stage, put together from its events.

    name        by which events and dependencies name it
    active      it has started
    complete    it has ended, with its events complete or its time up
    timed_out   its time was up before its events were complete
    suspended   it is critical and late: what depends on it waits
    critical    one of its events is, or a critical stage depends on it
    timeout     seconds, the longest of its events; None for none
    dependency  stages that must be complete before
    event       its events; empty where an answer leaves them out
    """

    name: str
    active: bool
    complete: bool
    timed_out: bool
    suspended: bool
    critical: bool
    timeout: float | None
    dependency: tuple[str, ...]
    event: tuple[StageEvent, ...]


@dataclass(frozen=True)
class AgentInfo:
    """An agent that the hub knows.

    name       by which calls name it
    connected  a connection speaks for it now
    joined     it has joined, now or before; one that only declares and reports never is lost
    lost       what its connection's end does
    event      its declaration, with what was reported
    """

    name: str
    connected: bool
    joined: bool
    lost: Lost
    event: tuple[Event, ...]


@dataclass(frozen=True)
class Entry:
    """A line of the start-up's log.

    sequence  counts from 1
    time      when it was written, in seconds on the hub's clock
    message   as it is: it may hold what is meant for no terminal
    """

    sequence: int
    time: float
    message: str


@dataclass(frozen=True)
class Status:
    """Everything that the hub knows at one moment.

    application  what is started here
    startup      which start-up this is, a text that is another one for each
    enabled      whether stages may start
    complete     start-up is complete: every stage is active and complete
    sequence     counts the instants that changed something
    time         seconds on the hub's clock
    stage        all stages, with their events
    agent        all agents, with their declarations
    """

    application: str
    startup: str
    enabled: bool
    complete: bool
    sequence: int
    time: float
    stage: tuple[Stage, ...]
    agent: tuple[AgentInfo, ...]


@dataclass(frozen=True)
class Progress:
    """One answer to a watch.

    startup   which start-up this is
    sequence  counts the instants that changed something
    time      when this was so, in seconds on the hub's clock
    snapshot  forget what you have: these are all stages
    partial   more of the same sequence number follows
    complete  start-up is complete
    stage     the stages that changed, whole
    """

    startup: str
    sequence: int
    time: float
    snapshot: bool
    partial: bool
    complete: bool
    stage: tuple[Stage, ...]


@dataclass(frozen=True)
class Reached:
    """What was waited for has come.

    time       when, in seconds on the hub's clock
    timed_out  the stage's own time was up
    """

    time: float
    timed_out: bool


@dataclass(frozen=True)
class Explanation:
    """Why a stage, or start-up, is not complete.

    text   for people, fit for a terminal
    cause  what the text tells of, roots first, as the hub says it
    """

    text: str
    cause: tuple[Mapping[str, object], ...]


@dataclass(frozen=True)
class Info:
    """What the hub says of itself."""

    vendor: str
    product: str
    version: str
    url: str
    interfaces: tuple[str, ...]


@dataclass(frozen=True)
class Change:
    """A stage that changed in an agent's mirror.

    startup  the start-up in which it is
    name     the stage
    before   as it was last told of; None if it was not there
    now      as it is; None if it is gone, as after the beginning of another start-up
    """

    startup: str
    name: str
    before: Stage | None = field(repr=False)
    now: Stage | None

    @property
    def started(self) -> bool:
        """The stage became active with this change."""
        return _is(self.now, "active") and not _is(self.before, "active")

    @property
    def completed(self) -> bool:
        """The stage became complete with this change."""
        return _is(self.now, "complete") and not _is(self.before, "complete")


def _is(stage: Stage | None, state: State) -> bool:
    return stage is not None and (stage.active if state == "active" else stage.complete)


# Reading what came. Members that nobody here knows are left alone: a newer hub may have them.


def _member(of: Mapping[str, object], key: str) -> object:
    value = of.get(key)
    if value is None:
        raise ProtocolError(f"an answer has no {key}")
    return value


def text(of: Mapping[str, object], key: str) -> str:
    """A member that is a text."""
    value = _member(of, key)
    if not isinstance(value, str):
        raise ProtocolError(f"an answer's {key} is no text")
    return value


def truth(of: Mapping[str, object], key: str) -> bool:
    """A member that is true or false."""
    value = _member(of, key)
    if not isinstance(value, bool):
        raise ProtocolError(f"an answer's {key} is neither true nor false")
    return value


def whole(of: Mapping[str, object], key: str) -> int:
    """A member that is a whole number."""
    value = _member(of, key)
    if isinstance(value, bool) or not isinstance(value, int):
        raise ProtocolError(f"an answer's {key} is no whole number")
    return value


def number(of: Mapping[str, object], key: str) -> float:
    """A member that is a number; whole ones are numbers, too."""
    value = _member(of, key)
    if isinstance(value, bool) or not isinstance(value, (int, float)):
        raise ProtocolError(f"an answer's {key} is no number")
    try:
        result = float(value)
    except OverflowError:
        result = math.inf
    if not math.isfinite(result):
        raise ProtocolError(f"an answer's {key} is too large")
    return result


def texts(of: Mapping[str, object], key: str) -> tuple[str, ...]:
    """A member that is a list of texts."""
    result = []
    for value in _list(of, key):
        if not isinstance(value, str):
            raise ProtocolError(f"an answer's {key} holds what is no text")
        result.append(value)
    return tuple(result)


def objects(of: Mapping[str, object], key: str) -> list[Mapping[str, object]]:
    """A member that is a list of objects."""
    result: list[Mapping[str, object]] = []
    for value in _list(of, key):
        if not isinstance(value, dict):
            raise ProtocolError(f"an answer's {key} holds what is no object")
        result.append(value)
    return result


def _list(of: Mapping[str, object], key: str) -> list[object]:
    value = _member(of, key)
    if not isinstance(value, list):
        raise ProtocolError(f"an answer's {key} is no list")
    return value


def _timeout(of: Mapping[str, object]) -> float | None:
    return None if of.get("timeout") is None else number(of, "timeout")


def read_event(of: Mapping[str, object]) -> Event:
    """An event that came."""
    try:
        return Event(
            text(of, "stage"),
            _timeout(of),
            of.get("critical") is not None and truth(of, "critical"),
            () if of.get("dependency") is None else texts(of, "dependency"),
            None if of.get("complete") is None else truth(of, "complete"),
        )
    except ValueError as error:
        raise ProtocolError(f"an event that cannot be came: {error}") from None


def _read_stage_event(of: Mapping[str, object]) -> StageEvent:
    return StageEvent(
        text(of, "agent"),
        truth(of, "complete"),
        truth(of, "connected"),
        None if of.get("note") is None else text(of, "note"),
    )


def read_stage(of: Mapping[str, object]) -> Stage:
    """A stage that came."""
    return Stage(
        text(of, "name"),
        truth(of, "active"),
        truth(of, "complete"),
        truth(of, "timedOut"),
        truth(of, "suspended"),
        truth(of, "critical"),
        _timeout(of),
        texts(of, "dependency"),
        tuple(_read_stage_event(one) for one in objects(of, "event")),
    )


def _read_lost(of: Mapping[str, object]) -> Lost:
    value = text(of, "lost")
    if value == "keep":
        return "keep"
    if value == "withdraw":
        return "withdraw"
    raise ProtocolError("an agent's lost is neither keep nor withdraw")


def _read_agent(of: Mapping[str, object]) -> AgentInfo:
    return AgentInfo(
        text(of, "name"),
        truth(of, "connected"),
        truth(of, "joined"),
        _read_lost(of),
        tuple(read_event(one) for one in objects(of, "event")),
    )


def read_status(of: Mapping[str, object]) -> Status:
    """The answer to Status."""
    return Status(
        text(of, "application"),
        text(of, "startup"),
        truth(of, "enabled"),
        truth(of, "complete"),
        whole(of, "sequence"),
        number(of, "time"),
        tuple(read_stage(one) for one in objects(of, "stage")),
        tuple(_read_agent(one) for one in objects(of, "agent")),
    )


def read_progress(of: Mapping[str, object]) -> Progress:
    """An answer to Watch."""
    return Progress(
        text(of, "startup"),
        whole(of, "sequence"),
        number(of, "time"),
        truth(of, "snapshot"),
        truth(of, "partial"),
        truth(of, "complete"),
        tuple(read_stage(one) for one in objects(of, "stage")),
    )


def read_reached(of: Mapping[str, object]) -> Reached:
    """The answer to Wait."""
    return Reached(number(of, "time"), truth(of, "timedOut"))


def read_explanation(of: Mapping[str, object]) -> Explanation:
    """The answer to Explain."""
    causes = (MappingProxyType(dict(one)) for one in objects(of, "cause"))
    return Explanation(text(of, "text"), tuple(causes))


def read_entries(of: Mapping[str, object]) -> list[Entry]:
    """An answer to Log."""
    return [
        Entry(whole(one, "sequence"), number(one, "time"), text(one, "message"))
        for one in objects(of, "entry")
    ]


def read_info(of: Mapping[str, object]) -> Info:
    """The answer to GetInfo."""
    return Info(
        text(of, "vendor"),
        text(of, "product"),
        text(of, "version"),
        text(of, "url"),
        texts(of, "interfaces"),
    )
