# Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
"""Agents that say anything at any moment, with a hub that comes and goes: in the end the hub has what
they said, and they see what the hub shows."""

from __future__ import annotations

import os
import random
import unittest
from typing import Any

from ordovan import Event

from .standin import PATIENCE
from .support import Asynchronous, Blocking, HubTest

SEEDS = int(os.environ.get("ORDOVAN_TEST_SEEDS", "12"))
FIRST = int(os.environ.get("ORDOVAN_TEST_FIRST_SEED", "0"))
STEPS = 25


class Both:
    """What holds for both kinds."""

    def test_in_the_end_the_hub_has_what_was_said_and_the_agent_sees_it(self: Any) -> None:
        for seed in range(FIRST, FIRST + SEEDS):
            with self.subTest(seed=seed):
                self.draw = random.Random(seed)
                self.play()
                self.hub.kill()
                self.hub.begin("first")
                self.hub.start()

    def play(self: Any) -> None:
        self.alive, self.startups = True, 1
        agent = self.make("Agent", "A", socket=self.path, all=True)
        # Quick, but in the order of the seed.
        agent._session.backoff._draw = lambda low, high: self.draw.uniform(0, 0.01)
        agent.join(timeout=PATIENCE)
        for _ in range(STEPS):
            self.step(agent)
        if not self.alive:
            self.hub.start()
        agent.flush(timeout=PATIENCE)
        agent.declare(Event("last"))
        agent.flush(timeout=PATIENCE)
        shown = self.hub.do(lambda: {
            name: stage["shown"]["complete"] for name, stage in self.hub.stages.items()})
        for _ in range(1000):
            agent.poll(0.1)
            if {name: one.complete for name, one in agent.stages.items()} == shown:
                break
        self.assertEqual({name: one.complete for name, one in agent.stages.items()}, shown)
        self.assertEqual(agent.startup, self.hub.startup)
        declared = self.hub.do(lambda: dict(self.hub.agents["A"]["event"]))
        self.assertEqual(
            {name: event["complete"] for name, event in declared.items()},
            {name: bool(event.complete) for name, event in agent.events.items()})
        self.assertEqual({name: event.get("timeout") for name, event in declared.items()},
                         {name: event.timeout for name, event in agent.events.items()})
        agent.close()

    def step(self: Any, agent: Any) -> None:
        draw = self.draw
        what = draw.randrange(12)
        name = draw.choice("abcdef")
        if what < 3:
            agent.declare(Event(name, draw.choice([None, 1, 2]),
                                complete=draw.choice([None, None, True])))
        elif what == 3:
            agent.withdraw(name)
        elif what < 6 and agent.events:
            agent.report(draw.choice(list(agent.events)), draw.random() < 0.8)
        elif what == 6 and agent.events:
            agent.note(draw.choice(list(agent.events)), str(draw.random()))
        elif what == 7 and self.alive:
            self.hub.do(lambda: self.hub.hang_up(draw.choice([None, "A"]), draw.random() < 0.5))
        elif what == 8 and self.alive:
            self.hub.script[draw.choice(["Join", "Watch", "Declare", "Report"])].append("close")
        elif what == 9:
            if self.alive:
                self.hub.kill()
                if draw.random() < 0.3:
                    self.startups += 1
                    self.hub.begin(f"number {self.startups}")
            else:
                self.hub.start()
            self.alive = not self.alive
        else:
            agent.poll(0)


class BlockingAgents(Both, Blocking, HubTest):
    pass


class AsynchronousAgents(Both, Asynchronous, HubTest):
    pass


if __name__ == "__main__":
    unittest.main()
