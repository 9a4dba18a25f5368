# Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
"""Every method of the interface as Hub calls it, of both kinds, and every error."""

from __future__ import annotations

import asyncio
import unittest
from contextlib import aclosing
from time import monotonic
from typing import Any
from unittest import mock

import ordovan
import ordovan.aio
from ordovan import ConnectionLost, Event, NoAnswer, ProtocolError
from ordovan._line import open_now

from .standin import OURS, SERVICE, Refusal
from .support import Asynchronous, Background, Blocking, HubTest


class Both:
    """What holds for both kinds."""

    def hub_of(self: Any, **named: Any) -> Any:
        return self.make("Hub", self.path, **named)

    def test_what_is_declared_and_reported_shows_in_the_status(self: Any) -> None:
        hub = self.hub_of()
        hub.declare("A", Event("Disk", 30, True), Event("Net", dependency=("Disk",)))
        hub.declare("B", Event("Gone"))
        hub.report("A", "Disk", note="half")
        status = hub.status()
        self.assertEqual([stage.name for stage in status.stage if stage.active], ["Disk", "Gone"])
        hub.report("A", "Disk")
        hub.declare("B", withdraw=["Gone"])
        status = hub.status()
        self.assertEqual((status.application, status.startup, status.enabled), ("Tests", "first", True))
        disk, net = status.stage[:2]
        self.assertEqual((disk.active, disk.complete, disk.critical, disk.timeout),
                         (True, True, True, 30.0))
        self.assertEqual(disk.event, (ordovan.StageEvent("A", True, False, "half"),))
        self.assertEqual((net.active, net.complete, net.dependency), (True, False, ("Disk",)))
        self.assertEqual([(one.name, one.connected, one.joined, one.lost) for one in status.agent],
                         [("A", False, False, "keep"), ("B", False, False, "keep")])
        self.assertEqual(status.agent[0].event, (
            Event("Disk", 30, True, (), True), Event("Net", None, False, ("Disk",), False)))
        self.assertEqual(status.agent[1].event, ())
        self.assertEqual(status.sequence, 5)
        self.assertEqual(len({number for number, _, _ in self.hub.calls}), 1)

    def test_a_report_can_be_taken_back_and_a_note_alone_says_nothing_else(self: Any) -> None:
        hub = self.hub_of()
        hub.declare("A", Event("Net"))
        hub.report("A", "Net", True)
        hub.report("A", "Net", False)
        hub.report("A", "Net", note="n")
        self.assertEqual(hub.status().agent[0].event, (Event("Net", complete=False),))
        self.assertEqual(self.hub.last("Report"), {"agent": "A", "stage": "Net", "note": "n"})

    def test_an_agent_can_be_made_to_leave(self: Any) -> None:
        hub = self.hub_of()
        hub.declare("A", Event("Net"))
        hub.leave("A")
        self.assertEqual(hub.status().agent, ())
        with self.assertRaises(ordovan.NoSuchAgent):
            hub.leave("A")

    def test_start_up_is_enabled_and_disabled(self: Any) -> None:
        hub = self.hub_of()
        hub.enable(False)
        hub.declare("A", Event("Net"))
        self.assertFalse(hub.status().stage[0].active)
        hub.enable()
        self.assertTrue(hub.status().stage[0].active)

    def test_a_stage_is_explained(self: Any) -> None:
        hub = self.hub_of()
        hub.declare("A", Event("Disk"), Event("Net"))
        self.assertEqual(hub.explain().text, "waits: Disk, Net")
        explained = hub.explain("Net")
        self.assertEqual((explained.text, [dict(one) for one in explained.cause]),
                         ("waits: Net", [{"stage": "Net"}]))
        with self.assertRaises(ordovan.NoSuchStage):
            hub.explain("Nothing")

    def test_the_log_is_told_at_once_or_followed(self: Any) -> None:
        hub = self.hub_of()
        hub.declare("A", Event("Disk"))
        self.assertEqual([(one.sequence, one.message) for one in hub.log()],
                         [(1, "stage Disk started")])
        follow = hub.follow_log()
        self.assertEqual(next(follow).message, "stage Disk started")
        hub.report("A", "Disk")
        self.assertEqual(next(follow), ordovan.Entry(2, 1.0, "stage Disk complete"))
        follow.close()
        self.assertEqual([one.sequence for one in hub.log(1)], [2])
        late = hub.follow_log(1)
        self.assertEqual(next(late).sequence, 2)
        late.close()
        self.hub.until(lambda: self.hub.peers == 1)

    def test_a_watch_begins_with_a_snapshot_and_goes_on_with_what_changes(self: Any) -> None:
        hub = self.hub_of()
        hub.declare("A", Event("Disk"), Event("Net", dependency=("Disk",)))
        watch, all = hub.watch(), hub.watch(all=True)
        first, every = next(watch), next(all)
        self.assertEqual((first.startup, first.sequence, first.snapshot, first.partial,
                          first.complete), ("first", 1, True, False, False))
        self.assertEqual([(one.name, one.event) for one in first.stage], [("Disk", ())])
        self.assertEqual([(one.name, len(one.event)) for one in every.stage],
                         [("Disk", 1), ("Net", 1)])
        hub.report("A", "Disk")
        second = next(watch)
        self.assertEqual((second.sequence, second.snapshot), (2, False))
        self.assertEqual([(one.name, one.complete) for one in second.stage],
                         [("Disk", True), ("Net", False)])
        watch.close()
        all.close()
        again = hub.watch(after=1, startup="first")
        since = next(again)
        self.assertEqual((since.sequence, since.snapshot, len(since.stage)), (2, False, 2))
        again.close()
        other = hub.watch(after=1, startup="another")
        self.assertTrue(next(other).snapshot)
        other.close()

    def test_a_snapshot_comes_in_parts(self: Any) -> None:
        hub = self.hub_of()
        hub.declare("A", Event("One"), Event("Two"), Event("Three"))
        self.hub.part = 2
        watch = hub.watch()
        parts = [next(watch), next(watch)]
        self.assertEqual([(one.snapshot, one.partial, len(one.stage)) for one in parts],
                         [(True, True, 2), (False, False, 1)])
        watch.close()

    def test_a_wait_ends_when_it_is_so(self: Any) -> None:
        hub = self.hub_of()
        with Background(lambda: self.finish()):
            reached = hub.wait("Net", timeout=20)
        self.assertEqual((reached.time, reached.timed_out), (1.0, False))
        self.assertEqual(hub.wait().timed_out, False)
        self.assertEqual(hub.wait(None, "active", timeout=0).time, 1.0)
        self.hub.until(lambda: self.hub.peers <= 1)

    def finish(self: Any) -> None:
        self.hub.until(lambda: "Wait" in self.hub.names())
        with ordovan.Hub(self.path) as other:
            other.declare("A", Event("Net"))
            other.report("A", "Net")

    def test_a_wait_that_lasts_too_long_is_ended_by_the_hub(self: Any) -> None:
        hub = self.hub_of()
        for timeout in (0, 0.05):
            with self.assertRaises(ordovan.TimedOut):
                hub.wait("Net", "active", timeout)
        self.assertEqual(self.hub.last("Wait"), {"stage": "Net", "state": "active", "timeout": 0.05})
        self.hub.until(lambda: self.hub.peers == 0)

    def test_a_wait_for_a_hub_that_says_nothing_ends_a_second_later(self: Any) -> None:
        hub = self.hub_of()
        self.hub.script["Wait"] = ["silent"]
        began = monotonic()
        with self.assertRaises(NoAnswer):
            hub.wait("Net", timeout=0.05)
        self.assertLess(monotonic() - began, 10)

    def test_waits_that_cannot_be_are_refused_here(self: Any) -> None:
        hub = self.hub_of()
        for arguments in (("Net", "gone"), ("Net", "active", -1), ("",), ("x" * 256,)):
            with self.assertRaises(ValueError, msg=arguments):
                hub.wait(*arguments)
        self.assertEqual(self.hub.calls, [])

    def test_the_hub_says_who_it_is(self: Any) -> None:
        hub = self.hub_of()
        self.assertEqual(hub.info(), ordovan.Info(
            "Tests", "Stand-in", "1", "", ("io.ordovan.Stages", "org.varlink.service")))
        self.assertEqual(hub.interface_description(), "interface io.ordovan.Stages")
        self.assertEqual(hub.interface_description("org.varlink.service"),
                         "interface org.varlink.service")
        with self.assertRaises(ordovan.InterfaceNotFound) as caught:
            hub.interface_description("a.b")
        self.assertEqual(caught.exception.interface, "a.b")

    def test_every_error_is_raised_as_its_class(self: Any) -> None:
        hub = self.hub_of()
        names = [OURS + name for name in (
            "NoSuchAgent", "NoSuchStage", "NotYours", "NotJoined", "AlreadyJoined", "Connected",
            "InvalidEvent", "TooMuch", "TimedOut")]
        names += [SERVICE + name for name in (
            "InterfaceNotFound", "MethodNotFound", "MethodNotImplemented", "InvalidParameter",
            "PermissionDenied", "ExpectedMore")]
        calls = {
            "Status": hub.status, "Explain": hub.explain, "Log": hub.log, "Enable": hub.enable,
            "Declare": lambda: hub.declare("A"), "Report": lambda: hub.report("A", "Net"),
            "Leave": lambda: hub.leave("A"), "GetInfo": hub.info,
            "GetInterfaceDescription": hub.interface_description, "Wait": hub.wait,
            "Watch": lambda: next(hub.watch()),
        }
        for name in names:
            kind = getattr(ordovan, name.rpartition(".")[2])
            for method, call in calls.items():
                self.hub.script[method] = [Refusal(name, pid=1, limit="l")]
                with self.assertRaises(kind, msg=f"{method} {name}") as caught:
                    call()
                self.assertEqual(caught.exception.parameters, {"pid": 1, "limit": "l"})
        self.assertEqual(len(self.hub.calls), len(names) * len(calls))

    def test_errors_come_where_the_interface_says_they_do(self: Any) -> None:
        hub = self.hub_of()
        with self.assertRaises(ordovan.NoSuchAgent):
            hub.report("A", "Net")
        hub.declare("A", Event("Net"))
        with self.assertRaises(ordovan.NoSuchStage):
            hub.report("A", "Disk")
        with self.assertRaises(ordovan.InvalidEvent) as caught:
            hub.declare("A", Event("Disk"), Event("Net", dependency=("Net",)))
        self.assertEqual(caught.exception.field, "event[1].dependency")
        self.hub.allowed = False
        calls: list[Any] = [lambda: hub.declare("A"), lambda: hub.report("A", "Net"),
                            lambda: hub.leave("A")]
        for call in calls:
            with self.assertRaises(ordovan.NotYours):
                call()
        with self.assertRaises(ordovan.PermissionDenied):
            hub.enable(False)

    def test_a_hub_that_comes_back_is_asked_again(self: Any) -> None:
        hub = self.hub_of()
        self.assertEqual(hub.status().startup, "first")
        self.hub.kill()
        with self.assertRaises(ConnectionLost):
            hub.status()
        with self.assertRaises(ConnectionLost):
            hub.status()
        self.hub.start()
        self.assertEqual(hub.status().startup, "first")
        with self.assertRaises(ConnectionLost):
            self.hub.script["Status"] = ["close"]
            hub.status()
        # Once: nothing is asked again by itself.
        self.assertEqual(len(self.hub.names("Status")), 3)

    def test_a_wrong_answer_is_told_and_the_next_call_begins_anew(self: Any) -> None:
        hub = self.hub_of()
        self.hub.script["Status"] = [b'{"parameters":{"application":1}}\0']
        with self.assertRaises(ProtocolError):
            hub.status()
        self.assertEqual(hub.status().application, "Tests")
        self.assertEqual([number for number, _, _ in self.hub.calls], [1, 2])

    def test_a_hub_that_does_not_answer_is_given_up_in_time(self: Any) -> None:
        hub = self.hub_of(timeout=0.05)
        self.hub.script["Status"] = ["silent"]
        began = monotonic()
        with self.assertRaises(NoAnswer):
            hub.status()
        self.assertLess(monotonic() - began, 10)

    def test_watches_waits_and_questions_have_their_own_connections(self: Any) -> None:
        hub = self.hub_of()
        hub.status()
        watch, log = hub.watch(), hub.follow_log()
        next(watch)
        hub.declare("A", Event("Net"))
        next(log)
        next(watch)
        self.assertEqual(self.hub.do(lambda: self.hub.peers), 3)
        watch.close()
        log.close()
        hub.close()
        self.hub.until(lambda: self.hub.peers == 0)

    def test_a_watch_ends_with_its_hub(self: Any) -> None:
        hub = self.hub_of()
        watch = hub.watch()
        next(watch)
        self.hub.kill()
        with self.assertRaises(ConnectionLost):
            next(watch)


class BlockingHubs(Both, Blocking, HubTest):
    def test_a_watch_that_brings_nothing_in_time_ends(self) -> None:
        hub = self.hub_of()
        watch = hub.watch(timeout=0.05)
        next(watch)
        with self.assertRaises(NoAnswer):
            next(watch)
        log = hub.follow_log(timeout=0.05)
        with self.assertRaises(NoAnswer):
            next(log)
        self.hub.until(lambda: self.hub.peers == 0)


class AsynchronousHubs(Both, Asynchronous, HubTest):
    def test_tasks_share_one_connection(self) -> None:
        async def main() -> None:
            async with ordovan.aio.Hub(self.path) as hub:
                await asyncio.gather(*(hub.status() for _ in range(20)))
                await asyncio.gather(*(hub.status() for _ in range(20)))
            self.assertEqual(len(self.hub.names("Status")), 40)
            self.assertEqual(len({number for number, _, _ in self.hub.calls}), 1)

        self.runner.run(main())

    def test_of_two_tasks_that_connect_at_once_one_gives_way(self) -> None:
        full = [BlockingIOError(11, "full")] * 2

        def once_full(path: str) -> Any:
            if full:
                raise full.pop()
            return open_now(path)

        async def main() -> None:
            async with ordovan.aio.Hub(self.path) as hub:
                with mock.patch("ordovan.aio.open_now", once_full):
                    await asyncio.gather(hub.status(), hub.status())
                await hub.status()

        self.runner.run(main())
        self.assertEqual(len({number for number, _, _ in self.hub.calls}), 1)
        self.hub.until(lambda: self.hub.peers == 0)

    def test_a_wait_that_is_cancelled_ends_its_connection(self) -> None:
        async def main() -> None:
            async with ordovan.aio.Hub(self.path) as hub:
                wait = asyncio.create_task(hub.wait("Net"))
                while "Wait" not in self.hub.names():
                    await hub.status()
                wait.cancel()
                with self.assertRaises(asyncio.CancelledError):
                    await wait
                self.assertEqual((await hub.status()).application, "Tests")

        self.runner.run(main())
        self.hub.until(lambda: self.hub.peers == 0)

    def test_a_watch_that_is_cancelled_ends_its_connection(self) -> None:
        async def main() -> None:
            async with ordovan.aio.Hub(self.path) as hub:
                came = asyncio.Event()

                async def follow() -> None:
                    async with aclosing(hub.watch()) as watch:
                        async for _ in watch:
                            came.set()

                task = asyncio.create_task(follow())
                await came.wait()
                task.cancel()
                with self.assertRaises(asyncio.CancelledError):
                    await task

        self.runner.run(main())
        self.hub.until(lambda: self.hub.peers == 0)

    def test_a_timeout_of_asyncio_ends_a_wait(self) -> None:
        async def main() -> None:
            async with ordovan.aio.Hub(self.path) as hub:
                with self.assertRaises(TimeoutError):
                    async with asyncio.timeout(0.05):
                        await hub.wait("Net")

        self.runner.run(main())
        self.hub.until(lambda: self.hub.peers == 0)


if __name__ == "__main__":
    unittest.main()
