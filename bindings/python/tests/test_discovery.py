# Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
"""Where the hub's socket is looked for."""

from __future__ import annotations

import os
import pathlib
import socket
import tempfile
import unittest
from unittest import mock

from ordovan import SocketNotFound, find_socket
from ordovan._discovery import find_socket_in


class Discovery(unittest.TestCase):
    def setUp(self) -> None:
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.root = os.path.join(folder.name, "run")
        self.runtime = os.path.join(folder.name, "user")
        self.mine = os.path.join(self.runtime, "ordovan")
        os.makedirs(self.root)
        os.makedirs(self.mine)

    def make(self, folder: str, name: str) -> str:
        path = os.path.join(folder, name)
        with socket.socket(socket.AF_UNIX) as made:
            made.bind(path)
        return path

    def find(self, name: str | os.PathLike[str] | None = None, user: int = 1000,
             **environment: str) -> str:
        return find_socket_in(
            name, {"XDG_RUNTIME_DIR": self.runtime, **environment}, user, self.root
        )

    def test_the_only_socket_there_is_it(self) -> None:
        mine, roots = self.make(self.mine, "a.socket"), self.make(self.root, "b.socket")
        self.assertEqual(self.find(), mine)
        self.assertEqual(self.find(user=0), roots)

    def test_several_are_listed(self) -> None:
        paths = tuple(self.make(self.mine, name) for name in ("a.socket", "b.socket"))
        with self.assertRaises(SocketNotFound) as caught:
            self.find()
        self.assertEqual(caught.exception.candidates, paths)
        self.assertFalse(caught.exception.may_come)
        for path in paths:
            self.assertIn(path, str(caught.exception))

    def test_none_may_still_come(self) -> None:
        with self.assertRaises(SocketNotFound) as caught:
            self.find()
        self.assertEqual((caught.exception.candidates, caught.exception.may_come), ((), True))
        os.rmdir(self.mine)
        with self.assertRaises(SocketNotFound) as caught:
            self.find()
        self.assertTrue(caught.exception.may_come)

    def test_what_is_no_socket_does_not_count(self) -> None:
        open(os.path.join(self.mine, "file.socket"), "w").close()
        self.make(self.mine, "other.name")
        path = self.make(self.mine, "a.socket")
        self.assertEqual(self.find(), path)

    def test_a_name_is_that_of_an_application(self) -> None:
        path = self.make(self.mine, "Router.socket")
        self.make(self.mine, "b.socket")
        self.assertEqual(self.find("Router"), path)
        with self.assertRaises(SocketNotFound) as caught:
            self.find("Switch")
        self.assertTrue(caught.exception.may_come)
        self.assertEqual(len(caught.exception.candidates), 2)

    def test_a_name_with_a_slash_is_a_path_and_need_not_be_there(self) -> None:
        self.assertEqual(self.find("./x"), "./x")
        self.assertEqual(self.find("/a/b"), "/a/b")
        self.assertEqual(self.find(pathlib.Path("x")), "x")

    def test_the_argument_goes_before_the_environment_and_that_before_the_folder(self) -> None:
        path = self.make(self.mine, "Router.socket")
        self.assertEqual(self.find(ORDOVAN_SOCKET="/a/b"), "/a/b")
        self.assertEqual(self.find(ORDOVAN_SOCKET="Router"), path)
        self.assertEqual(self.find("/c/d", ORDOVAN_SOCKET="/a/b"), "/c/d")
        self.assertEqual(self.find(ORDOVAN_SOCKET=""), path)

    def test_names_that_are_no_file_names_are_refused(self) -> None:
        for name in ("", ".", "..", "a\0b"):
            with self.assertRaises(SocketNotFound, msg=repr(name)) as caught:
                self.find(name)
            self.assertFalse(caught.exception.may_come)

    def test_a_user_without_a_folder_has_to_name_it(self) -> None:
        with self.assertRaisesRegex(SocketNotFound, "XDG_RUNTIME_DIR") as caught:
            find_socket_in(None, {}, 1000, self.root)
        self.assertFalse(caught.exception.may_come)
        self.assertEqual(find_socket_in("/a/b", {}, 1000, self.root), "/a/b")

    def test_the_process_is_asked_for_its_environment(self) -> None:
        with mock.patch.dict(os.environ, ORDOVAN_SOCKET="/from/environment"):
            self.assertEqual(find_socket(), "/from/environment")


if __name__ == "__main__":
    unittest.main()
