# Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
"""Agents of both kinds: what they say, what they hear, and what becomes of them without a hub."""

from __future__ import annotations

import asyncio
import os
import select
import signal
import threading
import unittest
from time import monotonic
from typing import Any
from unittest import mock

import ordovan
import ordovan.aio
from ordovan import Change, ConnectionLost, Event
from ordovan._wire import MAX_SENT, encode_call

from .standin import OURS, PATIENCE, Refusal
from .support import Asynchronous, Background, Blocking, HubTest

DISK = Event("Disk")
NET = Event("Net", 30, True, ("Disk",))


class Both:
    """What holds for both kinds."""

    def agent(self: Any, *events: Event, name: str = "A", joined: bool = True, **named: Any) -> Any:
        agent = self.make("Agent", name, events, socket=self.path, **named)
        self.notices: list[Any] = []
        agent.on_connected = self.notices.append
        agent.on_change = lambda change: self.notices.append(
            (change.name, change.now and (change.now.active, change.now.complete)))
        if joined:
            agent.join(timeout=PATIENCE)
        return agent

    def finish(self: Any, agent: str, stage: str) -> None:
        """Somebody else reports an event complete."""
        with ordovan.Hub(self.path) as hub:
            hub.report(agent, stage)

    def pump(self: Any, agent: Any, done: Any) -> None:
        """Lets the agent take in what comes until it is done."""
        deadline = monotonic() + PATIENCE
        while not done():
            self.assertLess(monotonic(), deadline, "never came")
            agent.poll(1)

    def declared(self: Any, agent: str = "A") -> dict[str, bool]:
        """What the hub has of the agent: the stages of its events, and whether these are complete."""
        known = self.hub.do(lambda: self.hub.agents.get(agent, {"event": {}}))
        return {stage: event["complete"] for stage, event in known["event"].items()}

    # Joining.

    def test_an_agent_joins_with_its_whole_declaration_and_watches(self: Any) -> None:
        agent = self.agent(DISK, NET)
        self.assertTrue(agent.connected)
        self.assertEqual(self.hub.names(), ["Join", "Watch"])
        self.assertEqual(self.hub.last("Join"), {
            "agent": "A", "lost": "keep", "take": True, "event": [
                {"stage": "Disk"},
                {"stage": "Net", "timeout": 30.0, "critical": True, "dependency": ["Disk"]}]})
        self.assertEqual(self.hub.last("Watch"), {})
        self.assertEqual(self.hub.do(lambda: self.hub.peers), 2)
        self.assertEqual((agent.name, agent.startup, agent.sequence), ("A", "first", 1))
        self.assertEqual(dict(agent.events), {"Disk": DISK, "Net": NET})
        self.assertEqual([(one.name, one.active) for one in agent.stages.values()],
                         [("Disk", True)])
        self.assertFalse(agent.startup_complete)

    def test_with_joins_and_closes_without_leaving(self: Any) -> None:
        agent = self.make("Agent", "A", [DISK], socket=self.path)
        with agent as same:
            self.assertIs(same, agent)
            self.assertTrue(agent.connected)
        self.assertFalse(agent.connected)
        self.hub.until(lambda: self.hub.peers == 0)
        self.assertEqual(self.declared(), {"Disk": False})

    def test_an_agent_that_is_to_be_withdrawn_is_gone_with_its_connection(self: Any) -> None:
        agent = self.agent(DISK, lost="withdraw")
        self.assertEqual(self.hub.last("Join")["lost"], "withdraw")
        agent.close()
        self.hub.until(lambda: self.hub.peers == 0)
        self.assertEqual(self.declared(), {})

    def test_a_hub_that_is_not_there_yet_is_waited_for(self: Any) -> None:
        self.hub.kill()
        os.unlink(self.path)
        agent = self.agent(DISK, joined=False)
        began = monotonic()
        with self.assertRaises(TimeoutError):
            agent.join(timeout=0.2)
        self.assertLess(monotonic() - began, 10)
        self.assertFalse(agent.connected)
        with Background(self.hub.start):
            agent.join(timeout=PATIENCE)
        self.assertTrue(agent.connected)
        self.assertTrue(self.hub.last("Join")["take"])

    def test_a_hub_that_never_answers_is_given_up_in_time(self: Any) -> None:
        self.hub.script["Join"] = ["silent"]
        agent = self.agent(DISK, joined=False)
        began = monotonic()
        with self.assertRaises(TimeoutError):
            agent.join(timeout=0.05)
        self.assertLess(monotonic() - began, 10)

    def test_a_refused_agent_is_told_why_and_can_try_again(self: Any) -> None:
        self.hub.allowed = False
        agent = self.agent(DISK, joined=False)
        with self.assertRaises(ordovan.NotYours):
            agent.join(timeout=PATIENCE)
        self.hub.until(lambda: self.hub.peers == 0)
        for call in (lambda: agent.wait("Disk", timeout=PATIENCE), agent.flush,
                     lambda: next(agent.changes())):
            with self.assertRaises(ordovan.NotYours):
                call()
        self.assertEqual(self.hub.names(), ["Join"])
        self.hub.allowed = True
        agent.join(timeout=PATIENCE)
        self.assertTrue(agent.connected)

    def test_a_refused_watch_is_told_as_well(self: Any) -> None:
        self.hub.script["Watch"] = [Refusal(OURS + "TooMuch", limit="connections")]
        agent = self.agent(DISK, joined=False)
        with self.assertRaises(ordovan.TooMuch) as caught:
            agent.join(timeout=PATIENCE)
        self.assertEqual(caught.exception.limit, "connections")
        self.hub.until(lambda: self.hub.peers == 0)

    def test_a_socket_that_cannot_be_reached_is_told_at_once(self: Any) -> None:
        agent = self.make("Agent", "A", socket="/" + "x" * 200)
        with self.assertRaises(ordovan.Unreachable):
            agent.join(timeout=PATIENCE)

    def test_agents_that_cannot_be_are_refused_here(self: Any) -> None:
        for arguments in (("",), ("x" * 256,), ("A", [DISK, DISK])):
            with self.assertRaises(ValueError):
                self.make("Agent", *arguments)
        with self.assertRaises(ValueError):
            self.make("Agent", "A", lost="drop")
        with self.assertRaises(TypeError):
            self.make("Agent", "A", ["Disk"])

    def test_the_newer_of_two_agents_of_one_name_has_it_and_they_do_not_fight(self: Any) -> None:
        # Of this process, so the older one would try again: this is another process.
        older = self.agent(DISK)
        newer = self.agent(DISK)
        self.hub.script["Join"] = [Refusal(OURS + "Connected", pid=os.getpid() + 1)]
        with self.assertRaises(ordovan.Connected) as caught:
            older.flush(timeout=PATIENCE)
            while True:
                older.poll(1)
        self.assertEqual(caught.exception.pid, os.getpid() + 1)
        self.assertFalse(older.connected)
        self.assertEqual([one.get("take") for _, name, one in self.hub.calls if name == "Join"],
                         [True, True, None])
        self.assertTrue(newer.complete("Disk"))
        # It speaks for it no longer, so it cannot make it leave.
        with self.assertRaises(ordovan.Connected):
            older.leave(timeout=PATIENCE)
        self.assertEqual(self.declared(), {"Disk": True})

    def test_an_agent_that_was_joined_by_itself_a_moment_ago_tries_again(self: Any) -> None:
        agent = self.agent(DISK)
        self.hub.script["Join"] = [Refusal(OURS + "Connected", pid=os.getpid())] * 2
        self.hub.do(lambda: self.hub.hang_up("A"))
        self.pump(agent, lambda: not agent.connected)
        agent.join(timeout=PATIENCE)
        self.assertEqual(len(self.hub.names("Join")), 4)

    def test_an_agent_that_does_not_take_is_refused_where_there_is_one(self: Any) -> None:
        self.agent(DISK)
        other = self.agent(DISK, take=False, joined=False)
        self.hub.script["Join"] = [Refusal(OURS + "Connected", pid=1)]
        with self.assertRaises(ordovan.Connected):
            other.join(timeout=PATIENCE)
        self.assertNotIn("take", self.hub.last("Join"))

    # Saying something.

    def test_an_event_is_reported_complete(self: Any) -> None:
        agent = self.agent(DISK, NET)
        self.assertTrue(agent.complete("Disk"))
        self.assertEqual(self.hub.last("Report"), {"stage": "Disk", "complete": True})
        self.assertEqual(self.declared(), {"Disk": True, "Net": False})
        self.assertTrue(agent.report("Net"))
        self.assertEqual(self.hub.last("Report"), {"stage": "Net", "complete": True})
        self.assertEqual({one.stage: one.complete for one in agent.events.values()},
                         {"Disk": True, "Net": True})
        self.assertTrue(agent.report("Disk", False, "again"))
        self.assertEqual(self.hub.last("Report"),
                         {"stage": "Disk", "complete": False, "note": "again"})

    def test_a_note_alone_completes_nothing(self: Any) -> None:
        agent = self.agent(DISK)
        self.assertTrue(agent.note("Disk", "half"))
        self.assertEqual(self.hub.last("Report"), {"stage": "Disk", "note": "half"})
        self.assertEqual(self.declared(), {"Disk": False})
        self.assertIsNone(agent.events["Disk"].complete)
        with self.assertRaises(ValueError):
            agent.note("Disk", "x" * 1025)
        self.assertTrue(agent.note("Disk", "x" * 1024))

    def test_only_events_of_the_agent_are_reported(self: Any) -> None:
        agent = self.agent(DISK)
        with self.assertRaises(ValueError):
            agent.complete("Net")
        self.assertEqual(self.hub.names("Report"), [])

    def test_events_are_declared_changed_and_withdrawn_in_one_instant(self: Any) -> None:
        agent = self.agent(DISK)
        self.assertTrue(agent.declare(NET, Event("Late"), withdraw=["Disk"]))
        self.assertEqual(self.hub.last("Declare"), {
            "event": [{"stage": "Net", "timeout": 30.0, "critical": True, "dependency": ["Disk"]},
                      {"stage": "Late"}],
            "withdraw": ["Disk"]})
        self.assertEqual(self.declared(), {"Net": False, "Late": False})
        self.assertEqual(list(agent.events), ["Net", "Late"])
        self.assertTrue(agent.withdraw("Net"))
        self.assertEqual(self.declared(), {"Late": False})

    def test_what_was_reported_stays_so_when_the_event_is_declared_anew(self: Any) -> None:
        agent = self.agent(DISK)
        agent.complete("Disk")
        agent.declare(Event("Disk", 5))
        self.assertEqual(agent.events["Disk"], Event("Disk", 5, complete=True))
        self.assertEqual(self.declared(), {"Disk": True})

    def test_what_the_hub_refuses_is_not_declared(self: Any) -> None:
        agent = self.agent(DISK)
        before = dict(agent.events)
        with self.assertRaises(ordovan.InvalidEvent) as caught:
            agent.declare(Event("Disk", 7), Event("Loop", dependency=("Loop",)))
        self.assertEqual((caught.exception.field, caught.exception.reason),
                         ("event[1].dependency", "names its own stage"))
        self.assertEqual(dict(agent.events), before)
        self.hub.script["Declare"] = [Refusal(OURS + "TooMuch", limit="events"),
                                      Refusal(OURS + "NotYours")]
        with self.assertRaises(ordovan.TooMuch):
            agent.withdraw("Disk")
        with self.assertRaises(ordovan.NotYours):
            agent.declare(NET)
        self.hub.script["Report"] = [Refusal(OURS + "NoSuchStage")]
        with self.assertRaises(ordovan.NoSuchStage):
            agent.complete("Disk")
        self.assertEqual(dict(agent.events), before)
        # So the next hub is told of none of it.
        self.restart(agent)
        self.assertEqual(self.hub.last("Join")["event"], [{"stage": "Disk"}])

    def test_a_declaration_that_no_message_can_hold_is_refused_here(self: Any) -> None:
        agent = self.agent()
        with self.assertRaises(ordovan.MessageTooLarge):
            agent.declare(DISK, withdraw=[f"{number:0255}" for number in range(5000)])
        self.assertEqual(dict(agent.events), {})
        empty = encode_call(OURS + "Join", {"agent": "A", "event": [], "lost": "keep", "take": True},
                            more=False, oneway=False)
        # As long as it will be when it is reported not complete, with a comma.
        each = len(b'{"stage":"0000%s","complete":false},' % (b"x" * 250))
        count, left = divmod(MAX_SENT - len(empty), each)
        events = [Event(f"{number:04}" + "x" * 250) for number in range(count)]
        agent.declare(*events[: count // 2])
        agent.declare(*events[count // 2 :])
        with self.assertRaises(ordovan.MessageTooLarge):
            agent.declare(Event("one-more" * 30))
        self.assertEqual(len(agent.events), count)
        spare = left - len(b'{"stage":"","complete":false},')
        self.assertGreater(spare, 0)
        with self.assertRaises(ordovan.MessageTooLarge):
            agent.declare(Event("y" * (spare + 1)))
        agent.declare(Event("y" * spare))
        agent.declare(Event("y" * spare), events[0])
        self.restart(agent)
        self.assertEqual(len(self.hub.last("Join")["event"]), count + 1)
        agent.withdraw("y" * spare)
        agent.declare(Event("z" * spare))
        self.assertEqual(self.hub.invalid, 0)

    def test_an_agent_leaves_with_its_events(self: Any) -> None:
        agent = self.agent(DISK)
        agent.leave(timeout=PATIENCE)
        self.assertEqual(self.declared(), {})
        self.hub.until(lambda: self.hub.peers == 0)
        self.assertFalse(agent.connected)
        for call in (lambda: agent.complete("Disk"), agent.join, agent.leave, agent.flush,
                     lambda: agent.wait("Disk")):
            with self.assertRaises(ConnectionLost):
                call()

    def test_an_agent_that_others_made_leave_joins_again(self: Any) -> None:
        agent = self.agent(DISK)
        with ordovan.Hub(self.path) as hub:
            hub.leave("A")
        self.assertFalse(agent.complete("Disk"))
        agent.flush(timeout=PATIENCE)
        self.assertEqual(self.declared(), {"Disk": True})

    def test_a_hub_that_does_not_answer_counts_as_gone(self: Any) -> None:
        agent = self.agent(DISK, answer_timeout=0.5)
        self.hub.script["Report"] = ["silent"]
        began = monotonic()
        self.assertFalse(agent.complete("Disk"))
        self.assertLess(monotonic() - began, 10)
        agent.flush(timeout=PATIENCE)
        self.assertEqual(self.declared(), {"Disk": True})
        self.assertGreaterEqual(len(self.hub.names("Join")), 2)

    # Hearing something.

    def test_a_stage_that_becomes_active_ends_the_wait(self: Any) -> None:
        with ordovan.Hub(self.path) as hub:
            hub.declare("B", DISK)
        agent = self.agent(NET, Event("Other", dependency=("Net",)))
        with Background(lambda: self.finish("B", "Disk")):
            stage = agent.wait("Net", timeout=PATIENCE)
        self.assertEqual((stage.name, stage.active, stage.complete), ("Net", True, False))
        self.assertEqual(agent.wait("Net", timeout=PATIENCE), stage)

    def test_a_wait_for_any_finds_what_is_not_done(self: Any) -> None:
        agent = self.agent(DISK, NET)
        self.assertEqual(agent.wait(timeout=PATIENCE).name, "Disk")
        agent.complete("Disk")
        self.assertEqual(agent.wait(timeout=PATIENCE).name, "Net")
        agent.complete("Net")
        with self.assertRaises(ValueError):
            agent.wait(timeout=PATIENCE)
        with self.assertRaises(ValueError):
            agent.wait("Nothing", timeout=PATIENCE)

    def test_a_wait_lasts_no_longer_than_it_may(self: Any) -> None:
        agent = self.agent(NET)
        for timeout in (0.05, 0):
            began = monotonic()
            with self.assertRaises(TimeoutError):
                agent.wait("Net", timeout=timeout)
            self.assertLess(monotonic() - began, 10)
        self.assertTrue(agent.connected)

    def test_changes_are_told_from_what_is_there_on(self: Any) -> None:
        agent = self.agent(DISK, NET)
        changes = agent.changes(timeout=PATIENCE)
        first = next(changes)
        self.assertEqual((first.startup, first.name, first.before, first.started, first.completed),
                         ("first", "Disk", None, True, False))
        agent.complete("Disk")
        second, third = next(changes), next(changes)
        self.assertEqual((second.name, second.completed, second.started), ("Disk", True, False))
        self.assertEqual(second.before, first.now)
        self.assertEqual((third.name, third.started), ("Net", True))
        changes.close()
        self.assertEqual(agent._readers, [])

    def test_a_slow_reader_misses_what_was_in_between(self: Any) -> None:
        agent = self.agent(DISK, all=True)
        changes = agent.changes(timeout=PATIENCE)
        self.assertIsNone(next(changes).before)
        agent.note("Disk", "one")
        agent.note("Disk", "two")
        self.pump(agent, lambda: agent.stages["Disk"].event[0].note == "two")
        change = next(changes)
        self.assertEqual([one and one.event[0].note for one in (change.before, change.now)],
                         [None, "two"])
        changes.close()

    def test_the_whole_mirror_has_all_stages_with_their_events(self: Any) -> None:
        agent = self.agent(DISK, NET, all=True)
        self.assertEqual(self.hub.last("Watch"), {"all": True})
        self.assertEqual([(one.name, one.active, [event.agent for event in one.event])
                          for one in agent.stages.values()],
                         [("Disk", True, ["A"]), ("Net", False, ["A"])])

    def test_an_instant_that_comes_in_parts_is_seen_as_one(self: Any) -> None:
        self.hub.part = 1
        agent = self.agent(*(Event(name) for name in "abcde"))
        self.assertEqual(list(agent.stages), list("abcde"))
        self.assertEqual(self.notices[0][0], "a")
        self.assertEqual(len(self.notices), 6)

    def test_the_end_of_start_up_is_seen(self: Any) -> None:
        agent = self.agent(DISK)
        agent.complete("Disk")
        self.pump(agent, lambda: agent.startup_complete)
        agent.poll()
        self.assertEqual(self.notices, [("Disk", (True, False)), True, ("Disk", (True, True))])

    # Without a hub.

    def restart(self: Any, agent: Any) -> None:
        """The hub is killed, the agent sees it, and is back with the next one."""
        self.hub.kill()
        self.pump(agent, lambda: not agent.connected)
        self.hub.start()
        self.pump(agent, lambda: agent.connected)

    def test_an_agent_joins_again_and_takes_nothing(self: Any) -> None:
        agent = self.agent(DISK, NET)
        agent.complete("Disk")
        self.pump(agent, lambda: "Net" in agent.stages)
        agent.poll()
        self.notices.clear()
        reached = agent.sequence
        self.restart(agent)
        self.assertEqual(self.hub.last("Join"), {"agent": "A", "lost": "keep", "event": [
            {"stage": "Disk", "complete": True},
            {"stage": "Net", "timeout": 30.0, "critical": True, "dependency": ["Disk"]}]})
        self.hub.until(lambda: len(self.hub.names("Watch")) == 2)
        self.assertEqual(self.hub.last("Watch"), {"after": reached, "startup": "first"})
        self.assertEqual(self.notices, [False, True])
        self.assertEqual(sorted(agent.stages), ["Disk", "Net"])

    def test_a_program_that_starts_again_takes_nothing_back(self: Any) -> None:
        self.agent(DISK).complete("Disk")
        again = self.agent(DISK)
        self.assertEqual(self.declared(), {"Disk": True})
        again.report("Disk", False)
        self.assertEqual(self.declared(), {"Disk": False})

    def test_what_is_said_while_the_hub_is_away_is_told_on_joining(self: Any) -> None:
        agent = self.agent(DISK, Event("Gone"))
        self.hub.kill()
        self.pump(agent, lambda: not agent.connected)
        self.assertFalse(agent.declare(NET))
        self.assertFalse(agent.withdraw("Gone"))
        self.assertFalse(agent.complete("Disk"))
        self.assertFalse(agent.note("Disk", "while away"))
        self.assertEqual(agent.wait("Disk", timeout=PATIENCE).name, "Disk")
        self.hub.start()
        agent.flush(timeout=PATIENCE)
        self.assertEqual(self.declared(), {"Disk": True, "Net": False})
        self.assertEqual(self.hub.last("Report"), {"stage": "Disk", "note": "while away"})
        self.pump(agent, lambda: agent.connected and "Net" in agent.stages)

    def test_an_event_that_was_withdrawn_while_the_hub_was_away_begins_anew(self: Any) -> None:
        agent = self.agent(DISK)
        agent.complete("Disk")
        self.hub.kill()
        self.pump(agent, lambda: not agent.connected)
        agent.withdraw("Disk")
        agent.declare(DISK)
        self.hub.start()
        agent.flush(timeout=PATIENCE)
        self.assertEqual(self.declared(), {"Disk": False})

    def test_what_is_said_before_joining_is_told_on_joining(self: Any) -> None:
        agent = self.agent(joined=False)
        self.assertFalse(agent.declare(DISK))
        self.assertFalse(agent.complete("Disk"))
        agent.flush(timeout=PATIENCE)
        self.assertEqual(self.declared(), {"Disk": True})
        self.assertEqual(self.hub.names("Join", "Declare", "Report"), ["Join"])

    def test_a_hub_that_goes_in_the_middle_of_a_call_hears_it_later(self: Any) -> None:
        agent = self.agent(DISK)
        self.hub.script["Report"] = ["close"]
        self.assertFalse(agent.complete("Disk"))
        agent.flush(timeout=PATIENCE)
        self.assertEqual(self.declared(), {"Disk": True})
        self.hub.script["Declare"] = ["close"]
        self.assertFalse(agent.declare(NET))
        agent.flush(timeout=PATIENCE)
        self.assertEqual(self.declared(), {"Disk": True, "Net": False})

    def test_a_hub_that_goes_while_it_is_joined_is_joined_again(self: Any) -> None:
        self.hub.script["Join"] = ["close", b"junk\0", b'{"parameters":{"startup":1}}\0']
        self.hub.script["Watch"] = ["close", b"junk\0", b"{}\0"]
        agent = self.agent(DISK)
        self.assertTrue(agent.connected)
        joins = [one for _, name, one in self.hub.calls if name == "Join"]
        self.assertEqual([one.get("take") for one in joins], [True] * 4)
        self.assertEqual(len(self.hub.names("Watch")), 4)

    def test_many_hubs_come_and_go(self: Any) -> None:
        agent = self.agent(DISK)
        for number in range(4):
            self.restart(agent)
            self.assertTrue(agent.note("Disk", str(number)))
        self.assertEqual(self.hub.do(lambda: self.hub.peers), 2)

    def test_another_start_up_begins_the_mirror_anew(self: Any) -> None:
        with ordovan.Hub(self.path) as hub:
            hub.declare("B", Event("Before"))
        agent = self.agent(DISK)
        agent.complete("Disk")
        self.pump(agent, lambda: agent.stages["Disk"].complete)
        changes = agent.changes(timeout=PATIENCE)
        self.assertEqual([next(changes).name for _ in range(2)], ["Before", "Disk"])
        agent.poll()
        self.notices.clear()
        self.hub.kill()
        self.pump(agent, lambda: not agent.connected)
        self.hub.begin("second")
        self.hub.start()
        self.pump(agent, lambda: agent.connected)
        self.assertEqual((agent.startup, list(agent.stages)), ("second", ["Disk"]))
        self.assertNotIn("after", self.hub.last("Watch"))
        # What the program did is done, whoever asks.
        self.assertEqual(self.declared(), {"Disk": True})
        self.assertEqual(self.notices, [False, ("Before", None), ("Disk", None),
                                        ("Disk", (True, True)), True])
        told = [next(changes) for _ in range(2)]
        self.assertEqual([(one.startup, one.name, one.before is None, one.now is None)
                          for one in told],
                         [("first", "Before", False, True), ("second", "Disk", True, False)])
        changes.close()

    def test_a_watch_that_ends_alone_is_begun_again_where_it_was(self: Any) -> None:
        agent = self.agent(DISK)
        self.hub.do(lambda: self.hub.hang_up(watches=True))
        self.pump(agent, lambda: len(self.hub.names("Watch")) == 2 and agent.connected)
        self.assertEqual(self.hub.last("Watch"), {"after": 1, "startup": "first"})
        self.assertEqual(len(self.hub.names("Join")), 1)
        agent.complete("Disk")
        self.pump(agent, lambda: agent.stages["Disk"].complete)

    def test_an_agent_leaves_a_hub_that_is_away_when_it_is_back(self: Any) -> None:
        agent = self.agent(DISK)
        agent.note("Disk", "one")
        self.hub.kill()
        self.pump(agent, lambda: not agent.connected)
        with self.assertRaises(TimeoutError):
            agent.leave(timeout=0.05)
        with Background(self.hub.start):
            agent.leave(timeout=PATIENCE)
        self.assertEqual(self.declared(), {})
        self.assertEqual(self.hub.last("Join"), {"agent": "A", "lost": "keep"})
        self.assertEqual(self.hub.names("Watch", "Report"), ["Watch", "Report"])

    def test_a_leave_that_is_refused_is_told_and_the_agent_stays(self: Any) -> None:
        agent = self.agent(DISK)
        self.hub.script["Leave"] = [Refusal(OURS + "NotYours"), "close"]
        with self.assertRaises(ordovan.NotYours):
            agent.leave(timeout=PATIENCE)
        self.assertTrue(agent.complete("Disk"))
        agent.leave(timeout=PATIENCE)
        self.assertEqual(self.declared(), {})
        self.assertEqual(len(self.hub.names("Leave")), 3)

    def test_closing_ends_everything(self: Any) -> None:
        agent = self.agent(DISK)
        agent.close()
        agent.close()
        self.hub.until(lambda: self.hub.peers == 0)
        self.assertFalse(agent.connected)
        with self.assertRaises(ConnectionLost):
            agent.join(timeout=PATIENCE)


class BlockingAgents(Both, Blocking, HubTest):
    def test_run_keeps_the_agent_connected_until_it_is_stopped(self) -> None:
        agent = self.agent(DISK)
        for joins in (2, 3):
            with Background(agent.run):
                self.hub.kill()
                self.hub.start()
                self.hub.until(lambda: len(self.hub.names("Join")) == joins)
                agent.stop()
        self.assertTrue(agent.complete("Disk"))

    def test_a_stop_before_run_ends_it_at_once(self) -> None:
        agent = self.agent(DISK)
        agent.stop()
        agent.run()
        with Background(agent.run):
            agent.stop()

    def test_a_signal_handler_stops_run(self) -> None:
        agent = self.agent(DISK)
        handler = signal.signal(signal.SIGUSR1, lambda *_: agent.stop())
        self.addCleanup(signal.signal, signal.SIGUSR1, handler)

        def interrupt() -> None:
            self.hub.until(lambda: "Report" in self.hub.names())
            os.kill(os.getpid(), signal.SIGUSR1)

        agent.on_change = lambda change: change.started and agent.complete("Disk")
        agent.declare(Event("Late"))
        with Background(interrupt):
            agent.run()

    def test_two_threads_at_once_are_refused(self) -> None:
        agent = self.agent(DISK)
        running = threading.Event()
        agent.on_change = lambda _: running.set()
        with Background(agent.run):
            with ordovan.Hub(self.path) as hub:
                hub.report("A", "Disk")
            self.assertTrue(running.wait(PATIENCE))
            for call in (lambda: agent.complete("Disk"), agent.poll, agent.close, agent.join):
                with self.assertRaisesRegex(RuntimeError, "another thread"):
                    call()
            agent.stop()
        self.assertTrue(agent.complete("Disk"))

    def test_callbacks_are_called_only_where_something_is_heard(self) -> None:
        agent = self.agent(DISK, NET)
        self.notices.clear()
        agent.complete("Disk")
        agent.complete("Net")
        self.assertEqual(self.notices, [])
        self.pump(agent, lambda: len(self.notices) >= 3)
        self.assertEqual(self.notices[-1], ("Net", (True, True)))

    def test_a_poll_does_not_wait_while_there_is_something_to_tell(self) -> None:
        agent = self.agent(DISK)
        self.notices.clear()
        agent.complete("Disk")
        while not agent._undelivered:
            agent.note("Disk", "until the change has come in")
        began = monotonic()
        agent.poll(PATIENCE)
        self.assertEqual(self.notices, [("Disk", (True, True))])
        self.assertLess(monotonic() - began, PATIENCE / 2)

    def test_what_a_callback_raises_comes_out_and_nothing_is_lost(self) -> None:
        agent = self.agent(*(Event(name) for name in "abc"), joined=False)
        seen = []

        def fail(change: Change) -> None:
            seen.append(change.name)
            if change.name == "b":
                raise ZeroDivisionError

        agent.on_change = fail
        with self.assertRaises(ZeroDivisionError):
            agent.join(timeout=PATIENCE)
        self.assertEqual(seen, ["a", "b"])
        agent.poll()
        self.assertEqual(seen, ["a", "b", "c"])

    def test_a_with_that_fails_to_begin_closes_the_agent(self) -> None:
        agent = self.agent(DISK, joined=False)

        def fail(_: Change) -> None:
            raise ZeroDivisionError

        agent.on_change = fail
        with self.assertRaises(ZeroDivisionError):
            with agent:
                self.fail("it began")
        self.hub.until(lambda: self.hub.peers == 0)

    def test_a_callback_may_use_the_agent(self) -> None:
        agent = self.agent(DISK, NET, joined=False)
        depth = []

        def work(change: Change) -> None:
            depth.append("in")
            self.assertNotIn("in", depth[:-1])
            if change.started:
                agent.complete(change.name)
                agent.poll()
            depth[-1] = change.name

        agent.on_change = work
        agent.join(timeout=PATIENCE)
        self.pump(agent, lambda: agent.startup_complete and len(depth) >= 4)
        self.assertEqual(depth, ["Disk", "Disk", "Net", "Net"])

    def test_a_callback_may_close_the_agent(self) -> None:
        agent = self.agent(DISK, joined=False)
        agent.on_change = lambda _: agent.close()
        with self.assertRaises(ConnectionLost):
            agent.join(timeout=PATIENCE)
            agent.run()

    def test_a_loop_of_the_program_can_wait_for_the_agent(self) -> None:
        agent = self.agent(DISK)
        self.finish("A", "Disk")
        ready, _, _ = select.select(agent.filenos(), [], [], PATIENCE)
        self.assertTrue(ready)
        self.pump(agent, lambda: agent.stages["Disk"].complete)
        agent.close()
        self.assertEqual(agent.filenos(), ())

    def test_an_iteration_ends_when_its_time_is_up(self) -> None:
        agent = self.agent(DISK)
        self.assertEqual([one.name for one in agent.changes(timeout=0.05)], ["Disk"])
        self.assertEqual([one.name for one in agent.changes(timeout=0)], ["Disk"])

    def test_a_wait_without_time_looks_once(self) -> None:
        with ordovan.Hub(self.path) as hub:
            hub.declare("B", DISK)
        agent = self.agent(NET)
        self.finish("B", "Disk")
        self.assertTrue(select.select(agent.filenos(), [], [], PATIENCE)[0])
        self.assertEqual(agent.wait("Net", timeout=0).name, "Net")

    def test_an_agent_goes_to_no_other_hub(self) -> None:
        with mock.patch.dict(os.environ, ORDOVAN_SOCKET=self.path):
            agent = self.make("Agent", "A", [DISK])
            agent.join(timeout=PATIENCE)
        with mock.patch.dict(os.environ, ORDOVAN_SOCKET=self.path + ".another"):
            self.restart(agent)

    def test_any_time_can_be_given(self) -> None:
        for timeout in (float("inf"), 1e15, None):
            agent = self.agent(DISK, joined=False)
            agent.join(timeout=timeout)
            self.assertEqual(agent.wait("Disk", timeout=timeout).name, "Disk")
            with Background(lambda: self.finish("A", "Disk")):
                changes = agent.changes(timeout=timeout)
                while not next(changes).completed:
                    pass
            changes.close()
            agent.leave(timeout=timeout)
            self.hub.do(lambda: self.hub.begin("another"))

    def test_why_there_is_no_hub_is_the_cause(self) -> None:
        agent = self.agent(DISK)
        self.hub.kill()
        self.pump(agent, lambda: not agent.connected)
        for call in (agent.join, agent.flush, agent.leave):
            with self.assertRaises(ordovan.NoAnswer) as caught:
                call(timeout=0.3)
            self.assertIsInstance(caught.exception.__cause__, ConnectionRefusedError)

    def test_nothing_is_kept_for_callbacks_that_are_not_there(self) -> None:
        agent = self.agent(DISK, all=True)
        agent.on_change = agent.on_connected = None
        for number in range(10):
            agent.note("Disk", str(number))
        self.pump(agent, lambda: agent.stages["Disk"].event[0].note == "9")
        self.assertEqual((len(agent._undelivered), len(agent._session.notices)), (0, 0))

    def test_no_thread_is_started(self) -> None:
        before = threading.active_count()
        agent = self.agent(DISK)
        agent.complete("Disk")
        self.assertEqual(threading.active_count(), before)


class AsynchronousAgents(Both, Asynchronous, HubTest):
    def test_waits_can_be_cancelled(self) -> None:
        agent = self.agent(NET)

        async def main() -> None:
            inner = agent._inner
            changes = inner.changes()
            for waits in (inner.wait("Net"), changes.__anext__()):
                task = asyncio.ensure_future(waits)
                await asyncio.sleep(0)
                task.cancel()
                with self.assertRaises(asyncio.CancelledError):
                    await task
            await changes.aclose()
            self.assertEqual((inner._waiters, inner._readers), (set(), []))
            self.assertTrue(await inner.declare(DISK))
            self.assertTrue(await inner.complete("Disk"))
            self.assertEqual((await inner.wait("Net")).name, "Net")

        self.runner.run(main())

    def test_what_is_cancelled_is_said_all_the_same(self) -> None:
        agent = self.agent(DISK)

        async def main() -> None:
            task = asyncio.create_task(agent._inner.complete("Disk"))
            await asyncio.sleep(0)
            task.cancel()
            with self.assertRaises(asyncio.CancelledError):
                await task
            await agent._inner.flush()

        self.runner.run(main())
        self.assertEqual(self.declared(), {"Disk": True})

    def test_what_is_cancelled_and_refused_is_taken_back(self) -> None:
        agent = self.agent(DISK)
        self.hub.script["Declare"] = [Refusal(OURS + "NotYours")]

        async def main() -> None:
            task = asyncio.create_task(agent._inner.declare(NET))
            await asyncio.sleep(0)
            self.assertEqual(list(agent.events), ["Disk", "Net"])
            task.cancel()
            with self.assertRaises(asyncio.CancelledError):
                await task
            await agent._inner.flush()

        self.runner.run(main())
        self.assertEqual(list(agent.events), ["Disk"])

    def test_a_refusal_takes_back_no_more_than_was_refused(self) -> None:
        agent = self.agent(DISK)
        self.hub.script["Declare"] = [Refusal(OURS + "NotYours"), Refusal(OURS + "NotYours")]

        async def main() -> None:
            inner = agent._inner
            results = await asyncio.gather(
                inner.declare(Event("Disk", 1)), inner.declare(Event("Disk", 2)),
                inner.declare(NET), return_exceptions=True)
            self.assertEqual([type(one) for one in results],
                             [ordovan.NotYours, ordovan.NotYours, bool])

        self.runner.run(main())
        self.assertEqual(dict(agent.events), {"Disk": DISK, "Net": NET})

    def test_a_refusal_leaves_what_was_declared_after_it(self) -> None:
        agent = self.agent(DISK)
        self.hub.script["Declare"] = [Refusal(OURS + "NotYours")]

        async def main() -> None:
            inner = agent._inner
            results = await asyncio.gather(
                inner.declare(Event("Disk", 1)), inner.declare(Event("Disk", 2)),
                return_exceptions=True)
            self.assertEqual([type(one) for one in results], [ordovan.NotYours, bool])

        self.runner.run(main())
        self.assertEqual(dict(agent.events), {"Disk": Event("Disk", 2)})

    def test_a_leave_that_is_cancelled_goes_on(self) -> None:
        agent = self.agent(DISK)
        self.hub.kill()

        async def main() -> None:
            task = asyncio.create_task(agent._inner.leave())
            await asyncio.sleep(0)
            task.cancel()
            with self.assertRaises(asyncio.CancelledError):
                await task
            await asyncio.sleep(0)
            self.hub.start()
            await agent._inner.leave()

        self.runner.run(main())
        self.assertEqual(self.declared(), {})

    def test_many_tasks_use_one_agent(self) -> None:
        agent = self.agent(*(Event(str(number)) for number in range(100)))

        async def one(name: str) -> None:
            await agent._inner.wait(name)
            await agent._inner.complete(name)

        async def main() -> None:
            async with asyncio.TaskGroup() as group:
                for number in range(100):
                    group.create_task(one(str(number)))

        self.runner.run(main())
        self.assertEqual(set(self.declared().values()), {True})
        self.assertEqual(self.hub.do(lambda: self.hub.peers), 2)

    def test_all_who_wait_hear_that_the_agent_was_closed_or_refused(self) -> None:
        agent = self.agent(NET)

        async def wait_and_then(what: Any) -> list[Any]:
            waits = [asyncio.ensure_future(one) for one in (
                agent._inner.wait("Net"), agent._inner.wait(), agent._inner.changes().__anext__())]
            await asyncio.sleep(0)
            await what()
            return [type(one) for one in await asyncio.gather(*waits, return_exceptions=True)]

        async def refuse() -> None:
            self.hub.script["Join"] = [Refusal(OURS + "NotYours")]
            self.hub.do(lambda: self.hub.hang_up("A"))

        self.assertEqual(self.runner.run(wait_and_then(refuse)), [ordovan.NotYours] * 3)
        self.runner.run(agent._inner.join())
        self.assertEqual(self.runner.run(wait_and_then(agent._inner.close)), [ConnectionLost] * 3)

    def test_what_a_callback_raises_goes_to_the_loop_and_nothing_is_lost(self) -> None:
        agent = self.agent(*(Event(name) for name in "abc"), joined=False)
        seen = []

        def fail(change: Change) -> None:
            seen.append(change.name)
            raise ZeroDivisionError

        agent.on_change = fail
        agent.join(timeout=PATIENCE)
        self.assertEqual(seen, ["a", "b", "c"])
        self.assertEqual([type(one["exception"]) for one in self.loop_errors],
                         [ZeroDivisionError] * 3)
        self.loop_errors.clear()

    def test_a_with_that_is_cancelled_closes_the_agent(self) -> None:
        self.hub.script["Join"] = ["silent"]

        async def main() -> None:
            async with ordovan.aio.Agent("A", [DISK], socket=self.path):
                self.fail("it began")

        async def cancelled() -> None:
            task = asyncio.create_task(main())
            await asyncio.sleep(0)
            task.cancel()
            with self.assertRaises(asyncio.CancelledError):
                await task

        self.runner.run(cancelled())
        self.hub.until(lambda: self.hub.peers == 0)

    def test_a_closed_agent_leaves_nothing_to_the_loop(self) -> None:
        agent = self.agent(DISK)
        self.hub.kill()
        self.pump(agent, lambda: not agent.connected)
        timer = agent._timer
        self.assertFalse(timer.cancelled())
        agent.close()
        self.assertTrue(timer.cancelled())

    def test_neither_a_task_nor_a_thread_is_started(self) -> None:
        agent = self.agent(DISK)

        async def main() -> int:
            await agent._inner.complete("Disk")
            return len(asyncio.all_tasks())

        before = threading.active_count()
        self.assertEqual(self.runner.run(main()), 1)
        self.assertEqual(threading.active_count(), before)


if __name__ == "__main__":
    unittest.main()
