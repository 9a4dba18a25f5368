# Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
"""A hub for tests, on a thread of this process: the interface to the letter, with the simplest rules
that give stages something to do. A stage starts when start-up is enabled and its dependencies are
complete, and is complete when its events are; there are no timeouts.

It can be killed and started again: what the hub would find in its store stays. And it can be told to
misbehave, once, at the next call of a method: see ``script``.
"""

from __future__ import annotations

import json
import os
import selectors
import socket
import struct
import threading
from collections import defaultdict, deque
from collections.abc import Callable
from time import monotonic
from typing import Any

LIMIT = 1 << 20
PATIENCE = 20.0

_string, _bool, _int, _number, _list = str, bool, int, (int, float), list
# Parameters of each method, with their types; those in capitals have to be there.
METHODS: dict[str, dict[str, Any]] = {
    "Join": {"AGENT": _string, "event": _list, "lost": _string, "take": _bool},
    "Declare": {"agent": _string, "EVENT": _list, "withdraw": _list},
    "Report": {"agent": _string, "STAGE": _string, "complete": _bool, "note": _string},
    "Leave": {"agent": _string},
    "Watch": {"all": _bool, "after": _int, "startup": _string},
    "Wait": {"stage": _string, "STATE": _string, "timeout": _number},
    "Status": {},
    "Explain": {"stage": _string},
    "Log": {"after": _int, "follow": _bool},
    "Enable": {"ENABLED": _bool},
}
OURS = "io.ordovan.Stages."
SERVICE = "org.varlink.service."


class Refusal(Exception):
    """An error that is answered."""

    def __init__(self, name: str, **parameters: object) -> None:
        super().__init__(name)
        self.name = name
        self.parameters = parameters


class Peer:
    """A connection, as the hub sees it."""

    def __init__(self, sock: socket.socket, number: int) -> None:
        self.socket = sock
        self.number = number
        self.input = bytearray()
        self.output = bytearray()
        self.agent: str | None = None
        self.calls: deque[dict[str, Any]] = deque()
        # What keeps the connection: a call that is not over. It is asked again after each turn.
        self.busy: Callable[[], bool] | None = None
        self.pid = struct.unpack(
            "3i", sock.getsockopt(socket.SOL_SOCKET, socket.SO_PEERCRED, struct.calcsize("3i"))
        )[0]


class StandIn:
    """See above. The members below are the hub thread's while it runs: tests use :meth:`do` and
    :meth:`until`."""

    def __init__(self, path: str, startup: str = "first") -> None:
        self.path = path
        #: What the next calls of a method meet instead of an answer, in order: a Refusal; "silent",
        #: no answer ever; "close"; bytes, sent as they are.
        self.script: dict[str, list[Any]] = defaultdict(list)
        #: Calls that came, as (connection, method, parameters).
        self.calls: list[tuple[int, str, dict[str, Any]]] = []
        #: How many stages one answer to Watch has at most.
        self.part = 1000
        self.allowed = True
        self.backlog = 128
        self.accepting = True
        self.oneways = 0
        self.invalid = 0
        self._peers_ever = 0
        self._peers: dict[socket.socket, Peer] = {}
        self._thread: threading.Thread | None = None
        self._changed = threading.Condition()
        self._jobs: deque[Callable[[], None]] = deque()
        self.begin(startup)

    # The state that a store would keep.

    def begin(self, startup: str) -> None:
        """Another start-up: nothing is known. REQUIRES: not running, or on its thread."""
        self.startup = startup
        self.enabled = True
        self.sequence = 0
        self.time = 0.0
        self.agents: dict[str, dict[str, Any]] = {}
        self.stages: dict[str, dict[str, Any]] = {}
        self.log: list[dict[str, Any]] = []

    # Life.

    def start(self) -> None:
        """Begins to listen, over what is left of an earlier socket."""
        try:
            os.unlink(self.path)
        except FileNotFoundError:
            pass
        self._listener = socket.socket(socket.AF_UNIX)
        self._listener.bind(self.path)
        self._listener.listen(self.backlog)
        self._listener.setblocking(False)
        self._wake, self._waker = os.pipe()
        self._running = True
        self._thread = threading.Thread(target=self._run, name="stand-in")
        self._thread.start()

    def kill(self) -> None:
        """Ends at once; the socket stays in the file system, as after kill -9."""
        if self._thread is None:
            return
        self._running = False
        os.write(self._waker, b"\0")
        self._thread.join()
        self._thread = None
        os.close(self._wake)
        os.close(self._waker)

    def do(self, job: Callable[[], Any]) -> Any:
        """Does something on the hub's thread, and returns its result."""
        results: list[Any] = []
        with self._changed:
            self._jobs.append(lambda: results.append(job()))
            os.write(self._waker, b"\0")
            if not self._changed.wait_for(lambda: bool(results), PATIENCE):
                raise AssertionError("the stand-in is stuck")
        return results[0]

    def until(self, done: Callable[[], Any]) -> None:
        """Blocks until that is so, which is looked at after everything that the hub does."""
        with self._changed:
            if not self._changed.wait_for(done, PATIENCE):
                raise AssertionError(f"never came; calls were {self.calls}")

    def names(self, *methods: str) -> list[str]:
        """The methods called until now, of these if any are named."""
        return [method for _, method, _ in self.calls if not methods or method in methods]

    def last(self, method: str) -> dict[str, Any]:
        """The parameters of its last call."""
        return [parameters for _, called, parameters in self.calls if called == method][-1]

    @property
    def peers(self) -> int:
        """How many connections there are."""
        return len(self._peers)

    def hang_up(self, agent: str | None = None, watches: bool = False) -> None:
        """Closes connections: that which speaks for the agent, those that are kept by a call."""
        for peer in list(self._peers.values()):
            if (agent and peer.agent == agent) or (watches and peer.busy):
                self._end(peer)

    def _run(self) -> None:
        self._selector = selectors.DefaultSelector()
        self._selector.register(self._listener, selectors.EVENT_READ)
        self._selector.register(self._wake, selectors.EVENT_READ)
        while self._running:
            ready = self._selector.select(self._patience())
            with self._changed:
                for key, events in ready:
                    self._serve(key.fileobj)
                while self._jobs:
                    self._jobs.popleft()()
                self._turn()
                self._changed.notify_all()
        for sock in self._peers:
            sock.close()
        # Who speaks for whom went with the process; what was declared did not.
        for agent in self.agents.values():
            agent["peer"] = None
        self._peers.clear()
        self._selector.close()
        self._listener.close()

    def _patience(self) -> float | None:
        waits = [peer.busy.until for peer in self._peers.values()
                 if isinstance(peer.busy, Wait) and peer.busy.until is not None]
        return max(0.0, min(waits) - monotonic()) if waits else None

    def _serve(self, what: Any) -> None:
        if what is self._listener:
            if self.accepting:
                self._accept()
            else:
                self._selector.unregister(self._listener)
        elif what == self._wake:
            os.read(self._wake, 4096)
        elif what in self._peers:
            self._read(self._peers[what])

    def _accept(self) -> None:
        sock, _ = self._listener.accept()
        sock.setblocking(False)
        self._peers_ever += 1
        self._peers[sock] = Peer(sock, self._peers_ever)
        self._selector.register(sock, selectors.EVENT_READ)

    def _read(self, peer: Peer) -> None:
        try:
            data = peer.socket.recv(1 << 16)
        except BlockingIOError:
            return
        except OSError:
            data = b""
        if not data:
            self._end(peer)
            return
        peer.input += data
        while (end := peer.input.find(0)) >= 0:
            message = bytes(peer.input[:end])
            del peer.input[: end + 1]
            call = self._call_of(message)
            if call is None:
                self.invalid += 1
                self._end(peer)
                return
            peer.calls.append(call)
        if len(peer.input) > LIMIT:
            self.invalid += 1
            self._end(peer)

    @staticmethod
    def _call_of(message: bytes) -> dict[str, Any] | None:
        if len(message) > LIMIT:
            return None
        try:
            call = json.loads(message.decode())
        except ValueError:
            return None
        if not isinstance(call, dict) or not isinstance(call.get("method"), str):
            return None
        return call

    def _end(self, peer: Peer) -> None:
        if self._peers.pop(peer.socket, None) is None:
            return
        self._selector.unregister(peer.socket)
        peer.socket.close()
        if peer.agent is not None and self.agents[peer.agent]["peer"] is peer:
            agent = self.agents[peer.agent]
            agent["peer"] = None
            if agent["lost"] == "withdraw":
                del self.agents[peer.agent]
            self._instant()

    # Calls, each connection's in their order.

    def _turn(self) -> None:
        going = True
        while going:
            going = False
            for peer in list(self._peers.values()):
                if peer.busy is not None and peer.busy():
                    peer.busy = None
                if peer.busy is None and peer.calls and peer.socket in self._peers:
                    going = True
                    self._call(peer, peer.calls.popleft())
            for peer in list(self._peers.values()):
                self._write(peer)

    def _call(self, peer: Peer, call: dict[str, Any]) -> None:
        parameters = call.get("parameters") or {}
        method = call["method"]
        short = method.rpartition(".")[2]
        self.calls.append((peer.number, short, parameters))
        self.oneways += bool(call.get("oneway"))
        scripted = self.script.get(short)
        try:
            if scripted:
                act = scripted.pop(0)
                if isinstance(act, Refusal):
                    raise act
                if act == "silent":
                    peer.busy = lambda: False
                elif act == "close":
                    self._end(peer)
                else:
                    peer.output += act
                return
            answer = self._method(peer, call, method, parameters)
            if answer is not None and not call.get("oneway"):
                self.answer(peer, answer)
        except Refusal as refusal:
            if not call.get("oneway"):
                self._say(peer, {"error": refusal.name, "parameters": refusal.parameters})

    def answer(self, peer: Peer, parameters: dict[str, Any], continues: bool = False) -> None:
        """Puts an answer into the connection's output."""
        message: dict[str, Any] = {"parameters": parameters}
        if continues:
            message["continues"] = True
        self._say(peer, message)

    def _say(self, peer: Peer, message: dict[str, Any]) -> None:
        peer.output += json.dumps(message).encode() + b"\0"

    def _write(self, peer: Peer) -> None:
        if peer.socket not in self._peers:
            return
        try:
            while peer.output:
                del peer.output[: peer.socket.send(peer.output)]
        except BlockingIOError:
            pass
        except OSError:
            self._end(peer)
            return
        events = selectors.EVENT_READ | (selectors.EVENT_WRITE if peer.output else 0)
        self._selector.modify(peer.socket, events)

    def _method(
        self, peer: Peer, call: dict[str, Any], method: str, parameters: dict[str, Any]
    ) -> dict[str, Any] | None:
        interface, _, short = method.rpartition(".")
        if interface == SERVICE[:-1]:
            return self._service(method, short, parameters)
        if interface != OURS[:-1]:
            raise Refusal(SERVICE + "InterfaceNotFound", interface=interface)
        if short not in METHODS:
            raise Refusal(SERVICE + "MethodNotFound", method=method)
        self._check(METHODS[short], parameters)
        if not call.get("more") and (short == "Watch" or parameters.get("follow")):
            raise Refusal(SERVICE + "ExpectedMore")
        answer: dict[str, Any] | None = getattr(self, "_do" + short)(peer, **parameters)
        return answer

    @staticmethod
    def _check(known: dict[str, Any], parameters: dict[str, Any]) -> None:
        types = {name.lower(): kind for name, kind in known.items()}
        for name, value in parameters.items():
            kind = types.get(name)
            right = kind is not None and (value is None or isinstance(value, kind))
            if not right or (isinstance(value, bool) and kind is not bool):
                raise Refusal(SERVICE + "InvalidParameter", parameter=name)
        for name in known:
            if name.isupper() and parameters.get(name.lower()) is None:
                raise Refusal(SERVICE + "InvalidParameter", parameter=name.lower())

    def _service(self, method: str, short: str, parameters: dict[str, Any]) -> dict[str, Any]:
        interfaces = [OURS[:-1], SERVICE[:-1]]
        if short == "GetInfo":
            return {"vendor": "Tests", "product": "Stand-in", "version": "1", "url": "",
                    "interfaces": interfaces}
        if short == "GetInterfaceDescription":
            interface = parameters.get("interface")
            if interface not in interfaces:
                raise Refusal(SERVICE + "InterfaceNotFound", interface=interface)
            return {"description": f"interface {interface}"}
        raise Refusal(SERVICE + "MethodNotFound", method=method)

    # The methods.

    def _doJoin(self, peer: Peer, agent: str, event: Any = None, lost: str = "keep",
                take: bool = False) -> dict[str, Any]:
        self._may()
        if peer.agent is not None:
            raise Refusal(OURS + "AlreadyJoined")
        known = self.agents.get(agent)
        if known is not None and known["peer"] is not None:
            if not take:
                raise Refusal(OURS + "Connected", pid=known["peer"].pid)
            older, known["peer"] = known["peer"], None
            self._end(older)
        self._check_events(event or [])
        known = self._known(agent)
        known.update(peer=peer, joined=True, lost=lost)
        peer.agent = agent
        if event is not None:
            gone = set(known["event"]) - {one["stage"] for one in event}
            self._take_in(known, event, gone)
        self._instant()
        return {"startup": self.startup, "sequence": self.sequence}

    def _doDeclare(self, peer: Peer, event: Any, agent: Any = None,
                   withdraw: Any = None) -> dict[str, Any]:
        name = self._whose(peer, agent)
        self._check_events(event)
        self._take_in(self._known(name), event, withdraw or [])
        self._instant()
        return {}

    def _doReport(self, peer: Peer, stage: str, agent: Any = None, complete: Any = None,
                  note: Any = None) -> dict[str, Any]:
        name = self._whose(peer, agent)
        if name not in self.agents:
            raise Refusal(OURS + "NoSuchAgent")
        event = self.agents[name]["event"].get(stage)
        if event is None:
            raise Refusal(OURS + "NoSuchStage")
        if len((note or "").encode()) > 1024:
            raise Refusal(OURS + "TooMuch", limit="note of 1024 bytes")
        if complete is None and note is None:
            complete = True
        if complete is not None:
            event["complete"] = complete
        if note is not None:
            event["note"] = note
        self._instant()
        return {}

    def _doLeave(self, peer: Peer, agent: Any = None) -> dict[str, Any]:
        name = self._whose(peer, agent)
        if name not in self.agents:
            raise Refusal(OURS + "NoSuchAgent")
        holder = self.agents.pop(name)["peer"]
        if holder is not None:
            holder.agent = None
        self._instant()
        return {}

    def _doWatch(self, peer: Peer, all: bool = False, after: Any = None,
                 startup: Any = None) -> None:
        known = after is not None and startup == self.startup and after <= self.sequence
        watch = Watch(self, peer, all, after if known else None)
        peer.busy = watch
        watch()

    def _doWait(self, peer: Peer, state: str, stage: Any = None, timeout: Any = None) -> None:
        if state not in ("active", "complete"):
            raise Refusal(SERVICE + "InvalidParameter", parameter="state")
        until = None if timeout is None else monotonic() + timeout
        wait = Wait(self, peer, stage, state, until)
        if not wait():
            peer.busy = wait

    def _doStatus(self, peer: Peer) -> dict[str, Any]:
        agents = [
            {"name": name, "connected": agent["peer"] is not None, "joined": agent["joined"],
             "lost": agent["lost"],
             "event": [{key: value for key, value in event.items() if key != "note"}
                       for event in agent["event"].values()]}
            for name, agent in self.agents.items()
        ]
        return {"application": "Tests", "startup": self.startup, "enabled": self.enabled,
                "complete": self.complete, "sequence": self.sequence, "time": self.time,
                "stage": [self.shown(name, True) for name in self.stages], "agent": agents}

    def _doExplain(self, peer: Peer, stage: Any = None) -> dict[str, Any]:
        if stage is not None and stage not in self.stages:
            raise Refusal(OURS + "NoSuchStage")
        names = [stage] if stage else list(self.stages)
        late = [name for name in names if not self.stages[name]["complete"]]
        return {"text": "waits: " + ", ".join(late), "cause": [{"stage": name} for name in late]}

    def _doLog(self, peer: Peer, after: Any = None, follow: bool = False) -> Any:
        if not follow:
            return {"entry": self.log[after or 0 :]}
        peer.busy = Follow(self, peer, after or 0)
        return None

    def _doEnable(self, peer: Peer, enabled: bool) -> dict[str, Any]:
        if not self.allowed:
            raise Refusal(SERVICE + "PermissionDenied")
        self.enabled = enabled
        self._instant()
        return {}

    # What they have in common.

    def _may(self) -> None:
        if not self.allowed:
            raise Refusal(OURS + "NotYours")

    def _whose(self, peer: Peer, agent: Any) -> str:
        self._may()
        if agent is None:
            agent = peer.agent
        if agent is None:
            raise Refusal(OURS + "NotJoined")
        return str(agent)

    def _known(self, agent: str) -> dict[str, Any]:
        return self.agents.setdefault(
            agent, {"peer": None, "joined": False, "lost": "keep", "event": {}}
        )

    @staticmethod
    def _check_events(events: Any) -> None:
        known: dict[str, Any] = {"stage": str, "timeout": (int, float), "critical": bool, "dependency": list,
                 "complete": bool}
        for place, event in enumerate(events):
            for key, value in event.items():
                if key not in known or not isinstance(value, known[key]):
                    raise Refusal(OURS + "InvalidEvent", field=f"event[{place}].{key}",
                                  reason="is of no such type")
            # What this package lets through and this hub does not: a dependency on itself.
            if event["stage"] in event.get("dependency", ()):
                raise Refusal(OURS + "InvalidEvent", field=f"event[{place}].dependency",
                              reason="names its own stage")

    @staticmethod
    def _take_in(agent: dict[str, Any], events: Any, gone: Any) -> None:
        for stage in gone:
            agent["event"].pop(stage, None)
        for event in events:
            earlier = agent["event"].get(event["stage"], {})
            fresh = {**event}
            if "complete" not in fresh:
                fresh["complete"] = earlier.get("complete", False)
            if "note" in earlier:
                fresh["note"] = earlier["note"]
            agent["event"][event["stage"]] = fresh

    @property
    def complete(self) -> bool:
        """Whether start-up is."""
        return all(stage["complete"] for stage in self.stages.values())

    def _instant(self) -> None:
        """Something changed: the stages follow."""
        self.sequence += 1
        self.time += 0.5
        for agent in self.agents.values():
            for name in agent["event"]:
                self.stages.setdefault(
                    name, {"active": False, "complete": False, "shown": None, "changed": 0}
                )
        while any([self._move(name) for name in self.stages]):
            pass
        for name, stage in self.stages.items():
            shown = self.shown(name, True)
            if shown != stage["shown"]:
                stage.update(shown=shown, changed=self.sequence)

    def _move(self, name: str) -> bool:
        stage = self.stages[name]
        events = [agent["event"][name] for agent in self.agents.values() if name in agent["event"]]
        needs = {one for event in events for one in event.get("dependency", ())}
        ready = all(one in self.stages and self.stages[one]["complete"] for one in needs)
        if not stage["active"] and self.enabled and ready:
            stage["active"] = True
            self._log(f"stage {name} started")
            return True
        if stage["active"] and not stage["complete"] and all(one["complete"] for one in events):
            stage["complete"] = True
            self._log(f"stage {name} complete")
            return True
        return False

    def _log(self, message: str) -> None:
        self.log.append({"sequence": len(self.log) + 1, "time": self.time, "message": message})

    def shown(self, name: str, events: bool) -> dict[str, Any]:
        """A stage as it is answered."""
        stage = self.stages[name]
        of = {agent: known for agent, known in self.agents.items() if name in known["event"]}
        declared = [known["event"][name] for known in of.values()]
        timeouts = [event["timeout"] for event in declared if "timeout" in event]
        shown = []
        for agent, known in of.items():
            event = known["event"][name]
            one = {"agent": agent, "complete": event["complete"],
                   "connected": known["peer"] is not None}
            if "note" in event:
                one["note"] = event["note"]
            shown.append(one)
        return {"name": name, "active": stage["active"], "complete": stage["complete"],
                "timedOut": False, "suspended": False,
                "critical": any(event.get("critical", False) for event in declared),
                "timeout": max(timeouts) if len(timeouts) == len(declared) > 0 else None,
                "dependency": sorted({one for event in declared
                                      for one in event.get("dependency", ())}),
                "event": shown if events else []}


class Watch:
    """A watch that goes on."""

    def __init__(self, hub: StandIn, peer: Peer, all: bool, after: int | None) -> None:
        self.hub, self.peer, self.all, self.after = hub, peer, all, after
        self.first = True

    def __call__(self) -> bool:
        hub = self.hub
        if self.peer.output or not (self.first or hub.sequence > (self.after or 0)):
            return False
        snapshot = self.after is None
        names = [name for name, stage in hub.stages.items()
                 if (snapshot or stage["changed"] > (self.after or 0))
                 and (self.all or stage["active"])]
        self.after = hub.sequence
        if not names and not self.first:
            return False
        self.first = False
        while True:
            part, names = names[: hub.part], names[hub.part :]
            hub.answer(self.peer, {
                "startup": hub.startup, "sequence": hub.sequence, "time": hub.time,
                "snapshot": snapshot, "partial": bool(names), "complete": hub.complete,
                "stage": [hub.shown(name, self.all) for name in part],
            }, continues=True)
            snapshot = False
            if not names:
                return False


class Wait:
    """A wait that goes on."""

    def __init__(self, hub: StandIn, peer: Peer, stage: str | None, state: str,
                 until: float | None) -> None:
        self.hub, self.peer, self.stage, self.state, self.until = hub, peer, stage, state, until

    def __call__(self) -> bool:
        if self._so():
            self.hub.answer(self.peer, {"time": self.hub.time, "timedOut": False})
            return True
        if self.until is not None and monotonic() >= self.until:
            self.hub._say(self.peer, {"error": OURS + "TimedOut"})
            return True
        return False

    def _so(self) -> bool:
        if self.stage is None:
            if self.state == "active":
                return any(stage["active"] for stage in self.hub.stages.values())
            return bool(self.hub.stages) and self.hub.complete
        return bool(self.hub.stages.get(self.stage, {}).get(self.state))


class Follow:
    """A log that is followed."""

    def __init__(self, hub: StandIn, peer: Peer, after: int) -> None:
        self.hub, self.peer, self.after = hub, peer, after

    def __call__(self) -> bool:
        entries = self.hub.log[self.after :]
        if entries:
            self.after = len(self.hub.log)
            self.hub.answer(self.peer, {"entry": entries}, continues=True)
        return False
