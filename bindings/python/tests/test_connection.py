# Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
"""Connections of both kinds, with a hub that does as it should, and with one that does not."""

from __future__ import annotations

import asyncio
import os
import socket
import unittest
from contextlib import aclosing
from time import monotonic
from typing import Any
from unittest import mock

import ordovan
import ordovan.aio
from ordovan import ConnectionLost, NoAnswer, ProtocolError

from .standin import OURS, PATIENCE, Refusal
from .support import Aio, Asynchronous, Blocking, HubTest, LeakTest

STATUS = OURS + "Status"
WATCH = OURS + "Watch"
ENABLE = OURS + "Enable"


class Both:
    """What holds for both kinds."""

    def test_a_call_is_answered(self: Any) -> None:
        connection = self.connection(self.path)
        self.assertEqual(connection.call(STATUS)["application"], "Tests")
        self.assertEqual(connection.call(ENABLE, {"enabled": False}), {})
        self.assertEqual(connection.call(STATUS)["enabled"], False)
        self.assertEqual(len({number for number, _, _ in self.hub.calls}), 1)

    def test_an_error_is_raised_with_its_parameters_and_the_connection_goes_on(self: Any) -> None:
        connection = self.connection(self.path)
        with self.assertRaises(ordovan.MethodNotFound) as caught:
            connection.call(OURS + "Nothing")
        self.assertEqual(caught.exception.method, OURS + "Nothing")
        self.hub.script["Status"] = [Refusal("a.b.Unheard", one=[1])]
        with self.assertRaises(ordovan.VarlinkError) as other:
            connection.call(STATUS)
        self.assertEqual((other.exception.name, other.exception.parameters),
                         ("a.b.Unheard", {"one": [1]}))
        self.assertEqual(connection.call(STATUS)["application"], "Tests")

    def test_calls_for_more_are_iterated_over(self: Any) -> None:
        connection = self.connection(self.path)
        self.hub.script["Log"] = [b'{"parameters":{"n":1},"continues":true}\0'
                                  b'{"parameters":{"n":2},"continues":true}\0{}\0']
        got = list(connection.call_more(OURS + "Log", {"follow": True}))
        self.assertEqual(got, [{"n": 1}, {"n": 2}, {}])
        self.assertEqual(connection.call(STATUS)["application"], "Tests")

    def test_an_error_ends_the_iteration_and_leaves_the_connection(self: Any) -> None:
        connection = self.connection(self.path)
        self.hub.script["Watch"] = [b'{"parameters":{"n":1},"continues":true}\0'
                                    b'{"error":"io.ordovan.Stages.TooMuch"}\0']
        answers = connection.call_more(WATCH)
        self.assertEqual(next(answers), {"n": 1})
        with self.assertRaises(ordovan.TooMuch):
            next(answers)
        self.assertEqual(connection.call(STATUS)["application"], "Tests")

    def test_while_one_call_goes_on_no_other_can_be_made(self: Any) -> None:
        connection = self.connection(self.path)
        answers = connection.call_more(WATCH, {"all": True})
        self.assertTrue(next(answers)["snapshot"])
        with self.assertRaisesRegex(RuntimeError, "Watch"):
            connection.call(STATUS)
        self.assertEqual(self.hub.names(), ["Watch"])
        answers.close()

    def test_an_iteration_that_is_left_early_closes_the_connection(self: Any) -> None:
        connection = self.connection(self.path)
        answers = connection.call_more(WATCH)
        next(answers)
        answers.close()
        self.assertTrue(connection.closed)
        self.hub.until(lambda: self.hub.peers == 0)
        with self.assertRaises(ConnectionLost):
            connection.call(STATUS)

    def test_a_call_without_answer_is_done_and_not_answered(self: Any) -> None:
        connection = self.connection(self.path)
        connection.call_oneway(ENABLE, {"enabled": False})
        connection.call_oneway(OURS + "Nothing")
        self.assertFalse(connection.call(STATUS)["enabled"])
        self.assertEqual(self.hub.oneways, 2)

    def test_a_message_at_the_limit_is_sent_and_one_past_it_is_not(self: Any) -> None:
        connection = self.connection(self.path)
        method = OURS + "Nothing"
        empty = len(ordovan._wire.encode_call(method, {"x": ""}, more=False, oneway=False))
        room = ordovan._wire.MAX_SENT - empty
        with self.assertRaises(ordovan.MethodNotFound):
            connection.call(method, {"x": "y" * room})
        with self.assertRaises(ordovan.MessageTooLarge):
            connection.call(method, {"x": "y" * (room + 1)})
        self.assertEqual(connection.call(STATUS)["application"], "Tests")
        self.assertEqual((self.hub.names(), self.hub.invalid), (["Nothing", "Status"], 0))

    def test_an_answer_at_the_limit_is_received_and_one_past_it_ends_the_connection(self: Any) -> None:
        frame = b'{"parameters":{"x":"%s"}}\0'
        room = ordovan._wire.MAX_RECEIVED - len(frame) + 3
        self.hub.script["Status"] = [frame % (b"y" * room), frame % (b"y" * (room + 1))]
        connection = self.connection(self.path)
        self.assertEqual(len(connection.call(STATUS)["x"]), room)
        with self.assertRaises(ProtocolError):
            connection.call(STATUS)
        self.assertTrue(connection.closed)

    def test_what_is_no_answer_ends_the_connection(self: Any) -> None:
        for junk in (b"x\0", b'{"error":5}\0', b'{"continues":true}\0', b"{}\0{}\0x\0"):
            self.hub.script["Status"] = [junk]
            connection = self.connection(self.path)
            if junk.startswith(b"{}"):
                connection.call(STATUS)
                if not connection.closed:
                    with self.assertRaises((ProtocolError, ConnectionLost)):
                        connection.call(STATUS)
            else:
                with self.assertRaises(ProtocolError, msg=junk):
                    connection.call(STATUS)
            self.assertTrue(connection.closed)
            self.hub.until(lambda: self.hub.peers == 0)

    def test_a_hub_that_goes_ends_calls_and_the_connection(self: Any) -> None:
        connection = self.connection(self.path)
        self.hub.script["Status"] = ["close"]
        with self.assertRaises(ConnectionLost):
            connection.call(STATUS)
        self.assertTrue(connection.closed)
        with self.assertRaises(ConnectionLost):
            connection.call(STATUS)
        with self.assertRaises(ConnectionLost):
            connection.call_oneway(STATUS)
        with self.assertRaises(ConnectionLost):
            next(connection.call_more(WATCH))

    def test_a_hub_that_is_killed_is_noticed_by_the_next_call(self: Any) -> None:
        connection = self.connection(self.path)
        connection.call(STATUS)
        self.hub.kill()
        with self.assertRaises(ConnectionLost):
            connection.call(STATUS)

    def test_nobody_at_the_socket_is_a_lost_connection(self: Any) -> None:
        self.hub.kill()
        self.assertTrue(os.path.exists(self.path))
        with self.assertRaises(ConnectionLost):
            self.connection(self.path)
        with self.assertRaises(ConnectionLost):
            self.connection(self.path + ".not-there")

    def test_what_cannot_be_connected_to_is_unreachable(self: Any) -> None:
        with self.assertRaises(ordovan.Unreachable):
            self.connection("/" + "x" * 200)

    def test_a_call_is_given_up_after_its_time_and_its_answer_is_dropped(self: Any) -> None:
        connection = self.connection(self.path, timeout=20)
        began = monotonic()
        error = NoAnswer if isinstance(self, Blocking) else TimeoutError
        with self.assertRaises(error):
            connection.call(OURS + "Wait", {"stage": "Late", "state": "active"}, timeout=0.05)
        self.assertLess(monotonic() - began, 10)
        # The wait ends, is answered, and the next call gets its own answer.
        with ordovan.Hub(self.path) as other:
            other.declare("A", ordovan.Event("Late"))
        self.assertEqual(connection.call(STATUS, timeout=20)["application"], "Tests")

    def test_a_hub_with_more_callers_than_it_takes_is_waited_for(self: Any) -> None:
        self.hub.kill()
        self.hub.backlog, self.hub.accepting = 0, False
        self.hub.start()
        first = self.connection(self.path)
        with self.assertRaises(NoAnswer):
            for _ in range(3):
                self.connection(self.path, timeout=0.05)
        self.assertFalse(first.closed)

    def test_closing_twice_does_nothing_more(self: Any) -> None:
        connection = self.connection(self.path)
        with connection as same:
            self.assertIs(same, connection)
            connection.call(STATUS)
        connection.close()
        self.assertTrue(connection.closed)

    def test_two_connections_do_not_disturb_each_other(self: Any) -> None:
        one, two = self.connection(self.path), self.connection(self.path)
        answers = one.call_more(WATCH, {"all": True})
        self.assertEqual(next(answers)["stage"], [])
        two.call(OURS + "Declare", {"agent": "A", "event": [{"stage": "Net"}]})
        self.assertEqual([stage["name"] for stage in next(answers)["stage"]], ["Net"])
        answers.close()
        self.assertEqual(two.call(STATUS)["application"], "Tests")


class BlockingConnections(Both, Blocking, HubTest):
    def test_nothing_that_comes_in_time_ends_an_iteration(self) -> None:
        connection = self.connection(self.path)
        answers = connection.call_more(OURS + "Log", {"follow": True}, timeout=0.05)
        with self.assertRaises(NoAnswer):
            next(answers)
        self.assertTrue(connection.closed)

    def test_a_call_has_the_time_of_its_connection(self) -> None:
        connection = self.connection(self.path, timeout=0.05)
        self.hub.script["Status"] = ["silent"]
        with self.assertRaises(NoAnswer):
            connection.call(STATUS)

    def test_a_hub_that_takes_nothing_is_given_up_in_time(self) -> None:
        with socket.socket(socket.AF_UNIX) as listener:
            listener.bind(self.path + ".2")
            listener.listen()
            connection = self.connection(self.path + ".2", timeout=0.05)
            # More than the system keeps for one who does not read.
            with self.assertRaises(NoAnswer):
                connection.call_oneway(STATUS, {"x": "y" * 1_000_000})

    def test_a_descriptor_can_be_asked_for(self) -> None:
        connection = self.connection(self.path)
        self.assertTrue(os.readlink(f"/proc/self/fd/{connection.fileno()}").startswith("socket:"))
        connection.close()
        self.assertEqual(connection.fileno(), -1)

    def test_the_socket_is_found_as_the_environment_says(self) -> None:
        with mock.patch.dict(os.environ, ORDOVAN_SOCKET=self.path):
            self.assertEqual(self.connection().call(STATUS)["application"], "Tests")


class AsynchronousConnections(Both, Asynchronous, HubTest):
    def test_calls_of_many_tasks_get_their_own_answers(self) -> None:
        async def main() -> None:
            async with await ordovan.aio.Connection.open(self.path) as connection:
                async with asyncio.TaskGroup() as group:
                    tasks = {
                        name: group.create_task(connection.call(
                            "org.varlink.service.GetInterfaceDescription", {"interface": name}))
                        for name in ("io.ordovan.Stages", "org.varlink.service") for _ in range(50)
                    }
                for name, task in tasks.items():
                    self.assertEqual(task.result(), {"description": f"interface {name}"})

        self.runner.run(main())

    def test_a_call_that_is_cancelled_gives_its_answer_to_nobody(self) -> None:
        async def main() -> None:
            async with await ordovan.aio.Connection.open(self.path) as connection:
                wait = asyncio.create_task(
                    connection.call(OURS + "Wait", {"stage": "Late", "state": "active"}))
                status = asyncio.create_task(connection.call(STATUS))
                await asyncio.sleep(0)
                wait.cancel()
                with self.assertRaises(asyncio.CancelledError):
                    await wait
                async with ordovan.aio.Hub(self.path) as hub:
                    await hub.declare("A", ordovan.Event("Late"))
                self.assertEqual((await status)["application"], "Tests")

        self.runner.run(main())

    def test_an_iteration_that_is_cancelled_closes_the_connection(self) -> None:
        async def main() -> None:
            connection = await ordovan.aio.Connection.open(self.path)
            got = asyncio.Event()

            async def follow() -> None:
                async with aclosing(connection.call_more(WATCH, {"all": True})) as answers:
                    async for _ in answers:
                        got.set()

            task = asyncio.create_task(follow())
            await got.wait()
            task.cancel()
            with self.assertRaises(asyncio.CancelledError):
                await task
            self.assertTrue(connection.closed)

        self.runner.run(main())
        self.hub.until(lambda: self.hub.peers == 0)

    def test_the_time_of_a_call_is_kept(self) -> None:
        self.hub.script["Status"] = ["silent"]

        async def main() -> None:
            async with await ordovan.aio.Connection.open(self.path) as connection:
                with self.assertRaises(NoAnswer):
                    await connection.call(STATUS, timeout=0.05)

        self.runner.run(main())

    def test_a_slow_reader_is_not_read_ahead_for_without_end(self) -> None:
        answer = b'{"parameters":{"x":"%s"},"continues":true}\0' % (b"y" * 100_000)
        self.hub.script["Watch"] = [answer * 200 + b"{}\0"]

        async def main() -> None:
            async with await ordovan.aio.Connection.open(self.path) as connection:
                count = 0
                async for _ in connection.call_more(WATCH):
                    count += 1
                    # The reader is slow: the loop has time for all that it wants to read.
                    deadline = monotonic() + PATIENCE
                    while count == 1 and connection._watched._reads:
                        self.assertLess(monotonic(), deadline, "it reads without end")
                        await asyncio.sleep(0)
                    if count == 1:
                        self.assertGreater(self.hub.do(lambda: sum(
                            len(one.output) for one in self.hub._peers.values())), 0)
                self.assertEqual(count, 201)

        self.runner.run(main())

    def test_large_calls_are_sent_piece_by_piece(self) -> None:
        connection = self.connection(self.path)
        with self.assertRaises(ordovan.MethodNotFound):
            connection.call(OURS + "Nothing", {"x": "y" * 1_000_000})

    def test_closing_ends_calls_that_wait(self) -> None:
        async def main() -> None:
            connection = await ordovan.aio.Connection.open(self.path)
            wait = asyncio.create_task(
                connection.call(OURS + "Wait", {"stage": "Late", "state": "active"}))
            await asyncio.sleep(0)
            await connection.close()
            with self.assertRaises(ConnectionLost):
                await wait

        self.runner.run(main())


class LeakTests(LeakTest):
    def test_a_connection_that_cannot_be_made_leaves_nothing(self) -> None:
        for _ in range(3):
            with self.assertRaises(ConnectionLost):
                ordovan.Connection("/not/there")


if __name__ == "__main__":
    unittest.main()
