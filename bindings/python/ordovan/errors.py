# Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
"""What can go wrong, as exceptions. All derive from :class:`Error`.

Three kinds. The hub answered that it will not: :class:`VarlinkError` and what derives from it, one
class for each error of the interface, with the error's parameters as attributes. The hub cannot be
reached, went away or does not answer: :class:`SocketNotFound`, :class:`Unreachable`,
:class:`ConnectionLost`, :class:`NoAnswer`. What was sent or asked for cannot be: :class:`MessageTooLarge`,
:class:`ProtocolError`, and ``ValueError`` or ``TypeError`` as elsewhere in Python.
"""

from __future__ import annotations

from collections.abc import Mapping, Sequence


class Error(Exception):
    """Everything that this package raises of its own."""


class ConnectionLost(Error, ConnectionError):
    """The hub ended the connection, or it was closed here. Whether it did what was asked of it last
    is not known."""


class Unreachable(Error, OSError):
    """The hub's socket is there, but not for this user, or it is none. Waiting does not mend it."""


class NoAnswer(Error, TimeoutError):
    """The hub did not answer in time, or nothing came about in the time that was given."""


class ProtocolError(Error):
    """The other side sent what is no message of the protocol. The connection is closed."""


class MessageTooLarge(Error, ValueError):
    """A message is longer than what the hub takes. Nothing was sent, nothing changed."""


class SocketNotFound(Error, FileNotFoundError):
    """No socket of a hub was found, or more than one.

    ``candidates`` are the paths of those that there are, ``may_come`` is whether it is worth waiting:
    the hub may not have been started yet. Otherwise the caller has to name a socket.
    """

    def __init__(
        self, message: str, candidates: Sequence[str] = (), *, may_come: bool = False
    ) -> None:
        super().__init__(message)
        self.candidates = tuple(candidates)
        self.may_come = may_come


class VarlinkError(Error):
    """The hub's answer is an error. ``name`` is the whole name, ``parameters`` what came with it.

    Errors that this package knows have classes of their own.
    """

    #: The whole name of the errors of this class; empty where any may be meant.
    varlink_name = ""

    def __init__(self, name: str, parameters: Mapping[str, object] | None = None) -> None:
        self.name = name
        self.parameters: dict[str, object] = dict(parameters or {})
        super().__init__(name, self.parameters)

    def __str__(self) -> str:
        if not self.parameters:
            return self.name
        said = ", ".join(f"{key}={value!r}" for key, value in self.parameters.items())
        return f"{self.name} ({said})"

    def _text(self, key: str) -> str:
        value = self.parameters.get(key)
        return value if isinstance(value, str) else ""


class InterfaceNotFound(VarlinkError):
    """The hub has no such interface."""

    varlink_name = "org.varlink.service.InterfaceNotFound"

    @property
    def interface(self) -> str:
        """Which."""
        return self._text("interface")


class MethodNotFound(VarlinkError):
    """The interface has no such method."""

    varlink_name = "org.varlink.service.MethodNotFound"

    @property
    def method(self) -> str:
        """Which."""
        return self._text("method")


class MethodNotImplemented(VarlinkError):
    """The interface has the method, this hub does not."""

    varlink_name = "org.varlink.service.MethodNotImplemented"

    @property
    def method(self) -> str:
        """Which."""
        return self._text("method")


class InvalidParameter(VarlinkError):
    """A parameter is unknown, missing, or of another type."""

    varlink_name = "org.varlink.service.InvalidParameter"

    @property
    def parameter(self) -> str:
        """Which."""
        return self._text("parameter")


class PermissionDenied(VarlinkError):
    """This user may not do that."""

    varlink_name = "org.varlink.service.PermissionDenied"


class ExpectedMore(VarlinkError):
    """The method answers more than once, and has to be called so."""

    varlink_name = "org.varlink.service.ExpectedMore"


class NoSuchAgent(VarlinkError):
    """Nobody has declared, joined or reported by this name."""

    varlink_name = "io.ordovan.Stages.NoSuchAgent"


class NoSuchStage(VarlinkError):
    """Nobody has declared an event for this stage; to a report: this agent has not."""

    varlink_name = "io.ordovan.Stages.NoSuchStage"


class NotYours(VarlinkError):
    """This user may not speak for this agent."""

    varlink_name = "io.ordovan.Stages.NotYours"


class NotJoined(VarlinkError):
    """No agent was named, and none has joined on this connection."""

    varlink_name = "io.ordovan.Stages.NotJoined"


class AlreadyJoined(VarlinkError):
    """This connection speaks for an agent already."""

    varlink_name = "io.ordovan.Stages.AlreadyJoined"


class Connected(VarlinkError):
    """Another connection speaks for the agent. Seen by an agent that had joined: it was taken over."""

    varlink_name = "io.ordovan.Stages.Connected"

    @property
    def pid(self) -> int:
        """The process whose connection that is; 0 if the hub did not say."""
        value = self.parameters.get("pid")
        return value if isinstance(value, int) else 0


class InvalidEvent(VarlinkError):
    """An event that cannot be. Nothing of the call was done."""

    varlink_name = "io.ordovan.Stages.InvalidEvent"

    @property
    def field(self) -> str:
        """Which, as in ``event[2].timeout``."""
        return self._text("field")

    @property
    def reason(self) -> str:
        """What is wrong with it."""
        return self._text("reason")


class TooMuch(VarlinkError):
    """More than the hub takes. Nothing of the call was done."""

    varlink_name = "io.ordovan.Stages.TooMuch"

    @property
    def limit(self) -> str:
        """Which limit, with its value."""
        return self._text("limit")


class TimedOut(VarlinkError, TimeoutError):
    """It did not become so in the time given, says the hub."""

    varlink_name = "io.ordovan.Stages.TimedOut"


_known: dict[str, type[VarlinkError]] = {
    one.varlink_name: one
    for one in (
        InterfaceNotFound,
        MethodNotFound,
        MethodNotImplemented,
        InvalidParameter,
        PermissionDenied,
        ExpectedMore,
        NoSuchAgent,
        NoSuchStage,
        NotYours,
        NotJoined,
        AlreadyJoined,
        Connected,
        InvalidEvent,
        TooMuch,
        TimedOut,
    )
}


def error_of(name: str, parameters: Mapping[str, object] | None = None) -> VarlinkError:
    """The exception for an error of this whole name, of its own class if there is one."""
    return _known.get(name, VarlinkError)(name, parameters)
