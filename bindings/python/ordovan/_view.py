# Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
"""What both kinds of agent show."""

from __future__ import annotations

from collections import deque
from collections.abc import Callable, Iterable, Mapping
from types import MappingProxyType

from ._mirror import Unread
from ._session import Session
from .errors import ConnectionLost
from .values import Change, Event, Lost, Stage


class AgentView:
    """What an agent has declared, and what it knows."""

    def __init__(
        self,
        name: str,
        events: Iterable[Event],
        lost: Lost,
        take: bool,
        all: bool,
        answer_timeout: float,
    ) -> None:
        #: Called with each :class:`Change` of a stage in the mirror.
        self.on_change: Callable[[Change], None] | None = None
        #: Called with ``connected`` when that has changed.
        self.on_connected: Callable[[bool], None] | None = None
        self._session = Session(name, events, lost, take, all, answer_timeout)
        self._readers: list[Unread] = []
        self._undelivered: deque[Change | bool] = deque()
        self._closed = False

    # What is known. Does not block, and does not look whether there is news.

    @property
    def name(self) -> str:
        """By which the hub knows it."""
        return self._session.name

    @property
    def connected(self) -> bool:
        """The hub knows the agent, and the mirror is up to date, as far as was heard by now."""
        return self._session.connected

    @property
    def startup(self) -> str | None:
        """Which start-up the mirror shows; None before the first."""
        return self._session.mirror.startup

    @property
    def sequence(self) -> int:
        """How far the mirror is: the hub's count of instants that changed something."""
        return self._session.mirror.sequence

    @property
    def startup_complete(self) -> bool:
        """Every stage was active and complete, by the mirror."""
        return self._session.mirror.complete

    @property
    def stages(self) -> Mapping[str, Stage]:
        """The mirror: stages by name, active ones only unless made with ``all``. A view for reading;
        what it shows may change whenever a method is called."""
        return MappingProxyType(self._session.mirror.stages)

    @property
    def events(self) -> Mapping[str, Event]:
        """The declaration, by stage, with ``complete`` as this program reported it."""
        return MappingProxyType(self._session.events)

    def _new_reader(self) -> Unread:
        """A reader who has seen nothing of the mirror yet. REQUIRES: removed from _readers."""
        reader = Unread()
        for change in self._session.mirror.as_changes():
            reader.add(change)
        self._readers.append(reader)
        return reader

    def _collect(self) -> None:
        """Passes on what the session has noticed."""
        notices = self._session.notices
        while notices:
            notice = notices.popleft()
            if isinstance(notice, Change):
                for reader in self._readers:
                    reader.add(notice)
            # Kept for who is there to hear it: a program that never listens must not grow.
            if (self.on_change if isinstance(notice, Change) else self.on_connected) is not None:
                self._undelivered.append(notice)

    def _tell(self, notice: Change | bool) -> None:
        if isinstance(notice, Change):
            if self.on_change is not None:
                self.on_change(notice)
        elif self.on_connected is not None:
            self.on_connected(notice)

    def _check_open(self) -> None:
        if self._closed:
            raise ConnectionLost(f"agent {self.name!r} is closed")

    def _check_refused(self) -> None:
        if self._session.refused is not None:
            raise self._session.refused
