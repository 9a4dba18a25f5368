# Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
"""What the README shows is what is in the examples, and runs."""

from __future__ import annotations

import os
import pathlib
import re
import subprocess
import sys
import unittest

import ordovan
from ordovan import Event

from .standin import PATIENCE
from .support import HubTest

HERE = pathlib.Path(__file__).parent.parent


class Readme(unittest.TestCase):
    def test_every_program_that_it_shows_is_an_example_to_the_letter(self) -> None:
        shown = re.findall(r"^```python\n(.*?)^```$", (HERE / "README.md").read_text(), re.M | re.S)
        self.assertEqual(len(shown), 3)
        examples = {
            path.read_text().split("\n", 1)[1] for path in (HERE / "examples").glob("*.py")
        }
        self.assertEqual(set(shown), examples)

    def test_the_version_is_the_same_everywhere(self) -> None:
        project = (HERE / "pyproject.toml").read_text()
        self.assertIn(f'\nversion = "{ordovan.__version__}"\n', project)
        cmake = (HERE.parent.parent / "CMakeLists.txt").read_text()
        self.assertIn(f"project( Ordovan VERSION {ordovan.__version__} ", cmake)

    def test_everything_public_has_a_docstring(self) -> None:
        count = 0
        for module in (ordovan, ordovan.aio, ordovan.errors, ordovan.values):
            self.assertTrue(module.__doc__)
            for name, one in vars(module).items():
                if name.startswith("_") or not getattr(one, "__module__", "").startswith("ordovan"):
                    continue
                self.assertTrue(one.__doc__, name)
                for member, what in vars(one).items() if isinstance(one, type) else ():
                    if not member.startswith("_") and (callable(what) or isinstance(what, property)):
                        self.assertTrue(what.__doc__, f"{name}.{member}")
                        count += 1
        self.assertGreater(count, 60)


class Examples(HubTest):
    def run_example(self, name: str) -> str:
        environment = {**os.environ, "ORDOVAN_SOCKET": self.path, "PYTHONPATH": str(HERE)}
        done = subprocess.run(
            [sys.executable, "-X", "dev", HERE / "examples" / name], env=environment,
            capture_output=True, text=True, timeout=PATIENCE)
        self.assertEqual((done.stderr, done.returncode), ("", 0))
        return done.stdout

    def test_the_first_agent_does_its_part_in_both_stages(self) -> None:
        self.assertEqual(self.run_example("first_agent.py"),
                         "doing my part in Hardware\ndoing my part in Protocols\n")
        self.assertTrue(self.hub.complete)

    def test_the_first_agent_of_asyncio_does_its_part(self) -> None:
        with ordovan.Hub(self.path) as hub:
            hub.declare("Platform", Event("Hardware", complete=True))
        self.assertEqual(self.run_example("first_agent_aio.py"), "doing my part in Protocols\n")
        self.assertTrue(self.hub.complete)

    def test_who_watches_sees_the_log(self) -> None:
        with ordovan.Hub(self.path) as hub:
            hub.declare("A", Event("Net", complete=True))
        self.assertEqual(self.run_example("watching.py"),
                         "    0.500 stage Net started\n    0.500 stage Net complete\n")


if __name__ == "__main__":
    unittest.main()
