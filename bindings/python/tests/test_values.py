# Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
"""Values: what can be declared, and how answers are read."""

from __future__ import annotations

import copy
import math
import pickle
import unittest
from collections.abc import Callable
from typing import Any

import ordovan
from ordovan import Event, ProtocolError, errors, values
from ordovan import _requests as requests

STAGE: dict[str, Any] = {
    "name": "Net", "active": True, "complete": False, "timedOut": True, "suspended": False,
    "critical": True, "timeout": 2, "dependency": ["Disk"],
    "event": [{"agent": "A", "complete": True, "connected": False, "note": "hi"}],
}
EVENT: dict[str, Any] = {
    "stage": "Net", "timeout": 1.5, "critical": True, "dependency": ["Disk"], "complete": False,
}
AGENT: dict[str, Any] = {
    "name": "A", "connected": True, "joined": True, "lost": "withdraw", "event": [EVENT],
}
STATUS: dict[str, Any] = {
    "application": "Tests", "startup": "s", "enabled": True, "complete": False, "sequence": 3,
    "time": 1, "stage": [STAGE], "agent": [AGENT],
}
PROGRESS: dict[str, Any] = {
    "startup": "s", "sequence": 3, "time": 0.5, "snapshot": True, "partial": False,
    "complete": False, "stage": [STAGE],
}


class Events(unittest.TestCase):
    def test_an_event_has_the_defaults_that_the_interface_has(self) -> None:
        event = Event("Net")
        self.assertEqual(
            (event.stage, event.timeout, event.critical, event.dependency, event.complete),
            ("Net", None, False, (), None),
        )
        self.assertEqual(event.parameters(), {"stage": "Net"})

    def test_an_event_is_sent_as_it_was_made(self) -> None:
        event = Event("Net", 1.5, True, ["Disk"], False)
        self.assertEqual(event.parameters(), EVENT)
        self.assertEqual(values.read_event(EVENT), event)
        self.assertEqual(hash(event), hash(values.read_event(EVENT)))

    def test_an_infinite_timeout_is_none(self) -> None:
        self.assertIsNone(Event("Net", math.inf).timeout)

    def test_timeouts_that_cannot_be_are_refused(self) -> None:
        for timeout in (0, -1.0, math.nan, -math.inf):
            with self.assertRaises(ValueError, msg=repr(timeout)):
                Event("Net", timeout)
        for wrong in ("1", True):
            with self.assertRaises(TypeError, msg=repr(wrong)):
                Event("Net", wrong)  # type: ignore[arg-type]

    def test_names_have_1_to_255_bytes_without_a_zero_byte(self) -> None:
        for name in ("x", "x" * 255, "ä" * 127, " "):
            self.assertEqual(Event(name, dependency=(name,)).stage, name)
        for name in ("", "x" * 256, "ä" * 128, "a\0b", "\ud800"):
            with self.assertRaises(ValueError, msg=repr(name)):
                Event(name)
            with self.assertRaises(ValueError, msg=repr(name)):
                Event("Net", dependency=(name,))

    def test_one_text_as_dependency_is_refused_since_it_would_be_its_letters(self) -> None:
        with self.assertRaises(TypeError):
            Event("Net", dependency="Disk")

    def test_what_is_no_bool_is_refused(self) -> None:
        with self.assertRaises(TypeError):
            Event("Net", critical=1)  # type: ignore[arg-type]
        with self.assertRaises(TypeError):
            Event("Net", complete=1)  # type: ignore[arg-type]

    def test_a_note_has_up_to_1024_bytes(self) -> None:
        self.assertEqual(
            requests.report(None, "Net", None, "ä" * 512).parameters,
            {"stage": "Net", "note": "ä" * 512},
        )
        with self.assertRaises(ValueError):
            requests.report(None, "Net", None, "ä" * 512 + "x")


class Answers(unittest.TestCase):
    def test_a_status_is_read_with_everything(self) -> None:
        status = values.read_status({**STATUS, "new": 1})
        event = values.StageEvent("A", True, False, "hi")
        stage = values.Stage("Net", True, False, True, False, True, 2.0, ("Disk",), (event,))
        agent = values.AgentInfo(
            "A", True, True, "withdraw", (Event("Net", 1.5, True, ("Disk",), False),)
        )
        expected = values.Status("Tests", "s", True, False, 3, 1.0, (stage,), (agent,))
        self.assertEqual(status, expected)

    def test_an_answer_to_a_watch_is_read_with_everything(self) -> None:
        progress = values.read_progress(PROGRESS)
        self.assertEqual((progress.startup, progress.sequence, progress.time), ("s", 3, 0.5))
        self.assertEqual(
            (progress.snapshot, progress.partial, progress.complete), (True, False, False)
        )
        self.assertEqual([stage.name for stage in progress.stage], ["Net"])

    def test_null_and_absent_are_the_same_where_they_may_be(self) -> None:
        for without in ({**STAGE, "timeout": None}, {k: v for k, v in STAGE.items() if k != "timeout"}):
            self.assertIsNone(values.read_stage(without).timeout)
        nulls: dict[str, Any] = {**EVENT, "timeout": None, "critical": None, "dependency": None, "complete": None}
        self.assertEqual(values.read_event(nulls), Event("Net"))

    def test_every_member_that_is_missing_or_of_another_type_is_told(self) -> None:
        readers: list[tuple[Callable[[Any], Any], dict[str, Any], set[str]]] = [
            (values.read_status, STATUS, set()),
            (values.read_progress, PROGRESS, set()),
            (values.read_stage, STAGE, {"timeout"}),
            (values.read_event, EVENT, {"timeout", "critical", "dependency", "complete"}),
            (values._read_agent, AGENT, set()),
            (values._read_stage_event, STAGE["event"][0], {"note"}),
            (values.read_reached, {"time": 1.0, "timedOut": False}, set()),
            (values.read_explanation, {"text": "x", "cause": [{"a": 1}]}, set()),
            (values.read_info, {"vendor": "", "product": "", "version": "", "url": "",
                                "interfaces": ["a"]}, set()),
            (requests._read_joined, {"startup": "s", "sequence": 1}, set()),
            (requests._read_description, {"description": "x"}, set()),
        ]
        for reader, good, may_miss in readers:
            reader(good)
            for key, value in good.items():
                if key not in may_miss:
                    without = {k: v for k, v in good.items() if k != key}
                    with self.assertRaises(ProtocolError, msg=f"{reader} without {key}"):
                        reader(without)
                wrongs: list[Any] = [{"x": 1}]
                if isinstance(value, list):
                    wrongs += ["x", [None], [[1]]]
                elif isinstance(value, bool):
                    wrongs += [1, "true"]
                elif isinstance(value, str):
                    wrongs += [1, True]
                else:
                    wrongs += ["1", True]
                for wrong in wrongs:
                    with self.assertRaises(ProtocolError, msg=f"{reader}: {key} is {wrong}"):
                        reader({**copy.deepcopy(good), key: wrong})

    def test_numbers_that_are_none_are_refused(self) -> None:
        for wrong in (10**400, math.inf):
            with self.assertRaises(ProtocolError):
                values.read_reached({"time": wrong, "timedOut": False})
        with self.assertRaises(ProtocolError):
            requests._read_joined({"startup": "s", "sequence": 1.0})

    def test_an_event_that_cannot_be_is_no_answer(self) -> None:
        with self.assertRaises(ProtocolError):
            values.read_event({**EVENT, "timeout": 0})

    def test_entries_are_read_in_their_order(self) -> None:
        entry: dict[str, Any] = {"sequence": 1, "time": 2, "message": "m\x1b"}
        second = {**entry, "sequence": 2}
        self.assertEqual(
            values.read_entries({"entry": [entry, second]}),
            [values.Entry(1, 2.0, "m\x1b"), values.Entry(2, 2.0, "m\x1b")],
        )


class Changes(unittest.TestCase):
    def test_a_change_says_what_happened_with_it(self) -> None:
        waiting = values.read_stage({**STAGE, "active": False})
        active = values.read_stage(STAGE)
        complete = values.read_stage({**STAGE, "complete": True})
        cases = [
            (None, waiting, False, False), (waiting, active, True, False),
            (None, complete, True, True), (active, complete, False, True),
            (active, active, False, False), (complete, None, False, False),
        ]
        for before, now, started, completed in cases:
            change = values.Change("s", "Net", before, now)
            self.assertEqual((change.started, change.completed), (started, completed), str(change))


class Errors(unittest.TestCase):
    def test_every_error_of_the_interface_has_its_class(self) -> None:
        ours = ["NoSuchAgent", "NoSuchStage", "NotYours", "NotJoined", "AlreadyJoined", "Connected",
                "InvalidEvent", "TooMuch", "TimedOut"]
        service = ["InterfaceNotFound", "MethodNotFound", "MethodNotImplemented", "InvalidParameter",
                   "PermissionDenied", "ExpectedMore"]
        for prefix, names in (("io.ordovan.Stages.", ours), ("org.varlink.service.", service)):
            for name in names:
                error = errors.error_of(prefix + name, {"x": 1})
                self.assertIs(type(error), getattr(ordovan, name))
                self.assertEqual(str(error), f"{prefix}{name} (x=1)")
                again = pickle.loads(pickle.dumps(error))
                self.assertEqual((type(again), again.name, again.parameters),
                                 (type(error), prefix + name, {"x": 1}))

    def test_an_error_that_nobody_here_knows_keeps_its_name(self) -> None:
        error = errors.error_of("a.b.New")
        self.assertEqual((type(error), error.name, str(error)),
                         (errors.VarlinkError, "a.b.New", "a.b.New"))

    def test_parameters_are_attributes(self) -> None:
        of = errors.error_of
        self.assertEqual(of("org.varlink.service.InterfaceNotFound", {"interface": "i"}).interface, "i")  # type: ignore[attr-defined]
        self.assertEqual(of("org.varlink.service.MethodNotFound", {"method": "m"}).method, "m")  # type: ignore[attr-defined]
        self.assertEqual(of("org.varlink.service.MethodNotImplemented", {"method": "m"}).method, "m")  # type: ignore[attr-defined]
        self.assertEqual(of("org.varlink.service.InvalidParameter", {"parameter": "p"}).parameter, "p")  # type: ignore[attr-defined]
        invalid = of("io.ordovan.Stages.InvalidEvent", {"field": "f", "reason": "r"})
        assert isinstance(invalid, errors.InvalidEvent)
        self.assertEqual((invalid.field, invalid.reason), ("f", "r"))
        self.assertEqual(of("io.ordovan.Stages.TooMuch", {"limit": "l"}).limit, "l")  # type: ignore[attr-defined]
        self.assertEqual(of("io.ordovan.Stages.Connected", {"pid": 7}).pid, 7)  # type: ignore[attr-defined]

    def test_parameters_of_another_type_are_empty(self) -> None:
        self.assertEqual(errors.Connected("x", {"pid": "7"}).pid, 0)
        self.assertEqual(errors.TooMuch("x", {"limit": 7}).limit, "")

    def test_both_ends_of_a_wait_are_a_timeout_error(self) -> None:
        self.assertTrue(issubclass(ordovan.TimedOut, TimeoutError))
        self.assertTrue(issubclass(ordovan.NoAnswer, TimeoutError))
        for one in vars(errors).values():
            if isinstance(one, type) and issubclass(one, Exception):
                self.assertTrue(issubclass(one, ordovan.Error))


if __name__ == "__main__":
    unittest.main()
