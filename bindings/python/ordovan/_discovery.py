# Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
"""Where the hub's socket is."""

from __future__ import annotations

import os
import stat
from collections.abc import Mapping

from .errors import SocketNotFound

#: What names a socket: an application's name, or a path.
Socket = str | os.PathLike[str]

_FOR_ROOT = "/run/ordovan"
_SUFFIX = ".socket"


def find_socket(socket: Socket | None = None) -> str:
    """The path of the hub's socket.

    ``socket`` names it, else the environment variable ORDOVAN_SOCKET does: a text with a slash in it
    and every other path object is the path itself; another text is the application's name. Its
    socket is NAME.socket in /run/ordovan for root and in $XDG_RUNTIME_DIR/ordovan for other users.
    Without a name it is the only socket there.

    Raises SocketNotFound if there is none, or more than one, which ``candidates`` lists then. Whether
    somebody answers at the socket is not tried. Looks at the file system and nowhere else; does not
    block.
    """
    return find_socket_in(socket, os.environ, os.geteuid(), _FOR_ROOT)


def find_socket_in(
    socket: Socket | None, environment: Mapping[str, str], user: int, for_root: str
) -> str:
    """The same, with all that it depends on."""
    if socket is None:
        socket = environment.get("ORDOVAN_SOCKET") or None
    if socket is not None:
        if not isinstance(socket, str):
            return os.fspath(socket)
        if "/" in socket:
            return socket
        if socket in ("", ".", "..") or "\0" in socket:
            raise SocketNotFound(f"{socket!r} is no name of an application; a path has a slash")
    folder = _folder(environment, user, for_root)
    if socket is not None:
        path = os.path.join(folder, socket + _SUFFIX)
        if not _is_socket(path):
            others = _sockets(folder)
            message = f"there is no socket {path}"
            if others:
                message += f"; there is {', '.join(others)}"
            raise SocketNotFound(message, others, may_come=True)
        return path
    found = _sockets(folder)
    if not found:
        raise SocketNotFound(f"there is no socket of a hub in {folder}", may_come=True)
    if len(found) > 1:
        raise SocketNotFound(f"there are several hubs, name one: {', '.join(found)}", found)
    return found[0]


def _folder(environment: Mapping[str, str], user: int, for_root: str) -> str:
    if user == 0:
        return for_root
    runtime = environment.get("XDG_RUNTIME_DIR")
    if not runtime:
        raise SocketNotFound(
            "XDG_RUNTIME_DIR is not set, so there is no folder to look for the hub's socket; name it"
        )
    return os.path.join(runtime, "ordovan")


def _sockets(folder: str) -> list[str]:
    try:
        names = sorted(os.listdir(folder))
    except (FileNotFoundError, NotADirectoryError):
        return []
    paths = [os.path.join(folder, name) for name in names if name.endswith(_SUFFIX)]
    return [path for path in paths if _is_socket(path)]


def _is_socket(path: str) -> bool:
    try:
        return stat.S_ISSOCK(os.stat(path).st_mode)
    except OSError:
        return False
