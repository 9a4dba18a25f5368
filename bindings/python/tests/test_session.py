# Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
"""What an agent does next, and what it knows, with times and answers that the tests make up."""

from __future__ import annotations

import json
import unittest
from typing import Any

from ordovan import Change, ConnectionLost, Event, NoAnswer, Stage
from ordovan._mirror import Mirror, Unread
from ordovan._session import Backoff, Session
from ordovan.values import Progress

from .standin import OURS


def session(*events: Event) -> Session:
    made = Session("A", events, "keep", True, False, 30.0)
    made.start()
    return made


def said(channel: Any) -> list[tuple[str, dict[str, Any]]]:
    """What is in the outbox, which is emptied."""
    data = bytes(channel.outbox)
    channel.outbox.clear()
    calls = [json.loads(one) for one in data.split(b"\0")[:-1]]
    return [(one["method"].removeprefix(OURS), one.get("parameters", {})) for one in calls]


def answer(channel: Any, continues: bool = False, **parameters: Any) -> None:
    message = {"parameters": parameters, "continues": continues}
    channel.feed(json.dumps(message).encode() + b"\0")


def told(channel: Any, sequence: int = 1, *stages: dict[str, Any], **other: Any) -> None:
    answer(channel, True, **{"startup": "s", "sequence": sequence, "time": 0.0, "snapshot": True,
                             "partial": False, "complete": False, "stage": list(stages), **other})


class Backoffs(unittest.TestCase):
    def test_spans_double_from_50_ms_up_to_2_s(self) -> None:
        drawn: list[tuple[float, float]] = []

        def draw(low: float, high: float) -> float:
            drawn.append((low, high))
            return low

        backoff = Backoff(draw)
        waits = [backoff.next() for _ in range(8)]
        self.assertEqual(waits, [0.05, 0.1, 0.2, 0.4, 0.8, 1.0, 1.0, 1.0])
        self.assertEqual([high for _, high in drawn], [0.1, 0.2, 0.4, 0.8, 1.6, 2.0, 2.0, 2.0])
        backoff.reset()
        self.assertEqual(backoff.next(), 0.05)

    def test_waits_differ_and_stay_within_50_ms_and_2_s(self) -> None:
        waits = []
        for _ in range(200):
            backoff = Backoff()
            waits += [backoff.next() for _ in range(7)]
        self.assertGreaterEqual(min(waits), 0.05)
        self.assertLessEqual(max(waits), 2.0)
        self.assertGreater(len(set(waits)), 1000)


class Sessions(unittest.TestCase):
    def join(self, made: Session, now: float = 0.0) -> tuple[Any, Any]:
        calls = made.opened("calls", now)
        said(calls)
        answer(calls, startup="s", sequence=1)
        watch = made.opened("watch", now)
        said(watch)
        told(watch)
        self.assertTrue(made.connected)
        return calls, watch

    def test_connections_are_wanted_one_after_the_other(self) -> None:
        made = session(Event("Net"))
        self.assertEqual(made.wanted(0), "calls")
        calls = made.opened("calls", 0)
        self.assertIsNone(made.wanted(0))
        answer(calls, startup="s", sequence=1)
        self.assertEqual(made.wanted(0), "watch")
        watch = made.opened("watch", 0)
        self.assertIsNone(made.wanted(0))
        self.assertFalse(made.connected)
        told(watch)
        self.assertTrue(made.connected)
        self.assertEqual(list(made.notices), [True])

    def test_none_is_wanted_before_it_is_started_and_after_it_is_stopped(self) -> None:
        made = Session("A", (), "keep", True, False, 30.0)
        self.assertIsNone(made.wanted(0))
        self.assertIsNone(made.next_time())
        made.start()
        self.assertEqual((made.wanted(0), made.next_time()), ("calls", 0.0))
        made.stop()
        self.assertIsNone(made.wanted(0))

    def test_a_connection_that_failed_is_wanted_after_the_back_off(self) -> None:
        made = session()
        made.backoff = Backoff(lambda low, high: high)
        made.failed(FileNotFoundError(2, "x"), 10.0)
        self.assertIsNone(made.wanted(10.09))
        self.assertAlmostEqual(made.next_time() or 0, 10.1)
        self.assertEqual(made.wanted(10.11), "calls")
        made.failed(FileNotFoundError(2, "x"), 10.11)
        self.assertAlmostEqual(made.next_time() or 0, 10.31)

    def test_who_starts_again_after_a_refusal_does_not_wait(self) -> None:
        made = session()
        made.failed(PermissionError(13, "x"), 10.0)
        self.assertIsNone(made.wanted(20.0))
        self.assertIsNone(made.next_time())
        made.start()
        self.assertEqual(made.wanted(10.0), "calls")

    def test_who_leaves_watches_no_more(self) -> None:
        made = session(Event("Net"))
        made.leave(0)
        calls = made.opened("calls", 0)
        self.assertEqual(said(calls), [("Join", {"agent": "A", "lost": "keep"}), ("Leave", {})])
        answer(calls, startup="s", sequence=1)
        self.assertIsNone(made.wanted(0))
        answer(calls)
        self.assertTrue(made.left)
        self.assertEqual((made.drop, made.wanted(0), made.next_time()), (["calls"], None, None))

    def test_a_hub_that_goes_is_one_reason_to_wait_not_two(self) -> None:
        made = session()
        made.backoff = Backoff(lambda low, high: high)
        self.join(made)
        made.closed("watch", ConnectionLost(), 10.0)
        made.closed("calls", ConnectionLost(), 10.0)
        self.assertAlmostEqual(made.next_time() or 0, 10.1)
        self.join(made, 10.1)
        made.closed("calls", ConnectionLost(), 20.0)
        self.assertAlmostEqual(made.next_time() or 0, 20.1)

    def test_a_hub_that_has_not_answered_in_time_is_dropped(self) -> None:
        made = session(Event("Net"))
        made.backoff = Backoff(lambda low, high: high)
        calls, _ = self.join(made)
        outcome = made.report("Net", True, None, 5.0)
        later = made.report("Net", None, "n", 6.0)
        self.assertEqual(made.next_time(), 35.0)
        made.tick(34.9)
        self.assertEqual(made.drop, [])
        answer(calls)
        self.assertEqual((outcome.settled, outcome.result(), made.next_time()), (True, True, 36.0))
        made.tick(36.0)
        self.assertEqual(made.drop, ["calls"])
        made.closed("calls", NoAnswer(), 36.0)
        self.assertEqual((later.settled, later.result(), made.drop), (True, False, []))
        self.assertAlmostEqual(made.next_time() or 0, 36.1)

    def test_what_is_said_while_it_joins_comes_behind(self) -> None:
        made = session(Event("Net"))
        calls = made.opened("calls", 0)
        outcome = made.declare([Event("Disk")], ["Net"], 0)
        self.assertEqual([name for name, _ in said(calls)], ["Join", "Declare"])
        self.assertFalse(made.told)
        answer(calls, startup="s", sequence=1)
        self.assertFalse(made.told)
        answer(calls)
        self.assertTrue(made.told and outcome.result())
        self.assertEqual(made.acknowledged, {"Disk": Event("Disk")})

    def test_an_event_both_declared_and_withdrawn_is_declared(self) -> None:
        made = session()
        calls, _ = self.join(made)
        made.declare([Event("Net")], ["Net", "Gone"], 0)
        self.assertEqual(said(calls), [
            ("Declare", {"event": [{"stage": "Net"}], "withdraw": ["Gone"]})])
        self.assertEqual(list(made.events), ["Net"])

    def test_a_watch_that_ends_by_itself_is_begun_again(self) -> None:
        made = session()
        _, watch = self.join(made)
        answer(watch, startup="s", sequence=2, time=0.0, snapshot=False, partial=False,
               complete=False, stage=[])
        self.assertEqual(made.drop, ["watch"])

    def test_a_watch_that_ends_between_parts_leaves_nothing_of_them(self) -> None:
        made = session()
        _, watch = self.join(made)
        shown = {"active": True, "complete": False, "timedOut": False, "suspended": False,
                 "critical": False, "dependency": [], "event": []}
        told(watch, 2, {"name": "a", **shown}, partial=True)
        made.closed("watch", ConnectionLost(), 1.0)
        watch = made.opened("watch", 2.0)
        told(watch, 2, {"name": "b", **shown})
        self.assertEqual(list(made.mirror.stages), ["b"])

    def test_notes_are_told_again_but_for_events_that_are_gone(self) -> None:
        made = session(Event("Net"), Event("Disk"))
        calls, _ = self.join(made)
        made.report("Net", None, "one", 0)
        made.report("Net", None, "two", 0)
        made.report("Disk", None, "three", 0)
        made.declare([], ["Disk"], 0)
        made.declare([Event("Disk")], [], 0)
        made.closed("calls", ConnectionLost(), 1.0)
        calls = made.opened("calls", 2.0)
        said(calls)
        answer(calls, startup="s", sequence=9)
        self.assertEqual(said(calls), [("Report", {"stage": "Net", "note": "two"})])

    def test_passing_troubles_are_waited_for_and_others_are_told(self) -> None:
        for code in (2, 111, 11, 104, 24, 23, 12, 105):
            made = session()
            made.failed(OSError(code, "x"), 0)
            self.assertIsNone(made.refused, code)
        for code in (13, 20, 36):
            made = session()
            made.failed(OSError(code, "x"), 0)
            self.assertIsNotNone(made.refused, code)


def stage(name: str, **other: Any) -> Stage:
    values: dict[str, Any] = {
        "active": True, "complete": False, "timed_out": False, "suspended": False,
        "critical": False, "timeout": None, "dependency": (), "event": (), **other}
    return Stage(name, **values)


def progress(sequence: int, *stages: Stage, startup: str = "s", snapshot: bool = False,
             partial: bool = False) -> Progress:
    return Progress(startup, sequence, sequence / 2, snapshot, partial, False, stages)


class Mirrors(unittest.TestCase):
    def names(self, changes: list[Change]) -> list[tuple[str, bool, bool]]:
        return [(one.name, one.before is not None, one.now is not None) for one in changes]

    def test_stages_that_changed_replace_those_that_were(self) -> None:
        mirror = Mirror()
        mirror.apply(progress(1, stage("a"), stage("b"), snapshot=True))
        changes = mirror.apply(progress(2, stage("b", complete=True), stage("a")))
        self.assertEqual(self.names(changes), [("b", True, True)])
        self.assertEqual((mirror.sequence, mirror.time, list(mirror.stages)), (2, 1.0, ["a", "b"]))

    def test_a_snapshot_forgets_what_is_not_in_it(self) -> None:
        mirror = Mirror()
        mirror.apply(progress(1, stage("a"), stage("b"), snapshot=True))
        changes = mirror.apply(progress(5, stage("b"), stage("c"), snapshot=True))
        self.assertEqual(self.names(changes), [("a", True, False), ("c", False, True)])

    def test_parts_take_effect_with_the_last_whichever_say_that_they_are_a_snapshot(self) -> None:
        for second in (False, True):
            mirror = Mirror()
            mirror.apply(progress(1, stage("old"), snapshot=True))
            self.assertEqual(mirror.apply(
                progress(2, stage("a"), snapshot=True, partial=True)), [])
            self.assertEqual((mirror.sequence, list(mirror.stages)), (1, ["old"]))
            mirror.apply(progress(2, stage("b"), snapshot=second))
            self.assertEqual((mirror.sequence, list(mirror.stages)), (2, ["a", "b"]))

    def test_parts_that_never_ended_are_forgotten_with_their_watch(self) -> None:
        mirror = Mirror()
        mirror.apply(progress(2, stage("a"), snapshot=True, partial=True))
        mirror.broken()
        mirror.apply(progress(2, stage("b"), snapshot=True))
        self.assertEqual(list(mirror.stages), ["b"])

    def test_parts_of_another_instant_are_not_mixed(self) -> None:
        mirror = Mirror()
        mirror.apply(progress(2, stage("a"), snapshot=True, partial=True))
        mirror.apply(progress(3, stage("b"), snapshot=True))
        self.assertEqual((mirror.sequence, list(mirror.stages)), (3, ["b"]))

    def test_another_start_up_makes_equal_stages_new(self) -> None:
        mirror = Mirror()
        mirror.apply(progress(7, stage("a"), snapshot=True))
        changes = mirror.apply(progress(1, stage("a"), startup="t", snapshot=True))
        self.assertEqual([(one.startup, one.before is None, one.now is None) for one in changes],
                         [("s", False, True), ("t", True, False)])
        self.assertEqual((mirror.startup, mirror.sequence), ("t", 1))

    def test_who_looks_at_the_stages_sees_what_becomes_of_them(self) -> None:
        mirror = Mirror()
        stages = mirror.stages
        mirror.apply(progress(7, stage("a"), snapshot=True))
        self.assertEqual(list(stages), ["a"])
        mirror.apply(progress(1, stage("b"), startup="t", snapshot=True))
        self.assertEqual(list(stages), ["b"])
        mirror.apply(progress(2, stage("c"), startup="t"))
        self.assertEqual(list(stages), ["b", "c"])


class Readers(unittest.TestCase):
    def test_changes_come_in_the_order_of_the_first_of_each_stage(self) -> None:
        unread = Unread()
        one, two = stage("a"), stage("a", complete=True)
        unread.add(Change("s", "a", None, one))
        unread.add(Change("s", "b", None, stage("b")))
        unread.add(Change("s", "a", one, two))
        self.assertEqual(unread.take(), Change("s", "a", None, two))
        last = unread.take()
        assert last is not None
        self.assertEqual((last.name, bool(unread), unread.take()), ("b", False, None))

    def test_a_stage_that_is_back_where_it_was_is_not_told(self) -> None:
        unread = Unread()
        one, two = stage("a"), stage("a", complete=True)
        unread.add(Change("s", "a", one, two))
        unread.add(Change("s", "a", two, one))
        self.assertIsNone(unread.take())

    def test_the_same_stage_of_another_start_up_is_told_as_new(self) -> None:
        unread = Unread()
        one = stage("a")
        unread.add(Change("s", "a", one, None))
        unread.add(Change("t", "a", None, one))
        self.assertEqual(unread.take(), Change("t", "a", None, one))


if __name__ == "__main__":
    unittest.main()
