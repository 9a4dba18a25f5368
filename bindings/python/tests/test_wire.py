# Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
"""Messages, however they are torn apart, and the conversation of a connection."""

from __future__ import annotations

import json
import random
import unittest

from ordovan import ConnectionLost, MessageTooLarge, ProtocolError
from ordovan._wire import MAX_RECEIVED, MAX_SENT, Answer, Channel, Framer, decode, encode_call
from ordovan.errors import Connected, VarlinkError


class Frames(unittest.TestCase):
    def test_a_message_that_comes_a_byte_at_a_time_is_one_message(self) -> None:
        framer = Framer()
        got = []
        for byte in b'{"a":1}\0{}\0\0':
            got.append(list(framer.feed(bytes([byte]))))
        self.assertEqual(
            [(place, frames) for place, frames in enumerate(got) if frames],
            [(7, [b'{"a":1}']), (10, [b"{}"]), (11, [b""])],
        )

    def test_messages_are_the_same_however_they_are_torn(self) -> None:
        messages = [b"x" * length for length in (0, 1, 2, 17, 300, 5)] * 4
        stream = b"".join(message + b"\0" for message in messages)
        for seed in range(200):
            draw = random.Random(seed)
            framer, got, rest = Framer(), [], stream
            while rest:
                length = draw.randint(1, 120)
                got += list(framer.feed(rest[:length]))
                rest = rest[length:]
            self.assertEqual(got, messages, f"seed {seed}")

    def test_a_message_at_the_limit_is_taken_and_one_past_it_is_not(self) -> None:
        self.assertEqual(list(Framer(5).feed(b"12345\0")), [b"12345"])
        with self.assertRaises(ProtocolError):
            list(Framer(5).feed(b"123456\0"))

    def test_one_without_an_end_is_refused_as_soon_as_it_is_too_long(self) -> None:
        framer = Framer(5)
        self.assertEqual(list(framer.feed(b"12345")), [])
        with self.assertRaises(ProtocolError):
            list(framer.feed(b"6"))

    def test_messages_before_one_that_is_too_long_are_taken(self) -> None:
        got = []
        with self.assertRaises(ProtocolError):
            for message in Framer(5).feed(b"1\0" + b"2\0" + b"1234567"):
                got.append(message)
        self.assertEqual(got, [b"1", b"2"])

    def test_sixteen_mebibytes_are_received(self) -> None:
        self.assertEqual(MAX_RECEIVED, 16 * 1024 * 1024)
        framer = Framer()
        chunk = b"x" * (1 << 18)
        for _ in range(64):
            self.assertEqual(list(framer.feed(chunk)), [])
        self.assertEqual([len(one) for one in framer.feed(b"\0")], [MAX_RECEIVED])
        for _ in range(64):
            list(framer.feed(chunk))
        with self.assertRaises(ProtocolError):
            list(framer.feed(b"x"))


class Calls(unittest.TestCase):
    def test_a_call_says_what_is_said_and_no_more(self) -> None:
        data = encode_call("a.B", {"one": 1, "none": None}, more=False, oneway=False)
        self.assertEqual(data, b'{"method":"a.B","parameters":{"one":1}}\0')
        data = encode_call("a.B", None, more=True, oneway=False)
        self.assertEqual(data, b'{"method":"a.B","more":true}\0')
        data = encode_call("a.B", {}, more=False, oneway=True)
        self.assertEqual(data, b'{"method":"a.B","oneway":true}\0')

    def test_a_zero_byte_in_a_text_is_no_end(self) -> None:
        data = encode_call("a.B", {"text": "x\0yä"}, more=False, oneway=False)
        self.assertEqual(data.find(0), len(data) - 1)
        self.assertEqual(json.loads(data[:-1])["parameters"], {"text": "x\0yä"})

    def test_a_call_at_the_limit_is_sent_and_one_past_it_is_not(self) -> None:
        self.assertEqual(MAX_SENT, 1024 * 1024)
        empty = len(encode_call("a.B", {"text": ""}, more=False, oneway=False))
        text = "x" * (MAX_SENT - empty)
        data = encode_call("a.B", {"text": text}, more=False, oneway=False)
        self.assertEqual(len(data), MAX_SENT)
        with self.assertRaises(MessageTooLarge):
            encode_call("a.B", {"text": text + "x"}, more=False, oneway=False)

    def test_what_json_cannot_say_is_a_value_error(self) -> None:
        for value in (float("nan"), float("inf"), "\ud800"):
            with self.assertRaises(ValueError):
                encode_call("a.B", {"value": value}, more=False, oneway=False)

    def test_what_is_no_json_object_is_refused(self) -> None:
        deep = b'{"a":' + b"[" * 100000 + b"]" * 100000 + b"}"
        for data in (b"", b"{", b"[]", b"1", b'"x"', b"null", b"\xff", b'{"a":NaN}', deep):
            with self.assertRaises(ProtocolError, msg=data[:20]):
                decode(data)


class Conversations(unittest.TestCase):
    def setUp(self) -> None:
        self.channel = Channel()
        self.answers: list[tuple[str, Answer]] = []

    def call(self, method: str, more: bool = False) -> None:
        self.channel.call(
            method, {}, lambda answer: self.answers.append((method, answer)), more=more
        )

    def test_answers_go_to_the_calls_in_their_order(self) -> None:
        self.call("a.One")
        self.call("a.Two")
        self.assertEqual(bytes(self.channel.outbox), b'{"method":"a.One"}\0{"method":"a.Two"}\0')
        self.channel.feed(b'{"parameters":{"n":1}}\0{"parameters":{"n":2}}\0')
        got = [(method, answer.parameters["n"]) for method, answer in self.answers]
        self.assertEqual(got, [("a.One", 1), ("a.Two", 2)])
        self.assertEqual(self.channel.waiting, 0)

    def test_missing_null_and_empty_parameters_are_the_same(self) -> None:
        for data in (b"{}\0", b'{"parameters":null}\0', b'{"parameters":{}}\0'):
            self.call("a.One")
            self.channel.feed(data)
        self.assertEqual([answer.parameters for _, answer in self.answers], [{}, {}, {}])

    def test_a_call_for_more_goes_on_until_an_answer_says_that_it_is_the_last(self) -> None:
        self.call("a.One", more=True)
        self.channel.feed(b'{"continues":true}\0' * 2)
        self.assertEqual(self.channel.waiting, 1)
        self.channel.feed(b"{}\0")
        self.assertEqual([answer.last for _, answer in self.answers], [False, False, True])
        self.assertEqual(self.channel.waiting, 0)

    def test_nothing_can_be_called_behind_a_call_for_more(self) -> None:
        self.call("a.One", more=True)
        said = bytes(self.channel.outbox)
        with self.assertRaisesRegex(RuntimeError, "a.One"):
            self.call("a.Two")
        self.assertEqual(bytes(self.channel.outbox), said)
        self.channel.feed(b"{}\0")
        self.call("a.Two")

    def test_an_error_ends_a_call_for_more(self) -> None:
        self.call("a.One", more=True)
        self.channel.feed(b'{"error":"a.Bad","continues":true}\0')
        self.assertEqual(self.channel.waiting, 0)
        error = self.answers[0][1].error
        assert isinstance(error, VarlinkError)
        self.assertEqual((error.name, error.parameters), ("a.Bad", {}))

    def test_a_known_error_has_its_class_and_its_parameters(self) -> None:
        self.call("a.One")
        self.channel.feed(b'{"error":"io.ordovan.Stages.Connected","parameters":{"pid":7}}\0')
        error = self.answers[0][1].error
        assert isinstance(error, Connected)
        self.assertEqual(error.pid, 7)

    def test_what_is_no_answer_is_refused_and_the_call_is_told_of_the_end(self) -> None:
        wrong = [
            b"x", b'{"parameters":[]}', b'{"parameters":1}', b'{"continues":1}', b'{"error":1}',
            b'{"error":""}', b'{"continues":true}',
        ]
        for data in wrong:
            self.setUp()
            self.call("a.One")
            with self.assertRaises(ProtocolError, msg=data):
                self.channel.feed(data + b"\0")
            self.assertEqual(self.answers, [])
            self.channel.lost(ConnectionLost("over"))
            self.assertEqual([type(one.error) for _, one in self.answers], [ConnectionLost])

    def test_an_answer_that_nobody_asked_for_is_refused(self) -> None:
        with self.assertRaises(ProtocolError):
            self.channel.feed(b"{}\0")
        self.channel.call_oneway("a.One", {})
        with self.assertRaises(ProtocolError):
            self.channel.feed(b"{}\0")

    def test_unknown_members_of_an_answer_are_left_alone(self) -> None:
        self.call("a.One")
        self.channel.feed(b'{"parameters":{"n":1},"new":[1]}\0')
        self.assertEqual(self.answers[0][1].parameters, {"n": 1})

    def test_a_handler_that_finds_the_answer_wrong_is_told_of_the_end(self) -> None:
        seen: list[Answer] = []

        def handler(answer: Answer) -> None:
            seen.append(answer)
            if answer.error is None:
                raise ProtocolError("wrong")

        self.channel.call("a.One", {}, handler)
        with self.assertRaises(ProtocolError):
            self.channel.feed(b"{}\0")
        self.channel.lost(ConnectionLost("over"))
        self.assertEqual([type(one.error) for one in seen], [type(None), ConnectionLost])

    def test_the_end_of_a_connection_ends_all_calls_in_their_order(self) -> None:
        self.call("a.One")
        self.call("a.Two")
        self.channel.lost(ConnectionLost("over"))
        self.assertEqual([method for method, _ in self.answers], ["a.One", "a.Two"])
        self.assertEqual(bytes(self.channel.outbox), b"")
        self.channel.lost(ConnectionLost("over"))
        self.assertEqual(len(self.answers), 2)


if __name__ == "__main__":
    unittest.main()
