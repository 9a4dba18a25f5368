# Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
"""Agents of a start-up in stages, and questions to its hub, in Python.

:class:`Agent` declares events, waits until their stages are active and reports them complete.
:class:`Hub` asks how start-up is. :class:`Connection` makes any call of the hub's protocol, which is
Varlink. All three block; :mod:`ordovan.aio` has the same for asyncio.

Times are seconds, as floats.
"""

from ._discovery import Socket, find_socket
from .agent import Agent
from .connection import ANSWER_TIMEOUT, Connection
from .errors import (
    AlreadyJoined,
    Connected,
    ConnectionLost,
    Error,
    ExpectedMore,
    InterfaceNotFound,
    InvalidEvent,
    InvalidParameter,
    MessageTooLarge,
    MethodNotFound,
    MethodNotImplemented,
    NoAnswer,
    NoSuchAgent,
    NoSuchStage,
    NotJoined,
    NotYours,
    PermissionDenied,
    ProtocolError,
    SocketNotFound,
    TimedOut,
    TooMuch,
    Unreachable,
    VarlinkError,
)
from .hub import GRACE, Hub
from .values import (
    AgentInfo,
    Change,
    Entry,
    Event,
    Explanation,
    Info,
    Lost,
    Progress,
    Reached,
    Stage,
    StageEvent,
    State,
    Status,
)

__version__ = "0.1.0"

__all__ = [
    "ANSWER_TIMEOUT",
    "GRACE",
    "Agent",
    "AgentInfo",
    "AlreadyJoined",
    "Change",
    "Connected",
    "Connection",
    "ConnectionLost",
    "Entry",
    "Error",
    "Event",
    "ExpectedMore",
    "Explanation",
    "Hub",
    "Info",
    "InterfaceNotFound",
    "InvalidEvent",
    "InvalidParameter",
    "Lost",
    "MessageTooLarge",
    "MethodNotFound",
    "MethodNotImplemented",
    "NoAnswer",
    "NoSuchAgent",
    "NoSuchStage",
    "NotJoined",
    "NotYours",
    "PermissionDenied",
    "Progress",
    "ProtocolError",
    "Reached",
    "Socket",
    "SocketNotFound",
    "Stage",
    "StageEvent",
    "State",
    "Status",
    "TimedOut",
    "TooMuch",
    "Unreachable",
    "VarlinkError",
    "find_socket",
]
