# Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
"""What the tests have in common."""

from __future__ import annotations

import asyncio
import faulthandler
import gc
import os
import sys
import tempfile
import threading
import unittest
import warnings
from typing import Any

import ordovan
import ordovan.aio

from .standin import PATIENCE, StandIn

# Whatever hangs is told with all its threads, and ends.
HANG = 3 * PATIENCE


def descriptors() -> dict[str, str]:
    """The open descriptors of this process, and what they are."""
    result = {}
    for fd in os.listdir("/proc/self/fd"):
        try:
            result[fd] = os.readlink(f"/proc/self/fd/{fd}")
        except OSError:
            pass
    return result


class LeakTest(unittest.TestCase):
    """A test that leaves no descriptor and no thread behind, and no hang unnoticed."""

    def setUp(self) -> None:
        faulthandler.dump_traceback_later(HANG, exit=True)
        self.addCleanup(faulthandler.cancel_dump_traceback_later)
        self._unraisable: list[Any] = []
        hook = sys.unraisablehook
        sys.unraisablehook = self._unraisable.append
        self.addCleanup(setattr, sys, "unraisablehook", hook)
        # What is left to the collector of garbage is left behind.
        warned = warnings.catch_warnings()
        warned.__enter__()
        self.addCleanup(warned.__exit__, None, None, None)
        warnings.simplefilter("error", ResourceWarning)
        self._descriptors = descriptors()
        self._threads = set(threading.enumerate())
        self.addCleanup(self._check_leaks)

    def _check_leaks(self) -> None:
        gc.collect()
        self.assertEqual(descriptors(), self._descriptors)
        self.assertEqual(set(threading.enumerate()), self._threads)
        self.assertEqual([str(one.exc_value) for one in self._unraisable], [])


class HubTest(LeakTest):
    """A test with a stand-in hub, which is started."""

    def setUp(self) -> None:
        super().setUp()
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = folder.name
        self.hub = StandIn(os.path.join(folder.name, "hub.socket"))
        self.addCleanup(self.hub.kill)
        self.hub.start()
        self.path = self.hub.path


class Aio:
    """An object of ordovan.aio that looks as if it blocked, so that one test tests both kinds. Its
    loop runs only inside calls."""

    def __init__(self, runner: asyncio.Runner, inner: Any) -> None:
        self._runner = runner
        self._inner = inner

    def __getattr__(self, name: str) -> Any:
        value = getattr(self._inner, name)
        if not callable(value) or name.startswith("on_"):
            return value

        def call(*arguments: Any, **named: Any) -> Any:
            # Hub.wait has a timeout of its own.
            own = isinstance(self._inner, ordovan.aio.Hub)
            timeout = None if own else named.pop("timeout", None)
            result = value(*arguments, **named)
            if hasattr(result, "__anext__"):
                return self._iterate(result, timeout)
            return self._runner.run(self._limited(result, timeout))

        return call

    def __setattr__(self, name: str, value: Any) -> None:
        if name.startswith("_"):
            super().__setattr__(name, value)
        else:
            setattr(self._inner, name, value)

    def __enter__(self) -> Any:
        self._runner.run(self._inner.__aenter__())
        return self

    def __exit__(self, *exc: Any) -> None:
        self._runner.run(self._inner.__aexit__(*exc))

    def poll(self, timeout: float = 0) -> None:
        """Lets the loop run until something has come in, or the time is up."""
        self._runner.run(self._something(timeout))

    async def _something(self, timeout: float) -> None:
        future = asyncio.get_running_loop().create_future()
        self._inner._start()
        self._inner._waiters.add(future)
        await asyncio.wait([future], timeout=timeout)
        self._inner._waiters.discard(future)
        self._inner._check_refused()

    async def _limited(self, awaitable: Any, timeout: float | None) -> Any:
        async with asyncio.timeout(timeout):
            return await awaitable

    def _iterate(self, generator: Any, timeout: float | None) -> Any:
        try:
            while True:
                try:
                    yield self._runner.run(self._limited(generator.__anext__(), timeout))
                except StopAsyncIteration:
                    return
        finally:
            self._runner.run(generator.aclose())


class Blocking:
    """Makes the objects that block."""

    kind = ordovan

    def connection(self, *arguments: Any, **named: Any) -> Any:
        """A connection."""
        return self.adopt(ordovan.Connection(*arguments, **named))

    def make(self, of: str, *arguments: Any, **named: Any) -> Any:
        """An Agent or a Hub, closed with the test."""
        return self.adopt(getattr(ordovan, of)(*arguments, **named))

    def adopt(self, made: Any) -> Any:
        """Closes it with the test."""
        self.addCleanup(made.close)  # type: ignore[attr-defined]
        return made


class Asynchronous:
    """Makes those of asyncio. What goes wrong in the loop goes wrong in the test."""

    def setUp(self) -> None:
        # Before the leaks are counted: the loop has descriptors of its own.
        self.loop_errors: list[Any] = []
        self.runner = asyncio.Runner()
        self.runner.get_loop().set_exception_handler(
            lambda _, context: self.loop_errors.append(context)
        )
        self.addCleanup(self._end_loop)  # type: ignore[attr-defined]
        super().setUp()  # type: ignore[misc]

    def _end_loop(self) -> None:
        self.runner.close()
        self.assertEqual(self.loop_errors, [])  # type: ignore[attr-defined]

    def connection(self, *arguments: Any, **named: Any) -> Any:
        """A connection."""
        opened = self.runner.run(ordovan.aio.Connection.open(*arguments, **named))
        return self.adopt(Aio(self.runner, opened))

    def make(self, of: str, *arguments: Any, **named: Any) -> Any:
        """An Agent or a Hub, closed with the test."""
        return self.adopt(Aio(self.runner, getattr(ordovan.aio, of)(*arguments, **named)))

    def adopt(self, made: Any) -> Any:
        """Closes it with the test."""
        self.addCleanup(made.close)  # type: ignore[attr-defined]
        return made


class Background:
    """Does something on another thread; waits for it at the end of a ``with``."""

    def __init__(self, job: Any) -> None:
        self._error: BaseException | None = None
        self._job = job
        self._thread = threading.Thread(target=self._run, name="background")

    def __enter__(self) -> Background:
        self._thread.start()
        return self

    def __exit__(self, *exc: Any) -> None:
        self._thread.join()
        if self._error is not None:
            raise self._error

    def _run(self) -> None:
        try:
            self._job()
        except BaseException as error:
            self._error = error
