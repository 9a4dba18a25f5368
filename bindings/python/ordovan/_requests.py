# Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
"""The methods of the interface, as requests: what is sent, and how its answer is read."""

from __future__ import annotations

from collections.abc import Callable, Iterable, Mapping
from dataclasses import dataclass, field
from typing import Generic, TypeVar

from . import values
from .values import MAX_NOTE, Event, Lost, State, check_name

INTERFACE = "io.ordovan.Stages"
SERVICE = "org.varlink.service"

T = TypeVar("T")


@dataclass(frozen=True)
class Request(Generic[T]):
    """A call, and how to read what comes back."""

    method: str
    parameters: dict[str, object]
    read: Callable[[Mapping[str, object]], T] = field(compare=False)


def _nothing(_: Mapping[str, object]) -> None:
    return None


def _ours(
    method: str, read: Callable[[Mapping[str, object]], T], **parameters: object
) -> Request[T]:
    said = {key: value for key, value in parameters.items() if value is not None}
    return Request(f"{INTERFACE}.{method}", said, read)


def _stage(stage: str | None) -> str | None:
    return None if stage is None else check_name("a stage", stage)


def _agent(agent: str | None) -> str | None:
    return None if agent is None else check_name("an agent", agent)


@dataclass(frozen=True)
class Joined:
    """The answer to Join."""

    startup: str
    sequence: int


def _read_joined(of: Mapping[str, object]) -> Joined:
    return Joined(values.text(of, "startup"), values.whole(of, "sequence"))


def join(
    agent: str, events: Iterable[Event] | None, lost: Lost, take: bool
) -> Request[Joined]:
    """Join, with the whole declaration; None: it stays as it is."""
    said = None if events is None else [one.parameters() for one in events]
    return _ours(
        "Join", _read_joined, agent=agent, event=said, lost=lost, take=True if take else None
    )


def declare(
    agent: str | None, events: Iterable[Event], withdraw: Iterable[str]
) -> Request[None]:
    """Declare; both may be empty."""
    said = [one.parameters() for one in events]
    gone = [check_name("a stage", stage) for stage in withdraw]
    return _ours("Declare", _nothing, agent=_agent(agent), event=said, withdraw=gone or None)


def report(
    agent: str | None, stage: str, complete: bool | None, note: str | None
) -> Request[None]:
    """Report; neither complete nor note means that the event is complete."""
    if note is not None and len(note.encode()) > MAX_NOTE:
        raise ValueError(f"a note has {len(note.encode())} bytes, more than {MAX_NOTE}")
    name = check_name("a stage", stage)
    return _ours(
        "Report", _nothing, agent=_agent(agent), stage=name, complete=complete, note=note
    )


def leave(agent: str | None) -> Request[None]:
    """Leave."""
    return _ours("Leave", _nothing, agent=_agent(agent))


def watch(all: bool, after: int | None, startup: str | None) -> Request[values.Progress]:
    """Watch, to be called with more."""
    return _ours(
        "Watch", values.read_progress, all=True if all else None, after=after, startup=startup
    )


def wait(stage: str | None, state: State, timeout: float | None) -> Request[values.Reached]:
    """Wait."""
    if state not in ("active", "complete"):
        raise ValueError(f"a state is active or complete, not {state!r}")
    if timeout is not None and not timeout >= 0:
        raise ValueError(f"a timeout is not negative, as is {timeout!r}")
    return _ours("Wait", values.read_reached, stage=_stage(stage), state=state, timeout=timeout)


def status() -> Request[values.Status]:
    """Status."""
    return _ours("Status", values.read_status)


def explain(stage: str | None) -> Request[values.Explanation]:
    """Explain."""
    return _ours("Explain", values.read_explanation, stage=_stage(stage))


def log(after: int | None, follow: bool) -> Request[list[values.Entry]]:
    """Log; to be called with more if it follows."""
    return _ours("Log", values.read_entries, after=after, follow=True if follow else None)


def enable(enabled: bool) -> Request[None]:
    """Enable."""
    return _ours("Enable", _nothing, enabled=bool(enabled))


def info() -> Request[values.Info]:
    """GetInfo of every Varlink service."""
    return Request(f"{SERVICE}.GetInfo", {}, values.read_info)


def _read_description(of: Mapping[str, object]) -> str:
    return values.text(of, "description")


def interface_description(interface: str) -> Request[str]:
    """GetInterfaceDescription of every Varlink service."""
    return Request(
        f"{SERVICE}.GetInterfaceDescription", {"interface": interface}, _read_description
    )
