#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Serves rankings on a port, to context-query and to hostile clients.

  serving_test.py ROOT CONTEXT_HOST CONTEXT_QUERY
"""
import os
import pathlib
import signal
import socket
import struct
import subprocess
import sys
import time

sys.path.insert(0, str(pathlib.Path(__file__).parent))
from host_case import BOUND, HEADER, HISTORIES, QUERY, HostCase, constant, main  # noqa: E402


class ServingTest(HostCase):
    def test_answers_requests_with_json(self):
        path = self.write("a.csv", HEADER + "x,X,tv,100,5\ny,Y,,300,7\nz,Z,,200,6\n")
        with self.served(path) as (port, _):
            self.wait_for(port, ["rank", "mfu", "1"], {"Size": 1, "list": [{"Id": "y", "Score": 7.0}]})
            self.assertEqual([item["Id"] for item in self.ask(port, "rank", "mru")["list"]], ["y", "z", "x"])
            self.assertEqual([item["Id"] for item in self.ask(port, "rank", "mru", "2")["list"]], ["y", "z"])
            self.assertEqual(self.ask(port, "rank", "date", "0"), {"Size": 0})
            self.assertEqual(len(self.ask(port, "rank", "date")["list"]), 3)
            self.assertEqual(self.ask(port, "weekly")["Size"], 7)
            self.assertEqual(self.ask(port, "quit"), {"bye": True})
            for request in (["rank"], ["rank", "best"], ["rank", "mru", "-1"], ["rank", "mru", "1x"],
                            ["rank", "mru", "1", "2"], ["weekly", "now"], ["nonsense"]):
                with self.subTest(request):
                    self.assertIn("rank mru|mfu|date [N]", self.ask(port, *request, status=3)["error"])
            with open("/dev/full", "wb") as full:
                self.assertEqual(subprocess.run([QUERY, str(port), "rank", "mru"], stdout=full, timeout=BOUND,
                                                stderr=subprocess.DEVNULL).returncode, 8)
        self.assertIn("no answer", self.ask(port, "rank", "mru", status=1))

    def test_query_reports_a_wrong_command_line(self):
        for arguments in ([], ["7300"], ["many", "rank"], ["0", "rank"], ["65536", "rank"], ["73x", "rank"],
                          ["--no", "1"]):
            with self.subTest(arguments):
                result = subprocess.run([QUERY, *arguments], capture_output=True, encoding="utf-8", timeout=BOUND)
                self.assertEqual((result.returncode, result.stdout), (2, ""))
                self.assertIn("--help", result.stderr)
                self.assertEqual(result.stderr.count("\n"), 1)

    def test_refuses_answers_longer_than_one_reply(self):
        longest = int(constant("NetUtil.h", "kMaxReplySize")) - len('{"Size":1,"list":[{"Id":"","Score":500.0}]}\n') - 1
        path = self.write("a.csv", HEADER + f"{'f' * longest},,,500,1\n{'t' * (longest + 1)},,,100,500\n")
        with self.served(path, "--max", 1) as (port, _):
            self.wait_for(port, ["rank", "mru"], {"Size": 1, "list": [{"Id": "f" * longest, "Score": 500.0}]})
            self.assertIn("lower --max", self.ask(port, "rank", "mfu", status=3)["error"])

    def test_learns_records_added_while_serving(self):
        with self.served(HISTORIES / "music_d.csv") as (port, _):
            self.assertEqual(self.ask(port, "rank", "mfu"), {"Size": 0})
            self.wait_for(port, ["rank", "mru", "1"],
                          {"Size": 1, "list": [{"Id": "artist-00232082", "MetaDataSrc": "unspecified",
                                                "Score": 1650663899.0}]})

    def test_survives_hostile_and_incomplete_requests(self):
        path = self.write("a.csv", HEADER + "x,X,tv,100,5\n")
        with self.served(path) as (port, process):
            hostile = {
                "nothing at all": b"",
                "half a header": b"\0\0",
                "half a text": b"\0\0\0\x09rank",
                "a negative length": struct.pack(">i", -1),
                "a huge length": struct.pack(">i", 2**31 - 1) + b"x" * 1000,
                "no text": struct.pack(">i", 0),
                "no terminator": struct.pack(">i", 4) + b"rank",
                "bytes": struct.pack(">i", 200) + bytes(range(200)),
            }
            for name, sent in hostile.items():
                with self.subTest(name):
                    with socket.create_connection(("127.0.0.1", port), timeout=BOUND) as client:
                        client.sendall(sent)
                    self.wait_for(port, ["rank", "mfu"],
                                  {"Size": 1, "list": [{"Id": "x", "MetaDataSrc": "tv", "Score": 5.0}]})
            with socket.create_connection(("127.0.0.1", port), timeout=BOUND) as silent:
                silent.sendall(b"\0")
                begun = time.monotonic()
                self.assertIn("list", self.ask(port, "rank", "mfu"))
                self.assertLess(time.monotonic() - begun, 20)
                self.assertEqual(silent.recv(1), b"", "the silent client was not disconnected")
            self.assertIsNone(process.poll())

    def test_reports_a_port_in_use(self):
        with socket.create_server(("0.0.0.0", 0)) as taken:
            result = self.run_host("--serve", taken.getsockname()[1], status=6)
            self.assertIn(f"cannot open port {taken.getsockname()[1]}: it is in use", result.stderr)

    def test_ends_when_terminated(self):
        with self.served("--track-memory") as (port, process):
            self.assertIn("error", self.ask(port, "nonsense", status=3))
            os.killpg(process.pid, signal.SIGTERM)
            process.wait(timeout=BOUND)
        self.assertIn("the host's own buffers: 0 blocks in use, 0 bytes; at most 256 bytes at once", self.rest)


if __name__ == "__main__":
    main()
