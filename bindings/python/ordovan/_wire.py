# Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
"""The protocol's bytes: messages and the conversation of one connection. Knows nothing of sockets,
clocks or stages, so that both kinds of connection, and the tests, are the same code.

A message is a JSON object in UTF-8, ended by one zero byte. Calls on one connection are answered in
order.
"""

from __future__ import annotations

import json
from collections import deque
from collections.abc import Callable, Iterator, Mapping

from .errors import Error, MessageTooLarge, ProtocolError, error_of

#: The longest message that is sent, in bytes, with the zero byte that ends it.
MAX_SENT = 1 << 20
#: The longest message that is received, in bytes, without the zero byte.
MAX_RECEIVED = 16 << 20

#: Parameters of a call or a reply.
Parameters = dict[str, object]


def to_json(value: object) -> bytes:
    """The value as it is sent. Raises ValueError for what JSON, or UTF-8, cannot say."""
    return json.dumps(value, ensure_ascii=False, allow_nan=False, separators=(",", ":")).encode()


def encode_call(
    method: str, parameters: Mapping[str, object] | None, *, more: bool, oneway: bool
) -> bytes:
    """A call's bytes. Parameters that are None are left out, which means the same."""
    message: dict[str, object] = {"method": method}
    said = {key: value for key, value in (parameters or {}).items() if value is not None}
    if said:
        message["parameters"] = said
    if more:
        message["more"] = True
    if oneway:
        message["oneway"] = True
    data = to_json(message) + b"\0"
    if len(data) > MAX_SENT:
        raise MessageTooLarge(f"the call of {method} has {len(data)} bytes, more than {MAX_SENT}")
    return data


def _refuse_constant(name: str) -> object:
    raise ValueError(f"{name} is no JSON")


def decode(message: bytes) -> Parameters:
    """A message's object. Raises ProtocolError if it is none."""
    try:
        value = json.loads(message.decode(), parse_constant=_refuse_constant)
    except (ValueError, RecursionError) as error:
        raise ProtocolError(f"what came is no JSON: {error}") from None
    if not isinstance(value, dict):
        raise ProtocolError("what came is no JSON object")
    return value


class Framer:
    """Cuts what comes in, however it is torn apart, into messages."""

    def __init__(self, limit: int = MAX_RECEIVED) -> None:
        self._limit = limit
        self._buffer = bytearray()
        # No zero byte before this, so that no byte is looked at twice.
        self._searched = 0

    def feed(self, data: bytes) -> Iterator[bytes]:
        """The messages that end in these bytes. Raises ProtocolError behind the last good one. REQUIRES:
        iterated to its end."""
        self._buffer += data
        start = 0
        while (end := self._buffer.find(0, self._searched)) >= 0:
            self._check(end - start)
            message = bytes(self._buffer[start:end])
            start = self._searched = end + 1
            yield message
        self._check(len(self._buffer) - start)
        del self._buffer[:start]
        self._searched = len(self._buffer)

    def _check(self, length: int) -> None:
        if length > self._limit:
            raise ProtocolError(f"a message of more than {self._limit} bytes came")


class Answer:
    """What came to a call: parameters, or an error. ``last``: nothing follows."""

    __slots__ = ("error", "last", "parameters")

    def __init__(
        self, parameters: Parameters | None = None, error: Error | None = None, last: bool = True
    ) -> None:
        self.parameters: Parameters = {} if parameters is None else parameters
        self.error = error
        self.last = last


Handler = Callable[[Answer], None]


class _Call:
    __slots__ = ("handler", "method", "more")

    def __init__(self, method: str, more: bool, handler: Handler) -> None:
        self.method = method
        self.more = more
        self.handler = handler


class Channel:
    """One connection's conversation. Whoever drives it moves bytes: out of ``outbox`` into the
    connection, and what comes from there into :meth:`feed`.

    A call's handler hears each answer, last of all one with ``last``, or :meth:`lost`'s error. A call
    whose asker has lost interest stays here, since its answer comes all the same.
    """

    def __init__(self, limit: int = MAX_RECEIVED) -> None:
        self.outbox = bytearray()
        self._framer = Framer(limit)
        self._calls: deque[_Call] = deque()

    @property
    def waiting(self) -> int:
        """How many calls are not answered yet."""
        return len(self._calls)

    def call(
        self,
        method: str,
        parameters: Mapping[str, object] | None,
        handler: Handler,
        *,
        more: bool = False,
    ) -> None:
        """Puts a call into the outbox. Raises, with nothing done, if it is too large, or if it would
        be answered only after one that goes on and on."""
        if self._calls and self._calls[-1].more:
            raise RuntimeError(
                f"this connection is taken by {self._calls[-1].method} until that ends; "
                "use another connection"
            )
        self.outbox += encode_call(method, parameters, more=more, oneway=False)
        self._calls.append(_Call(method, more, handler))

    def call_oneway(self, method: str, parameters: Mapping[str, object] | None) -> None:
        """Puts a call that is not answered into the outbox."""
        self.outbox += encode_call(method, parameters, more=False, oneway=True)

    def feed(self, data: bytes) -> None:
        """Takes in what came. Raises ProtocolError if the connection has to be closed; then
        :meth:`lost` tells the calls that are left."""
        for message in self._framer.feed(data):
            self._take(decode(message))

    def lost(self, error: Error) -> None:
        """The connection has ended: so do all calls, with this error."""
        calls, self._calls = self._calls, deque()
        self.outbox.clear()
        for call in calls:
            call.handler(Answer(error=error))

    def _take(self, message: Parameters) -> None:
        if not self._calls:
            raise ProtocolError("an answer came that nobody had asked for")
        answer = _answer_of(message)
        call = self._calls[0]
        if not answer.last and not call.more:
            raise ProtocolError(f"{call.method} was answered by one of several answers")
        # Popped afterwards: if the handler finds the answer wrong, the call is told of its end by lost().
        call.handler(answer)
        if answer.last and self._calls and self._calls[0] is call:
            self._calls.popleft()


def _answer_of(message: Parameters) -> Answer:
    parameters = message.get("parameters")
    if parameters is None:
        parameters = {}
    if not isinstance(parameters, dict):
        raise ProtocolError("an answer's parameters are no object")
    error = message.get("error")
    if error is not None:
        if not isinstance(error, str) or not error:
            raise ProtocolError("an answer's error is no name")
        return Answer(error=error_of(error, parameters))
    continues = message.get("continues")
    if continues is not None and not isinstance(continues, bool):
        raise ProtocolError("an answer's continues is neither true nor false")
    return Answer(parameters, last=not continues)
