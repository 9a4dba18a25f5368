# Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
"""What an agent knows of the hub's stages."""

from __future__ import annotations

from .values import Change, Progress, Stage


class Mirror:
    """The stages as the hub last told of them. Written by answers to Watch alone.

    Answers in parts take effect with the last part, so that nobody sees half an instant.
    """

    def __init__(self) -> None:
        self.startup: str | None = None
        self.sequence = 0
        self.time = 0.0
        self.complete = False
        self.stages: dict[str, Stage] = {}
        self._parts: list[Progress] = []

    def apply(self, progress: Progress) -> list[Change]:
        """Takes an answer in; returns what changed, in the order in which it came."""
        parts = self._parts
        if parts and (parts[0].startup, parts[0].sequence) != (progress.startup, progress.sequence):
            parts.clear()
        parts.append(progress)
        if progress.partial:
            return []
        self._parts = []
        return self._whole(parts)

    def as_changes(self) -> list[Change]:
        """All stages, as if they had just come."""
        startup = self.startup or ""
        return [Change(startup, name, None, stage) for name, stage in self.stages.items()]

    def broken(self) -> None:
        """The watch ended; what had come of an answer in parts is no more of use."""
        self._parts = []

    def forget(self) -> list[Change]:
        """Begins anew, with nothing; returns what is gone."""
        startup = self.startup or ""
        changes = [Change(startup, name, stage, None) for name, stage in self.stages.items()]
        self.startup, self.sequence, self.time, self.complete = None, 0, 0.0, False
        # Emptied, not replaced: others look at it.
        self.stages.clear()
        self._parts = []
        return changes

    def _whole(self, parts: list[Progress]) -> list[Change]:
        last = parts[-1]
        changes = [] if self.startup in (None, last.startup) else self.forget()
        told = {stage.name: stage for part in parts for stage in part.stage}
        stages = self.stages
        if parts[0].snapshot:
            gone = [name for name in stages if name not in told]
            changes += [Change(last.startup, name, stages.pop(name), None) for name in gone]
        for name, stage in told.items():
            before = stages.get(name)
            if before != stage:
                changes.append(Change(last.startup, name, before, stage))
                stages[name] = stage
        self.startup, self.sequence = last.startup, last.sequence
        self.time, self.complete = last.time, last.complete
        return changes


class Unread:
    """Changes that a reader has yet to see, one for each stage: a slow reader misses states in
    between, never the last. A stage that is back where the reader left it is not told of."""

    def __init__(self) -> None:
        self._changes: dict[str, Change] = {}

    def add(self, change: Change) -> None:
        """A change, after all that were added before."""
        earlier = self._changes.get(change.name)
        if earlier is None:
            self._changes[change.name] = change
        elif earlier.startup != change.startup:
            # The stages of two start-ups have nothing to do with each other but the name.
            self._changes[change.name] = Change(change.startup, change.name, None, change.now)
        elif earlier.before == change.now:
            del self._changes[change.name]
        else:
            self._changes[change.name] = Change(
                change.startup, change.name, earlier.before, change.now
            )

    def __bool__(self) -> bool:
        return bool(self._changes)

    def take(self) -> Change | None:
        """The change that has waited longest, or None."""
        for name in self._changes:
            return self._changes.pop(name)
        return None
