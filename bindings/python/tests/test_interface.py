# Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
"""The package, and the stand-in of its tests, held to the interface's text."""

from __future__ import annotations

import dataclasses
import inspect
import pathlib
import re
import unittest
from typing import Any

from ordovan import _requests as requests
from ordovan import aio, errors, hub, values

from . import standin

TEXT = pathlib.Path(__file__).parents[3] / "live" / "io.ordovan.Stages.varlink"
Fields = dict[str, str]


def fields(text: str) -> Fields:
    return {
        name: kind for name, kind in re.findall(r"(\w+): ([?\[\]\w]+)", text)
    }


class Interface:
    """What the text says."""

    def __init__(self) -> None:
        text = re.sub(r"#.*", "", TEXT.read_text())
        # Enumerations are texts.
        text = re.sub(r"\(\s*\w+(,\s*\w+)*\s*\)", "string", text)
        found = re.findall(r"\bmethod (\w+)\s*\(([^)]*)\)\s*->\s*\(([^)]*)\)", text)
        self.methods = {name: (fields(takes), fields(gives)) for name, takes, gives in found}
        found = re.findall(r"\btype (\w+)\s*\(([^)]*)\)", text)
        self.types = {name: fields(inner) for name, inner in found}
        found = re.findall(r"\berror (\w+)\s*\(([^)]*)\)", text)
        self.errors = {name: fields(inner) for name, inner in found}


def members(kind: Any) -> set[str]:
    """A value's members, as the interface writes them."""
    return {
        re.sub(r"_(\w)", lambda found: found[1].upper(), one.name)
        for one in dataclasses.fields(kind)
    }


class TheInterface(unittest.TestCase):
    def setUp(self) -> None:
        self.text = Interface()
        self.assertEqual(len(self.text.methods), 10)
        self.assertEqual((len(self.text.types), len(self.text.errors)), (5, 9))

    def test_the_stand_in_takes_what_the_text_says(self) -> None:
        kinds = {str: "string", bool: "bool", int: "int", (int, float): "float"}
        takes = {}
        for method, parameters in standin.METHODS.items():
            takes[method] = {
                name.lower(): ("" if name.isupper() else "?") + kinds.get(kind, "[]")
                for name, kind in parameters.items()
            }
        expected = {
            method: {name: re.sub(r"\[\]\w+", "[]", kind) for name, kind in said.items()}
            for method, (said, _) in self.text.methods.items()
        }
        self.assertEqual(takes, expected)

    def test_requests_say_what_the_text_knows(self) -> None:
        event = values.Event("Net", 1, True, ("Disk",), False)
        whole: list[requests.Request[Any]] = [
            requests.join("A", [event], "keep", True), requests.declare("A", [event], ["Disk"]),
            requests.report("A", "Net", True, "n"), requests.leave("A"),
            requests.watch(True, 1, "s"), requests.wait("Net", "active", 1), requests.status(),
            requests.explain("Net"), requests.log(1, True), requests.enable(True),
        ]
        said = {one.method.removeprefix("io.ordovan.Stages."): set(one.parameters) for one in whole}
        self.assertEqual(
            said, {name: set(takes) for name, (takes, _) in self.text.methods.items()})
        self.assertEqual(set(event.parameters()), set(self.text.types["Event"]))

    def test_answers_and_types_are_read_whole(self) -> None:
        for method, kind in {
            "Join": requests.Joined, "Watch": values.Progress, "Wait": values.Reached,
            "Status": values.Status, "Explain": values.Explanation,
        }.items():
            self.assertEqual(members(kind), set(self.text.methods[method][1]), method)
        for name, kind in {
            "Event": values.Event, "StageEvent": values.StageEvent, "Stage": values.Stage,
            "Agent": values.AgentInfo, "Entry": values.Entry,
        }.items():
            self.assertEqual(members(kind), set(self.text.types[name]), name)

    def test_every_error_of_the_text_has_a_class_with_its_parameters(self) -> None:
        prefix = "io.ordovan.Stages."
        known = {name.removeprefix(prefix): kind for name, kind in errors._known.items()
                 if name.startswith(prefix)}
        self.assertEqual(set(known), set(self.text.errors))
        for name, parameters in self.text.errors.items():
            for parameter in parameters:
                self.assertIsInstance(getattr(known[name], parameter, None), property, name)

    def test_both_hubs_have_a_method_for_each_of_the_text(self) -> None:
        for kind in (hub.Hub, aio.Hub):
            methods = {name for name, _ in inspect.getmembers(kind, inspect.isfunction)}
            wanted = {name.lower() for name in self.text.methods} - {"join"}
            self.assertEqual(wanted - methods, set())


if __name__ == "__main__":
    unittest.main()
