# Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
"""The package with the hub itself: that the stand-in of the other tests has misled nobody. The program
that ORDOVAN_TEST_HUB names is a hub; without it nothing is tested."""

from __future__ import annotations

import os
import subprocess
import tempfile
import unittest
from typing import Any

import ordovan
from ordovan import Event

from .standin import PATIENCE
from .support import Asynchronous, Blocking, LeakTest

HUB = os.environ.get("ORDOVAN_TEST_HUB")


class Both:
    """What holds for both kinds."""

    def setUp(self: Any) -> None:
        super().setUp()  # type: ignore[misc]
        if not HUB:
            self.skipTest("ORDOVAN_TEST_HUB names no hub")
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.path = os.path.join(folder.name, "hub.socket")
        self.process: subprocess.Popen[bytes] | None = None
        self.addCleanup(self.kill)
        self.start("first")

    def start(self: Any, startup: str) -> None:
        assert HUB
        self.process = subprocess.Popen([HUB, self.path, startup], stdout=subprocess.PIPE)
        assert self.process.stdout is not None
        self.assertEqual(self.process.stdout.readline(), b"ready\n")

    def kill(self: Any) -> None:
        process, self.process = self.process, None
        if process is not None:
            process.kill()
            process.wait()
            process.stdout.close()

    def test_an_agent_goes_through_its_stages(self: Any) -> None:
        events = [Event("Disk", 30, True), Event("Net", dependency=["Disk"])]
        with self.make("Agent", "A", events, socket=self.path) as agent:
            self.assertEqual((agent.startup, agent.connected), ("first", True))
            self.assertEqual(agent.wait(timeout=PATIENCE).name, "Disk")
            self.assertTrue(agent.complete("Disk", "done"))
            self.assertEqual(agent.wait(timeout=PATIENCE).name, "Net")
            self.assertTrue(agent.complete("Net"))
            hub = self.make("Hub", self.path)
            self.assertFalse(hub.wait(timeout=PATIENCE).timed_out)
            status = hub.status()
            self.assertEqual((status.application, status.complete), ("Tests", True))
            self.assertEqual([(one.name, one.complete, one.timeout) for one in status.stage],
                             [("Disk", True, 30.0), ("Net", True, None)])
            self.assertEqual(status.stage[0].event,
                             (ordovan.StageEvent("A", True, True, "done"),))
            agent.leave(timeout=PATIENCE)
            self.assertEqual(hub.status().agent, ())

    def test_questions_are_answered(self: Any) -> None:
        hub = self.make("Hub", self.path)
        hub.declare("A", Event("Disk"))
        self.assertIn("Disk", hub.explain().text)
        self.assertIn("stage Disk started", [entry.message for entry in hub.log()])
        watch = hub.watch(all=True)
        self.assertEqual([one.name for one in next(watch).stage], ["Disk"])
        hub.report("A", "Disk")
        self.assertTrue(next(watch).stage[0].complete)
        watch.close()
        follow = hub.follow_log()
        self.assertEqual(next(follow).sequence, 1)
        follow.close()
        self.assertIn("io.ordovan.Stages", hub.info().interfaces)
        self.assertIn("method Join(", hub.interface_description())
        hub.enable(False)
        self.assertFalse(hub.status().enabled)
        with self.assertRaises(ordovan.TimedOut):
            hub.wait("Never", "active", timeout=0.05)
        refused: list[Any] = [
            (ordovan.NoSuchAgent, lambda: hub.report("B", "Disk")),
            (ordovan.NoSuchStage, lambda: hub.report("A", "Net")),
            (ordovan.NoSuchStage, lambda: hub.explain("Net")),
            (ordovan.InterfaceNotFound, lambda: hub.interface_description("a.b")),
        ]
        for error, call in refused:
            with self.assertRaises(error):
                call()

    def test_an_agent_joins_the_next_start_up_with_all_that_was_said(self: Any) -> None:
        agent = self.make("Agent", "A", [Event("Disk"), Event("Gone")], socket=self.path)
        agent.join(timeout=PATIENCE)
        agent.complete("Disk")
        self.kill()
        self.assertFalse(agent.declare(Event("Net"), withdraw=["Gone"]))
        self.start("second")
        agent.flush(timeout=PATIENCE)
        agent.join(timeout=PATIENCE)
        self.assertEqual(agent.startup, "second")
        self.assertEqual({one.stage: one.complete
                          for one in self.make("Hub", self.path).status().agent[0].event},
                         {"Disk": True, "Net": False})
        self.assertEqual(agent.wait("Net", timeout=PATIENCE).name, "Net")


class BlockingWithTheHub(Both, Blocking, LeakTest):
    pass


class AsynchronousWithTheHub(Both, Asynchronous, LeakTest):
    pass


if __name__ == "__main__":
    unittest.main()
